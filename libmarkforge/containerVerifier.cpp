// markforge::containerVerifier: one read pass, two digests, recovered digests
// to tell changed content from a foreign signature.
#include "containerVerifier.h"

#include <memory>

#include "digestStream.h"

namespace markforge {

const char* VerdictName(verdict value)
{
    switch (value) {
    case verdict::ok: return "ok";
    case verdict::digestMismatch: return "digest-mismatch";
    case verdict::badSignature: return "bad-signature";
    case verdict::outsideFile: return "outside-file";
    }
    return "unknown";
}

size_t verifyResult::TableProblems() const
{
    if (!table.present) return tableRequired ? 1 : 0;
    return table.findings.size();
}

size_t verifyResult::Problems() const
{
    size_t count = archive == verdict::ok ? 0 : 1;
    for (verdict value : components)
        if (value != verdict::ok) ++count;
    return count + layout.size() + TableProblems();
}

bool verifyResult::NamesSigned() const
{
    return table.Holds() && table.record < components.size() && components[table.record] == verdict::ok;
}

containerVerifier::containerVerifier(const containerContents& contents, const fileReader& file,
                                     const publicKey& key, verifyPolicy policy)
    : _contents(contents), _file(file), _key(key), _policy(policy), _hashId(contents.DigestHashId())
{
}

bool containerVerifier::Run(verifyResult& result, std::string& reason) const
{
    result = verifyResult();
    result.tableRequired = _policy.requireTable;
    result.table = tableCheck::Locate(_contents);
    const bool keepTable = tableCheck::Readable(_contents, result.table);
    std::vector<uint8_t> tableBytes;
    // With exactly one component the archive signature is that component's,
    // so no second digest is needed.
    const bool single = _contents.components.size() == 1;
    std::unique_ptr<digestStream> archive;
    if (!single) archive = std::make_unique<digestStream>(_hashId);
    bool archiveComplete = true;

    for (const componentEntry& component : _contents.components) {
        if (!component.insideFile) {
            result.components.push_back(verdict::outsideFile);
            result.componentDigests.emplace_back();
            archiveComplete = false;
            continue;
        }
        digestStream own(_hashId);
        digestStream* running = archiveComplete ? archive.get() : nullptr;
        std::vector<uint8_t>* kept = keepTable && component.index == result.table.record ? &tableBytes : nullptr;
        const bool read = _file.Stream(component.fileOffset, component.size,
                                       [&own, running, kept](const uint8_t* data, size_t length) {
                                           own.Update(data, length);
                                           if (running) running->Update(data, length);
                                           if (kept) kept->insert(kept->end(), data, data + length);
                                       },
                                       reason);
        if (!read) return false;
        result.componentDigests.push_back(own.Final());
        result.components.push_back(Judge(component.signature, result.componentDigests.back()));
    }
    if (archive && archiveComplete) result.archiveDigest = archive->Final();
    if (single && archiveComplete) result.archiveDigest = result.componentDigests[0];
    JudgeArchive(result, archiveComplete);
    result.layout = CheckRecordLayout(_contents);
    CheckTable(result, tableBytes);
    return true;
}

void containerVerifier::CheckTable(verifyResult& result, const std::vector<uint8_t>& tableBytes) const
{
    if (!result.table.present) return;
    if (!tableCheck::Readable(_contents, result.table)) {
        tableCheck::NoteUnreadable(result.table);
        return;
    }
    tableCheck::Check(_contents, tableBytes, &result.componentDigests, result.table);
}

void containerVerifier::JudgeArchive(verifyResult& result, bool archiveComplete) const
{
    result.archive = archiveComplete ? Judge(_contents.signature, result.archiveDigest) : verdict::outsideFile;
}

verdict containerVerifier::Judge(const std::vector<uint8_t>& signature,
                                 const std::vector<uint8_t>& contentDigest) const
{
    std::vector<uint8_t> recovered;
    uint32_t recoveredHash = 0;
    if (!_key.Recover(signature, recovered, recoveredHash)) return verdict::badSignature;
    const bool same = recoveredHash == digestStream::KeptId(_hashId) &&
                      recovered == SignedDigestOf(_hashId, contentDigest);
    return same ? verdict::ok : verdict::digestMismatch;
}

}  // namespace markforge
