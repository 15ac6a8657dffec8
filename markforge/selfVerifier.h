// markforge::selfVerifier: checks a container just built against the bytes
// written for it, before the output is allowed to replace anything.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "containerBuilder.h"
#include "payloadCopier.h"
#include "publicKey.h"

namespace markforge {

class selfVerifier {
public:
    selfVerifier(const std::vector<builtRecord>& records, const std::vector<uint8_t>& archiveSignature,
                 const payloadCopier& payload, uint32_t hashId);

    // The records name the components in order, back to back, with the
    // sizes that were copied. False, with a one-line reason, otherwise
    // (a component that changed while it was being built).
    bool CheckLayout(const std::vector<std::string>& names, std::string& reason) const;
    // Every signature is exactly as long as `key`'s modulus. False, with a
    // one-line reason naming the first that is not and its length.
    bool CheckSignatureLengths(const publicKey& key, std::string& reason) const;
    // Every component signature, and the archive signature, verify under
    // `key` over the digests of the bytes copied. False, with a one-line
    // reason naming the first that does not.
    bool CheckSignatures(const publicKey& key, std::string& reason) const;

private:
    const std::vector<builtRecord>& _records;
    const std::vector<uint8_t>& _archiveSignature;
    const payloadCopier& _payload;
    uint32_t _hashId;
};

}  // namespace markforge
