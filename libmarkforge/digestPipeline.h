// markforge::digestPipeline: one read pass feeding two digests on two cores.
// The reading thread takes a block, fills it, feeds its own digest, and
// passes it on; a second thread feeds the archive's running digest with it
// and, when asked, writes it to an output, then gives it back. When the
// second thread falls behind, the reading thread writes the blocks it
// passes itself, so that the two cores share the writing. A few blocks
// circulate, so memory stays flat whatever the sizes.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "digestStream.h"

namespace markforge {

class digestPipeline {
public:
    // The size of each block: small enough that the blocks in flight stay
    // in a core's second-level cache, where the copy out of the page cache
    // lands and the hash reads it back (128 KiB blocks spent three times
    // the kernel time of 64 KiB ones reading a component), large enough to
    // keep the system calls few.
    static constexpr size_t BLOCK = 64 << 10;

    struct block {
        std::vector<uint8_t> bytes = std::vector<uint8_t>(BLOCK);
        size_t length = 0;
        uint64_t outputOffset = 0;  // where the bytes go in the output
        bool written = false;       // by the reading thread, when passed
    };

    // `archiveDigest`: keep the archive's running digest of `hashId` over
    // every block passed; `output`: write every block passed there (-1: no
    // output). With neither, no second thread is started.
    digestPipeline(uint32_t hashId, bool archiveDigest, int output);
    // Finishes the second thread.
    ~digestPipeline();
    digestPipeline(const digestPipeline&) = delete;
    digestPipeline& operator=(const digestPipeline&) = delete;

    // A free block; waits while every block is in use.
    block* Take();
    // Hands a filled block to the second thread (writing it first when that
    // thread is behind).
    void Pass(block* filled);
    // Gives back a block that is not to be passed on.
    void Return(block* unused);

    // Waits until every block passed is done. Then:
    void Finish();
    // the archive's digest (empty without one; the stream is then spent);
    std::vector<uint8_t> ArchiveDigest();
    // the first write failure, or empty;
    const std::string& WriteError() const { return _writeError; }
    // how many blocks the reading thread wrote itself.
    uint64_t WrittenOnPass() const { return _writtenOnPass; }

private:
    void Run();
    block* NextPassed();
    bool SecondThreadBehind();
    void Write(const block& filled);

    static constexpr size_t BLOCKS = 8;
    block _blocks[BLOCKS];
    std::mutex _mutex;
    std::condition_variable _changed;
    std::deque<block*> _free;
    std::deque<block*> _passed;
    bool _finishing = false;
    int _output;
    std::unique_ptr<digestStream> _archive;
    std::atomic<bool> _writeFailed{false};
    uint64_t _writtenOnPass = 0;  // by the reading thread only
    std::string _writeError;  // the first failure; guarded by _mutex
    std::thread _thread;
};

}  // namespace markforge
