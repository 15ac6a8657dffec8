// markforge::containerVerifier: every component signature and the archive
// signature of a container checked under one key, each with its own verdict.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "containerReader.h"
#include "publicKey.h"

namespace markforge {

enum class verdict {
    ok,
    digestMismatch,  // a good signature by the key, over other content
    badSignature,    // not a signature by the key over any content
    outsideFile,     // the bytes it covers run past the end of the file
};

// "ok", "digest-mismatch", "bad-signature" or "outside-file".
const char* VerdictName(verdict value);

struct verifyResult {
    std::vector<verdict> components;
    // The content digest of each component; empty when it lies outside.
    std::vector<std::vector<uint8_t>> componentDigests;
    verdict archive = verdict::ok;
    std::vector<uint8_t> archiveDigest;  // empty when not computed

    // The number of verdicts that are not ok.
    size_t Problems() const;
};

class containerVerifier {
public:
    containerVerifier(const containerContents& contents, const fileReader& file, const publicKey& key);

    // Reads each component once, feeding its own digest and the archive's.
    // False, with a reason, only when the file cannot be read.
    bool Run(verifyResult& result, std::string& reason) const;

    // The verdict on `signature` for content whose digest is `contentDigest`.
    verdict Judge(const std::vector<uint8_t>& signature, const std::vector<uint8_t>& contentDigest) const;

private:
    void JudgeArchive(verifyResult& result, bool archiveComplete) const;

    const containerContents& _contents;
    const fileReader& _file;
    const publicKey& _key;
    uint32_t _hashId;
};

}  // namespace markforge
