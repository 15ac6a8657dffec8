// markforge::digestPipeline: every block passed reaches the archive's digest
// and its place in the output, whichever thread writes it, and the first
// write failure is kept.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include "digestPipeline.h"
#include "digestStream.h"
#include "testSupport.h"

namespace {

using markforge::digestPipeline;
using markforge::digestStream;

constexpr uint32_t SHA512 = 4;

// Passes `bytes` through `pipeline` block by block, to output offset
// `start` on, resting `pause` after each block (a reading thread that
// hashes as it goes).
void PassAll(digestPipeline& pipeline, const std::vector<uint8_t>& bytes, uint64_t start,
             std::chrono::microseconds pause)
{
    for (size_t at = 0; at < bytes.size(); at += digestPipeline::BLOCK) {
        digestPipeline::block* next = pipeline.Take();
        next->length = std::min(digestPipeline::BLOCK, bytes.size() - at);
        std::memcpy(next->bytes.data(), bytes.data() + at, next->length);
        next->outputOffset = start + at;
        pipeline.Pass(next);
        if (pause.count() > 0) std::this_thread::sleep_for(pause);
    }
}

class DigestPipelineTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        path = dir.file("out.bin");
        output = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        ASSERT_GE(output, 0);
    }
    void TearDown() override { ::close(output); }

    // The output file's bytes from `start` on.
    std::vector<uint8_t> Written(size_t start)
    {
        const std::string all = testsupport::ReadFile(path);
        return start <= all.size() ? std::vector<uint8_t>(all.begin() + static_cast<std::ptrdiff_t>(start), all.end())
                                   : std::vector<uint8_t>();
    }

    // After a run over `bytes`: the archive's digest is theirs and the
    // output holds them from `start` on, whichever thread wrote them.
    void ExpectDigestAndOutput(digestPipeline& pipeline, const std::vector<uint8_t>& bytes, size_t start)
    {
        EXPECT_TRUE(pipeline.WriteError().empty()) << pipeline.WriteError();
        EXPECT_EQ(pipeline.ArchiveDigest(), digestStream::Of(SHA512, bytes.data(), bytes.size()));
        EXPECT_EQ(Written(start), bytes);
    }

    testsupport::TempDir dir;
    std::string path;
    int output = -1;
};

TEST_F(DigestPipelineTest, AReaderFasterThanTheSecondThreadWritesItsShare)
{
    // The test passes blocks without hashing them, so the second thread,
    // which keeps a SHA-512 digest, falls behind: the reader writes too.
    const std::vector<uint8_t> bytes = testsupport::SeededBytes(48 * digestPipeline::BLOCK + 777, 3);
    digestPipeline pipeline(SHA512, true, output);
    PassAll(pipeline, bytes, 4096, std::chrono::microseconds(0));
    pipeline.Finish();
    EXPECT_GT(pipeline.WrittenOnPass(), 0u);
    ExpectDigestAndOutput(pipeline, bytes, 4096);
}

TEST_F(DigestPipelineTest, ASecondThreadThatKeepsUpWritesEveryBlock)
{
    const std::vector<uint8_t> bytes = testsupport::SeededBytes(12 * digestPipeline::BLOCK + 5, 4);
    digestPipeline pipeline(SHA512, true, output);
    PassAll(pipeline, bytes, 0, std::chrono::milliseconds(20));
    pipeline.Finish();
    EXPECT_EQ(pipeline.WrittenOnPass(), 0u);
    ExpectDigestAndOutput(pipeline, bytes, 0);
}

TEST_F(DigestPipelineTest, WithNeitherDigestNorOutputBlocksComeBackAtOnce)
{
    digestPipeline pipeline(SHA512, false, -1);
    PassAll(pipeline, testsupport::SeededBytes(20 * digestPipeline::BLOCK, 5), 0, std::chrono::microseconds(0));
    pipeline.Finish();
    EXPECT_TRUE(pipeline.ArchiveDigest().empty());
    EXPECT_EQ(pipeline.WrittenOnPass(), 0u);
}

TEST_F(DigestPipelineTest, TheFirstWriteFailureIsKept)
{
    // A descriptor open for reading only: every write fails with EBADF,
    // whichever thread makes it.
    const int readOnly = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(readOnly, 0);
    digestPipeline pipeline(SHA512, true, readOnly);
    PassAll(pipeline, testsupport::SeededBytes(30 * digestPipeline::BLOCK, 6), 0, std::chrono::microseconds(0));
    pipeline.Finish();
    EXPECT_EQ(pipeline.WriteError(), std::string("cannot write the payload: ") + std::strerror(EBADF));
    ::close(readOnly);
}

}  // namespace
