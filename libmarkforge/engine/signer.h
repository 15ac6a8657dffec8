// markforge::signer: the one seam every way of signing goes through. A
// signer is asked for one signature at a time, possibly from several threads
// at once, and answers with the signature bytes or a failure and its reason.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace markforge {

struct signatureRequest {
    // The F field: the component's name, or "archive".
    std::string fieldF;
    // The framework's hash number (3 SHA-256, 5 SHA-384, 4 SHA-512).
    uint32_t hashId = 3;
    // The digest of the content's bytes.
    std::vector<uint8_t> contentDigest;
    // What the key signs: the digest of contentDigest written as upper-case
    // hex text (SignedDigestOf), with the DigestInfo of hashId.
    std::vector<uint8_t> toSign;
};

struct signatureResult {
    std::vector<uint8_t> signature;
    // Empty on success; otherwise one line saying what failed.
    std::string failure;

    bool Ok() const { return failure.empty(); }
    static signatureResult Failed(std::string reason)
    {
        signatureResult result;
        result.failure = std::move(reason);
        return result;
    }
};

class signer {
public:
    virtual ~signer() = default;
    // One signature. Safe to call from several threads at once.
    virtual signatureResult Sign(const signatureRequest& request) = 0;
    // Who signs, for messages ("the key file keys/dev.markforge").
    virtual std::string Describe() const = 0;
};

}  // namespace markforge
