// PKCS#11 URIs through p11-kit: parsing, and matching against what libp11
// reports of modules, tokens and keys.
#include "pkcs11Uri.h"

#include <p11-kit/uri.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "signRequest.h"

namespace agent {
namespace {

constexpr CK_SLOT_ID NO_SLOT_ID = static_cast<CK_SLOT_ID>(-1);
constexpr CK_OBJECT_CLASS PRIVATE_KEY = CKO_PRIVATE_KEY;

// PKCS#11's fixed-width text: the value, then blanks to the end.
template <size_t N>
void Padded(unsigned char (&field)[N], const std::string& value)
{
    std::memset(field, ' ', N);
    std::memcpy(field, value.data(), std::min(N, value.size()));
}

std::string AttributeText(const CK_ATTRIBUTE* attribute)
{
    if (!attribute || !attribute->pValue) return {};
    return std::string(static_cast<const char*>(attribute->pValue), attribute->ulValueLen);
}

// The file a pin-source names: "file:" followed by a path (or by "//" and an
// absolute path), or an absolute path alone. Anything else (a program to
// run, a scheme of its own) gives an empty name.
std::string PinSourceFile(const std::string& source)
{
    std::string path = source;
    if (path.compare(0, 5, "file:") == 0) path.erase(0, 5);
    if (path.compare(0, 3, "///") == 0) path.erase(0, 2);
    return !path.empty() && path[0] == '/' ? path : std::string();
}

bool ModuleVersionGiven(P11KitUri* uri)
{
    const CK_INFO* info = p11_kit_uri_get_module_info(uri);
    return info->libraryVersion.major != static_cast<CK_BYTE>(-1) ||
           info->libraryVersion.minor != static_cast<CK_BYTE>(-1);
}

}  // namespace

Pkcs11Uri::Pkcs11Uri() : _uri(p11_kit_uri_new()) {}

Pkcs11Uri::~Pkcs11Uri()
{
    if (_uri) p11_kit_uri_free(_uri);
}

Pkcs11Uri::Pkcs11Uri(Pkcs11Uri&& other) noexcept { *this = std::move(other); }

Pkcs11Uri& Pkcs11Uri::operator=(Pkcs11Uri&& other) noexcept
{
    std::swap(_uri, other._uri);
    std::swap(_text, other._text);
    std::swap(_object, other._object);
    std::swap(_modulePath, other._modulePath);
    std::swap(_pinFile, other._pinFile);
    return *this;
}

bool Pkcs11Uri::Parse(const std::string& text, std::string& error)
{
    _text = text;
    const std::string what = "--pkcs11-uri " + text;
    const int parsed = p11_kit_uri_parse(text.c_str(), P11_KIT_URI_FOR_ANY, _uri);
    if (parsed != P11_KIT_URI_OK) {
        error = what + ": " + p11_kit_uri_message(parsed);
        return false;
    }
    if (p11_kit_uri_any_unrecognized(_uri)) {
        error = what + ": an attribute the agent does not know (it matches on module-path, library-manufacturer, "
                       "library-description, slot-id, slot-manufacturer, slot-description, token, manufacturer, "
                       "model, serial, object, id and type)";
        return false;
    }
    if (p11_kit_uri_get_pin_value(_uri)) {
        // Not quoted back: the PIN is in it.
        error = "--pkcs11-uri: pin-value puts the PIN where every user can read it; name a file with "
                "pin-source=file:PATH";
        return false;
    }
    if (p11_kit_uri_get_module_name(_uri)) {
        error = what + ": module-name is not supported; name the module with module-path";
        return false;
    }
    if (ModuleVersionGiven(_uri)) {
        error = what + ": library-version is not supported";
        return false;
    }
    const CK_ATTRIBUTE* type = p11_kit_uri_get_attribute(_uri, CKA_CLASS);
    if (type && (type->ulValueLen != sizeof(CK_OBJECT_CLASS) ||
                 *static_cast<const CK_OBJECT_CLASS*>(type->pValue) != CKO_PRIVATE_KEY)) {
        error = what + ": the agent serves private keys (type=private)";
        return false;
    }
    _object = AttributeText(p11_kit_uri_get_attribute(_uri, CKA_LABEL));
    if (_object.empty()) {
        error = what + ": names no object (the object's label is the key name clients ask for)";
        return false;
    }
    if (!IsValidKeyName(_object)) {
        error = what + ": object " + _object + " is not a valid key name";
        return false;
    }
    const char* source = p11_kit_uri_get_pin_source(_uri);
    if (source && (_pinFile = PinSourceFile(source)).empty()) {
        error = what + ": pin-source " + source + " is not a file (file:/PATH)";
        return false;
    }
    if (const char* path = p11_kit_uri_get_module_path(_uri)) _modulePath = path;
    return true;
}

Pkcs11Uri Pkcs11Uri::ForToken(const std::string& label)
{
    Pkcs11Uri uri;
    CK_TOKEN_INFO* token = p11_kit_uri_get_token_info(uri._uri);
    Padded(token->label, label);
    char* text = nullptr;
    if (p11_kit_uri_format(uri._uri, P11_KIT_URI_FOR_TOKEN, &text) == P11_KIT_URI_OK) uri._text = text;
    std::free(text);
    return uri;
}

bool Pkcs11Uri::Matches(const ModuleFacts& module) const
{
    CK_INFO info{};
    Padded(info.manufacturerID, module.manufacturer);
    Padded(info.libraryDescription, module.description);
    return p11_kit_uri_match_module_info(_uri, &info) == 1;
}

bool Pkcs11Uri::Matches(const TokenFacts& token) const
{
    const CK_SLOT_ID wanted = p11_kit_uri_get_slot_id(_uri);
    if (wanted != NO_SLOT_ID && wanted != token.slotId) return false;
    CK_SLOT_INFO slot{};
    Padded(slot.manufacturerID, token.slotManufacturer);
    Padded(slot.slotDescription, token.slotDescription);
    CK_TOKEN_INFO info{};
    Padded(info.label, token.label);
    Padded(info.manufacturerID, token.manufacturer);
    Padded(info.model, token.model);
    Padded(info.serialNumber, token.serial);
    return p11_kit_uri_match_slot_info(_uri, &slot) == 1 && p11_kit_uri_match_token_info(_uri, &info) == 1;
}

bool Pkcs11Uri::Matches(const KeyFacts& key) const
{
    // Every object attribute a URI may name is given, so none is skipped
    // for being absent on the key's side.
    CK_OBJECT_CLASS privateKey = PRIVATE_KEY;
    CK_ATTRIBUTE attributes[] = {
        {CKA_CLASS, &privateKey, sizeof privateKey},
        {CKA_LABEL, const_cast<char*>(key.label.data()), key.label.size()},
        {CKA_ID, const_cast<uint8_t*>(key.id.data()), key.id.size()},
    };
    return p11_kit_uri_match_attributes(_uri, attributes, 3) == 1;
}

std::string Pkcs11Uri::Identify(const TokenFacts& token, const KeyFacts& key)
{
    Pkcs11Uri uri;
    CK_TOKEN_INFO* info = p11_kit_uri_get_token_info(uri._uri);
    Padded(info->label, token.label);
    Padded(info->serialNumber, token.serial);
    CK_OBJECT_CLASS privateKey = PRIVATE_KEY;
    CK_ATTRIBUTE attributes[] = {
        {CKA_LABEL, const_cast<char*>(key.label.data()), key.label.size()},
        {CKA_ID, const_cast<uint8_t*>(key.id.data()), key.id.size()},
        {CKA_CLASS, &privateKey, sizeof privateKey},
    };
    p11_kit_uri_set_attributes(uri._uri, attributes, 3);
    char* text = nullptr;
    std::string identified;
    if (p11_kit_uri_format(uri._uri, P11_KIT_URI_FOR_OBJECT_ON_TOKEN, &text) == P11_KIT_URI_OK) identified = text;
    std::free(text);
    return identified;
}

}  // namespace agent
