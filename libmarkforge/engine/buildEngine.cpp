// markforge::buildEngine: the reading thread, the payload thread, the
// signatures in flight, and the header block from the container classes.
#include "buildEngine.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <future>

#include "archive.h"
#include "containerLayout.h"
#include "digestPipeline.h"
#include "digestStream.h"
#include "header.h"
#include "lbGlobal.h"
#include "lbScoped.h"
#include "tableOfContents.h"

namespace markforge {
namespace {

using block = digestPipeline::block;

// What the signer is asked for the content whose digest is `digest`.
signatureRequest RequestFor(const std::string& fieldF, uint32_t hashId, const std::vector<uint8_t>& digest)
{
    signatureRequest request;
    request.fieldF = fieldF;
    request.hashId = hashId;
    request.contentDigest = digest;
    request.toSign = SignedDigestOf(hashId, digest);
    return request;
}

// Reads the components and the table through the queue; asks for each
// signature as soon as its digest is known.
class componentReader {
public:
    componentReader(signer& signs, uint32_t hashId, digestPipeline& pipeline)
        : _signer(signs), _hashId(hashId), _pipeline(pipeline)
    {
    }
    ~componentReader()
    {
        // Signatures in flight finish (each bounded by its signer) before
        // the components they name go.
        for (auto& pending : _signatures)
            if (pending.valid()) pending.wait();
    }

    bool Read(const engineInput& input, engineFailure& failure)
    {
        digestStream digest(_hashId);
        uint64_t size = 0;
        while (size < input.length) {
            block* next = _pipeline.Take();
            const ssize_t got = ReadBlock(input.fd, *next, input.start + size, input.length - size);
            if (got <= 0) {
                _pipeline.Return(next);
                if (got == 0 && input.length == engineInput::TO_END) break;
                failure = {engineFailure::kind::input, "component " + input.name,
                           "cannot read component " + input.name + ": " +
                               (got == 0 ? std::string("the file ends before its last byte") : std::strerror(errno))};
                return false;
            }
            // Only the table may start with its label, so that no signed
            // component can ever be passed off as a table.
            if (size == 0 && tableOfContents::StartsWithLabel(next->bytes.data(), next->length)) {
                _pipeline.Return(next);
                failure = {engineFailure::kind::input, "component " + input.name,
                           "component " + input.name + " starts with the label of a table of contents, which no " +
                               "other component may; nothing was written"};
                return false;
            }
            digest.Update(next->bytes.data(), next->length);
            next->outputOffset = HEADER_SIZE + _offset + size;
            size += next->length;
            _pipeline.Pass(next);
        }
        return Place(input.name, size, digest.Final(), failure);
    }

    bool ReadTable(engineFailure& failure)
    {
        std::vector<tableEntry> entries;
        for (size_t i = 0; i < _components.size(); ++i)
            entries.push_back({static_cast<uint32_t>(i), _components[i].name, static_cast<uint32_t>(_components[i].offset),
                               static_cast<uint32_t>(_components[i].size), _components[i].digest});
        const std::vector<uint8_t> table = tableOfContents::Encode(entries);
        for (size_t at = 0; at < table.size(); at += digestPipeline::BLOCK) {
            block* next = _pipeline.Take();
            next->length = std::min(digestPipeline::BLOCK, table.size() - at);
            std::copy(table.begin() + at, table.begin() + at + next->length, next->bytes.begin());
            next->outputOffset = HEADER_SIZE + _offset + at;
            _pipeline.Pass(next);
        }
        return Place(tableOfContents::COMPONENT_NAME, table.size(),
                     digestStream::Of(_hashId, table.data(), table.size()), failure);
    }

    // Waits for every signature; false with the first failure, in order.
    bool CollectSignatures(std::vector<builtComponent>& components, engineFailure& failure)
    {
        for (size_t i = 0; i < _signatures.size(); ++i) {
            signatureResult result = _signatures[i].get();
            if (!result.Ok()) {
                failure = {engineFailure::kind::signing, "component " + _components[i].name, result.failure};
                return false;
            }
            _components[i].signature = std::move(result.signature);
        }
        components = std::move(_components);
        return true;
    }

private:
    // Reads at most `most` bytes at `at` into one block.
    static ssize_t ReadBlock(int fd, block& into, uint64_t at, uint64_t most)
    {
        const size_t wanted = static_cast<size_t>(std::min<uint64_t>(into.bytes.size(), most));
        ssize_t got;
        do {
            got = ::pread(fd, into.bytes.data(), wanted, static_cast<off_t>(at));
        } while (got < 0 && errno == EINTR);
        into.length = got > 0 ? static_cast<size_t>(got) : 0;
        return got;
    }

