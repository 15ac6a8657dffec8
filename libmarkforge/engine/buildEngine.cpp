// markforge::buildEngine: the reading thread, the payload thread, the
// signatures in flight, and the header block from the container classes.
#include "buildEngine.h"

#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <future>
#include <memory>
#include <mutex>
#include <thread>

#include "archive.h"
#include "containerLayout.h"
#include "digestStream.h"
#include "header.h"
#include "lbGlobal.h"
#include "lbScoped.h"
#include "tableOfContents.h"
#include "writeAll.h"

namespace markforge {
namespace {

// Blocks in use at once: enough that reading never waits for the payload
// thread while it catches up, few enough that memory stays flat.
constexpr size_t BLOCKS = 4;
// A record's size and offset words are 32 bits wide.
constexpr uint64_t MAX_PAYLOAD = 0xFFFFFFFFull;

struct block {
    std::vector<uint8_t> bytes = std::vector<uint8_t>(buildEngine::BLOCK);
    size_t length = 0;
    uint64_t payloadOffset = 0;
};

// Blocks go from the reading thread to the payload thread in order, and
// come back empty.
class blockQueue {
public:
    blockQueue()
    {
        for (auto& one : _blocks) _free.push_back(&one);
    }

    block* TakeFree()
    {
        std::unique_lock<std::mutex> lock(_mutex);
        _changed.wait(lock, [this] { return !_free.empty(); });
        block* taken = _free.front();
        _free.pop_front();
        return taken;
    }
    void GiveBack(block* given)
    {
        {
            std::lock_guard<std::mutex> lock(_mutex);
            _free.push_back(given);
        }
        _changed.notify_all();
    }
    void PushFull(block* full)
    {
        {
            std::lock_guard<std::mutex> lock(_mutex);
            _full.push_back(full);
        }
        _changed.notify_all();
    }
    // The next full block, or nullptr once the queue is closed and empty.
    block* TakeFull()
    {
        std::unique_lock<std::mutex> lock(_mutex);
        _changed.wait(lock, [this] { return !_full.empty() || _closed; });
        if (_full.empty()) return nullptr;
        block* taken = _full.front();
        _full.pop_front();
        return taken;
    }
    void Close()
    {
        {
            std::lock_guard<std::mutex> lock(_mutex);
            _closed = true;
        }
        _changed.notify_all();
    }

private:
    block _blocks[BLOCKS];
    std::mutex _mutex;
    std::condition_variable _changed;
    std::deque<block*> _free;
    std::deque<block*> _full;
    bool _closed = false;
};

// The second thread: the archive's running digest (when the archive needs
// one) and the payload write, block by block.
class payloadThread {
public:
    payloadThread(uint32_t hashId, bool archiveDigest, int output, blockQueue& queue)
        : _output(output), _queue(queue)
    {
        if (archiveDigest) _archive = std::make_unique<digestStream>(hashId);
        _thread = std::thread([this] { Run(); });
    }
    ~payloadThread() { Finish(); }

    // Waits until every block pushed before the queue closed is done.
    void Finish()
    {
        _queue.Close();
        if (_thread.joinable()) _thread.join();
    }
    std::vector<uint8_t> ArchiveDigest() { return _archive ? _archive->Final() : std::vector<uint8_t>(); }
    const std::string& WriteError() const { return _writeError; }

private:
    void Run()
    {
        while (block* full = _queue.TakeFull()) {
            if (_archive) _archive->Update(full->bytes.data(), full->length);
            if (_output >= 0 && _writeError.empty() &&
                !WriteAllAt(_output, full->bytes.data(), full->length, HEADER_SIZE + full->payloadOffset))
                _writeError = std::string("cannot write the payload: ") + std::strerror(errno);
            _queue.GiveBack(full);
        }
    }

    int _output;
    blockQueue& _queue;
    std::unique_ptr<digestStream> _archive;
    std::string _writeError;
    std::thread _thread;
};

// Reads the components and the table through the queue; asks for each
// signature as soon as its digest is known.
class componentReader {
public:
    componentReader(signer& signs, uint32_t hashId, blockQueue& queue)
        : _signer(signs), _hashId(hashId), _queue(queue)
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
        for (;;) {
            block* next = _queue.TakeFree();
            const ssize_t got = ReadBlock(input.fd, *next, size);
            if (got <= 0) {
                _queue.GiveBack(next);
                if (got == 0) break;
                failure = {engineFailure::kind::input, "component " + input.name,
                           "cannot read component " + input.name + ": " + std::strerror(errno)};
                return false;
            }
            // Only the table may start with its label, so that no signed
            // component can ever be passed off as a table.
            if (size == 0 && tableOfContents::StartsWithLabel(next->bytes.data(), next->length)) {
                _queue.GiveBack(next);
                failure = {engineFailure::kind::input, "component " + input.name,
                           "component " + input.name + " starts with the label of a table of contents, which no " +
                               "other component may; nothing was written"};
                return false;
            }
            digest.Update(next->bytes.data(), next->length);
            next->payloadOffset = _offset + size;
            size += next->length;
            _queue.PushFull(next);
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
        for (size_t at = 0; at < table.size(); at += buildEngine::BLOCK) {
            block* next = _queue.TakeFree();
            next->length = std::min(buildEngine::BLOCK, table.size() - at);
            std::copy(table.begin() + at, table.begin() + at + next->length, next->bytes.begin());
            next->payloadOffset = _offset + at;
            _queue.PushFull(next);
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

    size_t Count() const { return _components.size(); }

private:
    static ssize_t ReadBlock(int fd, block& into, uint64_t at)
    {
        ssize_t got;
        do {
            got = ::pread(fd, into.bytes.data(), into.bytes.size(), static_cast<off_t>(at));
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
        signatureRequest request;
        request.fieldF = fieldF;
        request.hashId = _hashId;
        request.contentDigest = digest;
        request.toSign = SignedDigestOf(_hashId, digest);
        signer& signs = _signer;
        return std::async(std::launch::async, [&signs, request] { return signs.Sign(request); });
    }

    signer& _signer;
    uint32_t _hashId;
    blockQueue& _queue;
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
    blockQueue queue;
    payloadThread payload(_settings.hashId, count != 1, _settings.output, queue);
    componentReader reader(_signer, _settings.hashId, queue);
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
        signatureRequest request;
        request.fieldF = "archive";
        request.hashId = _settings.hashId;
        request.contentDigest = result.archiveDigest;
        request.toSign = SignedDigestOf(_settings.hashId, result.archiveDigest);
        archive = _signer.Sign(request);
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
    if (result.archiveSignature.size() + result.components.size() * CompBlock::BYTES > HEADER_VARIABLE_SPACE) {
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
