// Where the agent's keys come from, gathered once at start: a key folder,
// a token in the short form (--pkcs11-module, --token, --pin-file), and keys
// named by PKCS#11 URI (--pkcs11-uri), each module loaded once however many
// keys it holds.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "agentOptions.h"
#include "keyStore.h"
#include "pkcs11Module.h"

namespace agent {

// The module a URI without module-path is looked for in when
// --pkcs11-module is not given either: p11-kit's proxy, which offers every
// module the system has registered with p11-kit.
constexpr const char* DEFAULT_PKCS11_MODULE = "p11-kit-proxy.so";

class KeySources {
public:
    KeySources() = default;
    ~KeySources();
    KeySources(const KeySources&) = delete;
    KeySources& operator=(const KeySources&) = delete;

    // Fills `store`. False with the reason in `error`.
    bool Load(const AgentOptions& options, KeyStore& store, std::string& error);
    // Key folder files that name no key.
    const std::vector<std::string>& Skipped() const { return _skipped; }
    // For each key of a token: its name and the URI naming it exactly.
    std::map<std::string, std::string> TokenKeyUris() const;
    // From now on, a module whose signature failed is loaded again until it
    // is back; `events` is told.
    void StartRecovery(const Pkcs11Module::Events& events);
    // Signatures the tokens failed, all modules together.
    size_t TokenErrors() const;

private:
    // The one key `uri` names (every labelled key of its token when
    // `everyKey`), from the URI's module or else the options' one.
    bool AddFromToken(const Pkcs11Uri& uri, bool everyKey, const AgentOptions& options, KeyStore& store,
                      std::string& error);
    Pkcs11Module* ModuleAt(const std::string& path, std::string& error);
    // The PIN for `uri`: its pin-source file, or else --pin-file's.
    bool PinFor(const Pkcs11Uri& uri, const AgentOptions& options, std::string& pin, std::string& error);

    std::vector<std::string> _skipped;
    std::vector<std::unique_ptr<Pkcs11Module>> _modules;
    std::string _sharedPin;  // --pin-file's, read once
    bool _sharedPinRead = false;
};

}  // namespace agent
