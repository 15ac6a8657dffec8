// markforge::containerVerifier: every component signature and the archive
// signature of a container checked under one key, each with its own verdict.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "containerReader.h"
#include "publicKey.h"
#include "recordLayout.h"
#include "tableCheck.h"

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
    // Every departure from the exact tiling of the payload by the records.
    std::vector<layoutFinding> layout;
    // The table of contents, checked against the records and the digests.
    tableReport table;
    // A container without a table is a problem of its own.
    bool tableRequired = false;

    // The problems the table adds: each of its findings, or its absence
    // when one is required.
    size_t TableProblems() const;
    // Signature verdicts that are not ok, layout findings and table problems.
    size_t Problems() const;
    // Whether a table signed by the key vouches for every record's name,
    // place and order.
    bool NamesSigned() const;
};

// What a verification demands beyond the signatures and the layout.
struct verifyPolicy {
    bool requireTable = false;
};

class containerVerifier {
public:
    containerVerifier(const containerContents& contents, const fileReader& file, const publicKey& key,
                      verifyPolicy policy = {});

    // Reads each component once, feeding its own digest and, on a second
    // thread, the archive's (and keeping the table's bytes), then checks the
    // layout and the table.
    // False, with a reason, only when the file cannot be read.
    bool Run(verifyResult& result, std::string& reason) const;

    // The verdict on `signature` for content whose digest is `contentDigest`.
    verdict Judge(const std::vector<uint8_t>& signature, const std::vector<uint8_t>& contentDigest) const;

private:
    // Reads one component once: its own digest here, the archive's on the
    // pipeline's second thread (`toArchive`), its bytes kept when `kept`.
    bool ReadComponent(const componentEntry& component, class digestPipeline& pipeline, bool toArchive,
                       std::vector<uint8_t>* kept, std::vector<uint8_t>& digest, std::string& reason) const;
    void JudgeArchive(verifyResult& result, bool archiveComplete) const;
    void CheckTable(verifyResult& result, const std::vector<uint8_t>& tableBytes) const;

    const containerContents& _contents;
    const fileReader& _file;
    const publicKey& _key;
    verifyPolicy _policy;
    uint32_t _hashId;
};

}  // namespace markforge
