// The request parser. The request carries no length, so the argument text
// decides it: see docs/sign-agent.md for the rule.
#include "signRequest.h"

#include <cstring>

namespace agent {
namespace {

constexpr size_t MAX_KEY_NAME = KEY_FIELD_SIZE - 1;

// The zero-terminated visible text at the start of `field`, or false when the
// field holds no terminator or a byte outside printable ASCII before it.
bool ReadFieldText(const uint8_t* field, size_t size, std::string& text)
{
    const void* end = std::memchr(field, 0, size);
    if (!end) return false;
    const size_t length = static_cast<size_t>(static_cast<const uint8_t*>(end) - field);
    for (size_t i = 0; i < length; ++i)
        if (field[i] < 0x20 || field[i] > 0x7e) return false;
    text.assign(reinterpret_cast<const char*>(field), length);
    return true;
}

// The value of the first `name=` item of a `;`-separated argument text.
bool FindItem(const std::string& text, const std::string& name, std::string& value)
{
    const std::string prefix = name + "=";
    size_t start = 0;
    while (start <= text.size()) {
        size_t end = text.find(';', start);
        if (end == std::string::npos) end = text.size();
        if (text.compare(start, prefix.size(), prefix) == 0) {
            value = text.substr(start + prefix.size(), end - start - prefix.size());
            return true;
        }
        start = end + 1;
    }
    return false;
}

// An argument field: its text with an S= item. False when the field is not one.
bool ReadArguments(const uint8_t* field, std::string& text, std::string& sizeText)
{
    return ReadFieldText(field, ARG_FIELD_SIZE, text) && FindItem(text, "S", sizeText);
}

size_t DigestLengthFromText(const std::string& sizeText)
{
    if (sizeText == "32") return 32;
    if (sizeText == "48") return 48;
    if (sizeText == "64") return 64;
    return 0;
}

bool AllZero(const uint8_t* bytes, size_t size)
{
    for (size_t i = 0; i < size; ++i)
        if (bytes[i] != 0) return false;
    return true;
}

ParseResult Invalid(ParseResult result, const std::string& reason)
{
    result.status = ParseStatus::Invalid;
    result.reason = reason;
    return result;
}

// Fills the fields of a request whose length is known and checks them.
ParseResult ReadRequest(const uint8_t* data, size_t size, size_t length, const std::string& arguments,
                        const std::string& sizeText)
{
    ParseResult result;
    SignRequest& request = result.request;
    request.length = length;
    request.arguments = arguments;
    FindItem(arguments, "F", request.fieldF);
    std::string name;
    if (!ReadFieldText(data, KEY_FIELD_SIZE, name)) name.clear();
    request.keyName = name;

    const size_t digestLength = DigestLengthFromText(sizeText);
    const size_t area = length == SHORT_REQUEST ? SHORT_DIGEST_AREA : LONG_DIGEST_AREA;
    const uint8_t* digest = data + KEY_FIELD_SIZE;
    request.digest.assign(digest, digest + (digestLength ? std::min(digestLength, area) : area));

    if (size > length)
        return Invalid(result, std::to_string(size) + " bytes received for a " + std::to_string(length) +
                                   "-byte request");
    if (!IsValidKeyName(name)) return Invalid(result, "malformed key name");
    if (digestLength == 0) return Invalid(result, "S=" + sizeText + " is not 32, 48 or 64");
    if ((digestLength == 32) != (length == SHORT_REQUEST))
        return Invalid(result, "S=" + sizeText + " does not match a " + std::to_string(length) + "-byte request");
    if (!AllZero(digest + digestLength, area - digestLength)) return Invalid(result, "digest padding is not zero");
    result.status = ParseStatus::Complete;
    return result;
}

}  // namespace

bool IsValidKeyName(const std::string& name)
{
    if (name.empty() || name.size() > MAX_KEY_NAME || name[0] == '.') return false;
    for (const char c : name)
        if (c < 0x21 || c > 0x7e || c == '/') return false;
    return true;
}

ParseResult ParseSignRequest(const uint8_t* data, size_t size)
{
    std::string arguments, sizeText;
    if (size < SHORT_REQUEST) return {};
    // A short request's argument field holds an S= text; in a long request
    // the same bytes are digest, which never forms one by chance.
    if (ReadArguments(data + KEY_FIELD_SIZE + SHORT_DIGEST_AREA, arguments, sizeText))
        return ReadRequest(data, size, SHORT_REQUEST, arguments, sizeText);
    if (size < LONG_REQUEST) return {};
    if (ReadArguments(data + KEY_FIELD_SIZE + LONG_DIGEST_AREA, arguments, sizeText))
        return ReadRequest(data, size, LONG_REQUEST, arguments, sizeText);
    ParseResult result;
    result.request.length = LONG_REQUEST;
    return Invalid(result, "no argument text with S= at offset 64 or 96");
}

}  // namespace agent
