// The library's production-mode signer (markforge::sign::sign_hsm) as the
// agent tests call it, and the digest lengths they go through.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace agenttest {

// A finished digest's length and the openssl name of its hash.
struct DigestKind {
    size_t length;
    std::string name;
};

// SHA-256, SHA-384 and SHA-512.
const std::vector<DigestKind>& DigestKinds();

// sign_hsm's result for `digest` under `keyName` (F=image.bin, C=1), with the
// signature it took and what it printed on standard error.
int SignThroughLibrary(const std::vector<uint8_t>& digest, const std::string& keyName,
                       std::vector<uint8_t>& signature, std::string& err);

}  // namespace agenttest
