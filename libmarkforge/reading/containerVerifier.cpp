// markforge::containerVerifier: one read pass, two digests, recovered digests
// to tell changed content from a foreign signature.
#include "containerVerifier.h"

#include <algorithm>

#include "digestPipeline.h"
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
    std::vector<uint8_t> tableBytes;
    // With exactly one component the archive signature is that component's,
    // so no second digest is needed; otherwise it runs on a second thread.
    const bool single = _contents.components.size() == 1;
    digestPipeline pipeline(_hashId, !single, -1);
    bool archiveComplete = true;

    for (const componentEntry& component : _contents.components) {
        if (!component.insideFile) {
            result.components.push_back(verdict::outsideFile);
            result.componentDigests.emplace_back();
            archiveComplete = false;
            continue;
        }
        const bool keep = component.index == result.table.record && tableCheck::Readable(_contents, result.table);
        std::vector<uint8_t> digest;
        if (!ReadComponent(component, pipeline, archiveComplete && !single, keep ? &tableBytes : nullptr, digest,
                           reason))
            return false;
        result.componentDigests.push_back(digest);
        result.components.push_back(Judge(component.signature, digest));
    }
    pipeline.Finish();
    if (!single && archiveComplete) result.archiveDigest = pipeline.ArchiveDigest();
    if (single && archiveComplete) result.archiveDigest = result.componentDigests[0];
    JudgeArchive(result, archiveComplete);
    result.layout = CheckRecordLayout(_contents);
    CheckTable(result, tableBytes);
    return true;
}

bool containerVerifier::ReadComponent(const componentEntry& component, digestPipeline& pipeline, bool toArchive,
                                      std::vector<uint8_t>* kept, std::vector<uint8_t>& digest,
                                      std::string& reason) const
{
    digestStream own(_hashId);
    for (uint64_t done = 0; done < component.size;) {
        digestPipeline::block* next = pipeline.Take();
        next->length = static_cast<size_t>(std::min<uint64_t>(digestPipeline::BLOCK, component.size - done));
        if (!_file.ReadInto(component.fileOffset + done, next->length, next->bytes.data(), reason)) {
            pipeline.Return(next);
            return false;
        }
        own.Update(next->bytes.data(), next->length);
        if (kept) kept->insert(kept->end(), next->bytes.begin(), next->bytes.begin() + next->length);
        done += next->length;
        if (toArchive)
            pipeline.Pass(next);
        else
            pipeline.Return(next);
    }
    digest = own.Final();
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
