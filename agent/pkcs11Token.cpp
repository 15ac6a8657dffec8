// The PKCS#11 key source.
#include "pkcs11Token.h"

#include <openssl/err.h>

#include "signRequest.h"

namespace agent {
namespace {

// The newest error libp11 or the module left in OpenSSL's queue.
std::string TokenError()
{
    unsigned long code = 0, last;
    while ((last = ERR_get_error()) != 0) code = last;
    if (code == 0) return "no detail given";
    char text[256];
    ERR_error_string_n(code, text, sizeof text);
    return text;
}

}  // namespace

Pkcs11Token::~Pkcs11Token()
{
    if (_slots) {
        if (_slot) PKCS11_logout(_slot);
        PKCS11_release_all_slots(_ctx, _slots, _slotCount);
    }
    if (_loaded) PKCS11_CTX_unload(_ctx);
    if (_ctx) PKCS11_CTX_free(_ctx);
}

bool Pkcs11Token::Open(const std::string& module, const std::string& label, const std::string& pin,
                       std::string& error)
{
    _ctx = PKCS11_CTX_new();
    if (!_ctx) {
        error = "cannot create a PKCS#11 context";
        return false;
    }
    if (PKCS11_CTX_load(_ctx, module.c_str()) != 0) {
        error = "cannot load the PKCS#11 module " + module + ": " + TokenError();
        return false;
    }
    _loaded = true;
    if (PKCS11_enumerate_slots(_ctx, &_slots, &_slotCount) != 0) {
        error = "cannot list the slots of " + module + ": " + TokenError();
        return false;
    }
    for (PKCS11_SLOT* slot = PKCS11_find_token(_ctx, _slots, _slotCount); slot;
         slot = PKCS11_find_next_token(_ctx, _slots, _slotCount, slot))
        if (slot->token && label == slot->token->label) _slot = slot;
    if (!_slot) {
        error = "no token labelled " + label + " in " + module;
        return false;
    }
    // One attempt only: retrying a wrong PIN would walk the token towards
    // its lockout.
    if (PKCS11_login(_slot, 0, pin.c_str()) != 0) {
        error = "login to token " + label + " refused: " + TokenError();
        return false;
    }
    return true;
}

bool Pkcs11Token::AddKeys(KeyStore& store, std::string& error)
{
    PKCS11_KEY* keys = nullptr;
    unsigned int count = 0;
    if (PKCS11_enumerate_keys(_slot->token, &keys, &count) != 0) {
        error = "cannot list the keys of the token: " + TokenError();
        return false;
    }
    for (unsigned int i = 0; i < count; ++i) {
        if (!keys[i].isPrivate || !keys[i].label || !IsValidKeyName(keys[i].label)) continue;
        PkeyPtr pkey(PKCS11_get_private_key(&keys[i]));
        if (!pkey) {
            error = std::string("cannot use token key ") + keys[i].label + ": " + TokenError();
            return false;
        }
        auto key = std::make_unique<AgentKey>(keys[i].label, std::move(pkey), _serial);
        if (!key->Prepare(error) || !store.Add(std::move(key), error)) return false;
    }
    return true;
}

}  // namespace agent
