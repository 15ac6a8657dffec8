// Loading the keys from every source the command line names.
#include "keySources.h"

#include <openssl/crypto.h>

#include "keyDirectory.h"
#include "pinFile.h"

namespace agent {
namespace {

void Forget(std::string& secret) { OPENSSL_cleanse(&secret[0], secret.size()); }

}  // namespace

KeySources::~KeySources() { Forget(_sharedPin); }

bool KeySources::Load(const AgentOptions& options, KeyStore& store, std::string& error)
{
    if (!options.keyDir.empty() && !KeyDirectory::Load(options.keyDir, store, _skipped, error)) return false;
    if (!options.token.empty() && !AddFromToken(Pkcs11Uri::ForToken(options.token), true, options, store, error))
        return false;
    for (const std::string& text : options.pkcs11Uris) {
        Pkcs11Uri uri;
        if (!uri.Parse(text, error) || !AddFromToken(uri, false, options, store, error)) return false;
    }
    return true;
}

bool KeySources::AddFromToken(const Pkcs11Uri& uri, bool everyKey, const AgentOptions& options, KeyStore& store,
                              std::string& error)
{
    const std::string path = !uri.ModulePath().empty()      ? uri.ModulePath()
                             : !options.pkcs11Module.empty() ? options.pkcs11Module
                                                             : DEFAULT_PKCS11_MODULE;
    Pkcs11Module* module = ModuleAt(path, error);
    std::string pin;
    const bool added = module && PinFor(uri, options, pin, error) &&
                       (everyKey ? module->AddTokenKeys(uri, pin, store, error) : module->AddKey(uri, pin, store, error));
    Forget(pin);
    return added;
}

Pkcs11Module* KeySources::ModuleAt(const std::string& path, std::string& error)
{
    for (const auto& module : _modules)
        if (module->Path() == path) return module.get();
    _modules.push_back(std::make_unique<Pkcs11Module>(path));
    return _modules.back()->Load(error) ? _modules.back().get() : nullptr;
}

bool KeySources::PinFor(const Pkcs11Uri& uri, const AgentOptions& options, std::string& pin, std::string& error)
{
    if (!uri.PinFile().empty()) return PinFile::Read(uri.PinFile(), pin, error);
    if (options.pinFile.empty()) {
        error = uri.Text() + " names no PIN: add pin-source=file:PATH to it, or give --pin-file";
        return false;
    }
    if (!_sharedPinRead && !PinFile::Read(options.pinFile, _sharedPin, error)) return false;
    _sharedPinRead = true;
    pin = _sharedPin;
    return true;
}

std::map<std::string, std::string> KeySources::TokenKeyUris() const
{
    std::map<std::string, std::string> uris;
    for (const auto& module : _modules)
        for (const auto& entry : module->KeyUris()) uris.insert(entry);
    return uris;
}

void KeySources::StartRecovery(const Pkcs11Module::Events& events)
{
    for (const auto& module : _modules) module->StartRecovery(events);
}

size_t KeySources::TokenErrors() const
{
    size_t errors = 0;
    for (const auto& module : _modules) errors += module->TokenErrors();
    return errors;
}

}  // namespace agent
