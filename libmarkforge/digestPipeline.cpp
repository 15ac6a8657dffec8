// markforge::digestPipeline: the block queue and the second thread.
#include "digestPipeline.h"

#include <cerrno>
#include <cstring>

#include "writeAll.h"

namespace markforge {

digestPipeline::digestPipeline(uint32_t hashId, bool archiveDigest, int output) : _output(output)
{
    for (block& one : _blocks) _free.push_back(&one);
    if (archiveDigest) _archive = std::make_unique<digestStream>(hashId);
    if (_archive || _output >= 0) _thread = std::thread([this] { Run(); });
}

digestPipeline::~digestPipeline()
{
    Finish();
}

digestPipeline::block* digestPipeline::Take()
{
    std::unique_lock<std::mutex> lock(_mutex);
    _changed.wait(lock, [this] { return !_free.empty(); });
    // The block given back last is the one most likely still in this
    // core's cache.
    block* taken = _free.back();
    _free.pop_back();
    return taken;
}

void digestPipeline::Pass(block* filled)
{
    if (!_thread.joinable()) {
        Return(filled);
        return;
    }
    filled->written = _output >= 0 && SecondThreadBehind();
    if (filled->written) {
        Write(*filled);
        ++_writtenOnPass;
    }
    {
        std::lock_guard<std::mutex> lock(_mutex);
        _passed.push_back(filled);
    }
    _changed.notify_all();
}

void digestPipeline::Return(block* unused)
{
    {
        std::lock_guard<std::mutex> lock(_mutex);
        _free.push_back(unused);
    }
    _changed.notify_all();
}

void digestPipeline::Finish()
{
    {
        std::lock_guard<std::mutex> lock(_mutex);
        _finishing = true;
    }
    _changed.notify_all();
    if (_thread.joinable()) _thread.join();
}

std::vector<uint8_t> digestPipeline::ArchiveDigest()
{
    return _archive ? _archive->Final() : std::vector<uint8_t>();
}

digestPipeline::block* digestPipeline::NextPassed()
{
    std::unique_lock<std::mutex> lock(_mutex);
    _changed.wait(lock, [this] { return !_passed.empty() || _finishing; });
    if (_passed.empty()) return nullptr;
    block* next = _passed.front();
    _passed.pop_front();
    return next;
}

// Half the blocks waiting for the second thread: it writes more slowly than
// the reading thread reads and hashes (writing new pages can cost more than
// the hash), and the reading thread takes a share.
bool digestPipeline::SecondThreadBehind()
{
    std::lock_guard<std::mutex> lock(_mutex);
    return _passed.size() >= BLOCKS / 2;
}

void digestPipeline::Write(const block& filled)
{
    if (_writeFailed || WriteAllAt(_output, filled.bytes.data(), filled.length, filled.outputOffset)) return;
    const std::string error = std::string("cannot write the payload: ") + std::strerror(errno);
    std::lock_guard<std::mutex> lock(_mutex);
    if (!_writeFailed.exchange(true)) _writeError = error;
}

void digestPipeline::Run()
{
    while (block* next = NextPassed()) {
        if (_archive) _archive->Update(next->bytes.data(), next->length);
        if (_output >= 0 && !next->written) Write(*next);
        Return(next);
    }
}

}  // namespace markforge
