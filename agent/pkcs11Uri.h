// A PKCS#11 URI (RFC 7512) naming one key the agent serves, parsed by
// p11-kit's parser. The agent matches what the URI says against the module,
// slot, token and key facts libp11 reports, so this class knows nothing of
// libp11 and libp11 nothing of the URI.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

struct p11_kit_uri;

namespace agent {

// What a module, a slot with its token, and a key say of themselves, as
// libp11 reports them (text fields without the padding PKCS#11 adds).
struct ModuleFacts {
    std::string manufacturer, description;
};
struct TokenFacts {
    unsigned long slotId = 0;
    std::string slotManufacturer, slotDescription;
    std::string label, manufacturer, model, serial;
};
struct KeyFacts {
    std::string label;
    std::vector<uint8_t> id;
};

class Pkcs11Uri {
public:
    Pkcs11Uri();
    ~Pkcs11Uri();
    Pkcs11Uri(Pkcs11Uri&&) noexcept;
    Pkcs11Uri& operator=(Pkcs11Uri&&) noexcept;

    // Parses `text` as a URI for one private key. False with the reason in
    // `error` when it is not a PKCS#11 URI, names no object (the object's
    // label is the key name clients ask for) or a label that is not a valid
    // key name, names another type than private, carries an attribute this
    // agent cannot match (it would otherwise be ignored and match more than
    // asked), or carries the PIN itself (pin-value: every user of the machine
    // could read it in the process list; pin-source=file:... names a file).
    bool Parse(const std::string& text, std::string& error);
    // A URI naming the token labelled `label`, for the short form
    // (--pkcs11-module, --token): no object, every key.
    static Pkcs11Uri ForToken(const std::string& label);

    const std::string& Text() const { return _text; }
    // The object's label: the key's name.
    const std::string& Object() const { return _object; }
    // module-path, or empty.
    const std::string& ModulePath() const { return _modulePath; }
    // The file pin-source names (its "file:" scheme taken off), or empty.
    const std::string& PinFile() const { return _pinFile; }

    bool Matches(const ModuleFacts& module) const;
    bool Matches(const TokenFacts& token) const;
    bool Matches(const KeyFacts& key) const;

    // The URI that names this key on this token exactly: token label and
    // serial, object, id and type.
    static std::string Identify(const TokenFacts& token, const KeyFacts& key);

private:
    p11_kit_uri* _uri = nullptr;
    std::string _text, _object, _modulePath, _pinFile;
};

}  // namespace agent
