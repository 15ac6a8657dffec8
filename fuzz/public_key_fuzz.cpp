// Fuzz target: the key file reader behind --verify-key and the key rings
// (PEM, markforge key file or raw modulus), then digest recovery from a
// signature made of the same bytes.
#include <cstdint>
#include <string>
#include <vector>

#include "publicKey.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    markforge::publicKey key;
    std::string reason;
    if (!key.LoadBytes(bytes, reason)) return 0;
    key.Fingerprint();
    std::vector<uint8_t> signature(data, data + std::min(size, key.ModulusBytes()));
    std::vector<uint8_t> digest;
    uint32_t hashId = 0;
    key.Recover(signature, digest, hashId);
    key.Verifies(signature, std::vector<uint8_t>(32, 0));
    return 0;
}