    bool Place(const std::string& name, uint64_t size, std::vector<uint8_t> digest, engineFailure& failure)
    {
        if (_offset + size > MAX_PAYLOAD) {
            failure = {engineFailure::kind::input, "component " + name,
                       "the components add up to 4 GiB or more; a container's offsets are 32-bit"};
            return false;
        }
        builtComponent component;
        component.name = name;
        component.offset = _offset;
        component.size = size;
        component.digest = std::move(digest);
        _offset += size;
        _signatures.push_back(AskForSignature(component.name, component.digest));
        _components.push_back(std::move(component));
        return true;
    }

    std::future<signatureResult> AskForSignature(const std::string& fieldF, const std::vector<uint8_t>& digest)
    {
        const signatureRequest request = RequestFor(fieldF, _hashId, digest);
        signer& signs = _signer;
        return std::async(std::launch::async, [&signs, request] { return signs.Sign(request); });
    }

    signer& _signer;
    uint32_t _hashId;
    digestPipeline& _pipeline;
    uint64_t _offset = 0;
    std::vector<builtComponent> _components;
    std::vector<std::future<signatureResult>> _signatures;
};

lbBytes BytesOf(const std::vector<uint8_t>& bytes)
{
    lbBytes out;
    out.buffer = bytes;
    return out;
}

}  // namespace

buildEngine::buildEngine(signer& signs, engineSettings settings)
    : _signer(signs), _settings(std::move(settings))
{
    _settings.hashId = digestStream::KeptId(_settings.hashId);
}

bool buildEngine::Build(const std::vector<engineInput>& inputs, engineResult& result, engineFailure& failure)
{
    result = engineResult();
    // One component in all signs for the archive (its signature is the
    // archive's), so no archive digest is needed then.
    const size_t count = inputs.size() + (_settings.table ? 1 : 0);
    digestPipeline payload(_settings.hashId, count != 1, _settings.output);
    componentReader reader(_signer, _settings.hashId, payload);
    for (const engineInput& input : inputs)
        if (!reader.Read(input, failure)) return false;
    if (_settings.table && !reader.ReadTable(failure)) return false;
    payload.Finish();
    if (!payload.WriteError().empty()) {
        failure = {engineFailure::kind::output, "payload", payload.WriteError()};
        return false;
    }

    signatureResult archive;
    if (count != 1) {
        result.archiveDigest = payload.ArchiveDigest();
        archive = _signer.Sign(RequestFor("archive", _settings.hashId, result.archiveDigest));
    }
    if (!reader.CollectSignatures(result.components, failure)) return false;
    if (count == 1) archive.signature = result.components.front().signature;
    if (!archive.Ok()) {
        failure = {engineFailure::kind::signing, "archive", archive.failure};
        return false;
    }
    result.archiveSignature = std::move(archive.signature);
    return MakeHeaderBlock(result, failure);
}

bool buildEngine::MakeHeaderBlock(engineResult& result, engineFailure& failure) const
{
    // The block holds the signature and the records between its fixed
    // words; the writer would not stop a table that runs over.
    if (!FitsInHeader(result.archiveSignature.size(), result.components.size())) {
        failure = {engineFailure::kind::tooLarge, "header block",
                   "the signature and the table of " + std::to_string(result.components.size()) +
                       " components do not fit in the 4096-byte header block"};
        return false;
    }
    const size_t trailStart = lbGlobal.trail.size();
    archive built;
    const lbScoped closeArchive(built);
    header block;
    const lbScoped closeHeader(block);
    bool made = lbScoped::Open(built, __FILE__, __LINE__,
                               [&] { return built.Open(_settings.keyName, _settings.mode, _settings.hashId); });
    for (const builtComponent& component : result.components)
        made = made && built.AddSignedComponent(component.name, static_cast<uint32_t>(component.size),
                                                BytesOf(component.signature));
    made = made && built.SetArchiveSignature(BytesOf(result.archiveSignature)) &&
           lbScoped::Open(block, __FILE__, __LINE__, [&] { return block.Open(); }) &&
           block.CreateFromArchive(built) && block.WriteOutput(result.headerBlock);
    if (!made)
        failure = {engineFailure::kind::container, "header block",
                   "the container classes refused the header block: " + lbGlobal.MessagesSince(trailStart)};
    return made;
}

}  // namespace markforge
