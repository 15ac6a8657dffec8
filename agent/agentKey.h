// One signing key as the agent holds it: the private half that signs (in
// memory or in a PKCS#11 token) and a software copy of the public half that
// checks every signature before it leaves.
#pragma once

#include <openssl/evp.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "lbOpensslPtr.h"
#include "tokenGuard.h"

namespace agent {

using lockbase::PkeyPtr;

class AgentKey {
public:
    // `token`, when given, guards the private half: a key of a PKCS#11
    // token signs only while its module is up, and a failed signature tells
    // the guard.
    AgentKey(std::string name, PkeyPtr privateKey, std::shared_ptr<TokenGuard> token = nullptr);

    // False with the reason in `error` when the key is not RSA or its public
    // half cannot be taken out.
    bool Prepare(std::string& error);

    // RSA PKCS#1 v1.5 signature over a finished SHA-256/384/512 digest
    // (named by its length), checked with the public half. False with the
    // reason in `error`; then no signature is given out.
    bool Sign(const std::vector<uint8_t>& digest, std::vector<uint8_t>& signature, std::string& error) const;

    const std::string& Name() const { return _name; }
    // "SHA256:" and the hex SHA-256 of the DER SubjectPublicKeyInfo.
    const std::string& Fingerprint() const { return _fingerprint; }
    // The public half as DER SubjectPublicKeyInfo.
    const std::vector<uint8_t>& PublicDer() const { return _publicDer; }

    // The token's new handle for the same key, after its module was loaded
    // anew; call only with the token's guard held alone.
    void ReplacePrivate(PkeyPtr privateKey) const { _private = std::move(privateKey); }

private:
    bool SignUnchecked(const EVP_MD* md, const std::vector<uint8_t>& digest, std::vector<uint8_t>& signature) const;
    bool SignWithToken(const EVP_MD* md, const std::vector<uint8_t>& digest, std::vector<uint8_t>& signature,
                       std::string& error) const;
    bool Verifies(const EVP_MD* md, const std::vector<uint8_t>& digest, const std::vector<uint8_t>& signature) const;

    // Told apart by number, not address, in the per-thread context cache.
    unsigned long _id;
    std::string _name;
    // Changed only by the token's recovery, under its guard.
    mutable PkeyPtr _private;
    PkeyPtr _public;
    std::shared_ptr<TokenGuard> _token;
    std::vector<uint8_t> _publicDer;
    std::string _fingerprint;
};

// The digest named by a finished digest's length, or null.
const EVP_MD* DigestForLength(size_t length);


}  // namespace agent
