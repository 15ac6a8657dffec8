// markforge::selfVerifier: checks a container just built, against the
// digests of exactly the bytes written for it, before the output is allowed
// to replace anything.
#pragma once

#include <string>

#include "buildEngine.h"
#include "publicKey.h"

namespace markforge {

class selfVerifier {
public:
    selfVerifier(const engineResult& built, uint32_t hashId) : _built(built), _hashId(hashId) {}

    // Every signature is exactly as long as `key`'s modulus. False, with a
    // one-line reason naming the first that is not and its length.
    bool CheckSignatureLengths(const publicKey& key, std::string& reason) const;
    // Every component signature, and the archive signature, verify under
    // `key` over the digests of the bytes written. False, with a one-line
    // reason naming the first that does not.
    bool CheckSignatures(const publicKey& key, std::string& reason) const;

private:
    const engineResult& _built;
    uint32_t _hashId;
};

}  // namespace markforge
