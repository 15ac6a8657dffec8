// A PKCS#11 token opened through libp11: the module loaded, the token found
// by its label, one login, and its private keys handed out by label.
#pragma once

#include <libp11.h>

#include <memory>
#include <mutex>
#include <string>

#include "keyStore.h"

namespace agent {

class Pkcs11Token {
public:
    Pkcs11Token() = default;
    ~Pkcs11Token();
    Pkcs11Token(const Pkcs11Token&) = delete;
    Pkcs11Token& operator=(const Pkcs11Token&) = delete;

    // Loads `module`, finds the token labelled `label` and logs in once with
    // `pin`. False with the reason (the token's own error for a refused
    // login) in `error`.
    bool Open(const std::string& module, const std::string& label, const std::string& pin, std::string& error);
    // Adds every labelled private key of the token to `store`; all of them
    // share one lock, since libp11 is not safe to call from several threads.
    bool AddKeys(KeyStore& store, std::string& error);

private:
    PKCS11_CTX* _ctx = nullptr;
    PKCS11_SLOT* _slots = nullptr;
    unsigned int _slotCount = 0;
    PKCS11_SLOT* _slot = nullptr;
    bool _loaded = false;
    std::shared_ptr<std::mutex> _serial = std::make_shared<std::mutex>();
};

}  // namespace agent
