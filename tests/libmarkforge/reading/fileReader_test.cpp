// markforge::fileReader: ranges at and past the end, sums that wrap, reads
// across buffer boundaries, and a file that shrinks after it was opened.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "fileReader.h"
#include "testSupport.h"

namespace {

using markforge::fileReader;
using testsupport::TempDir;

constexpr uint64_t MAX64 = std::numeric_limits<uint64_t>::max();

std::vector<uint8_t> Counting(size_t size)
{
    std::vector<uint8_t> bytes(size);
    for (size_t i = 0; i < size; ++i) bytes[i] = uint8_t(i * 31 + i / 256);
    return bytes;
}

TEST(FileReader, ContainsRangesUpToTheEndOnly)
{
    TempDir dir;
    testsupport::WriteBytes(dir.file("f"), Counting(100));
    fileReader reader;
    std::string reason;
    ASSERT_TRUE(reader.Open(dir.file("f"), reason)) << reason;
    EXPECT_EQ(reader.Size(), 100u);
    EXPECT_TRUE(reader.Contains(0, 100));
    EXPECT_TRUE(reader.Contains(100, 0));
    EXPECT_TRUE(reader.Contains(99, 1));
    EXPECT_FALSE(reader.Contains(0, 101));
    EXPECT_FALSE(reader.Contains(101, 0));
    EXPECT_FALSE(reader.Contains(100, 1));
    EXPECT_FALSE(reader.Contains(1, MAX64));        // 1 + MAX64 wraps to 0
    EXPECT_FALSE(reader.Contains(MAX64, 2));        // wraps to 1
    EXPECT_FALSE(reader.Contains(0xFFFFFFF0, 0x20)); // wraps 32 bits, not 64
}

TEST(FileReader, ReadsTheRangeAndRefusesOnePastTheEnd)
{
    TempDir dir;
    const std::vector<uint8_t> bytes = Counting(100);
    testsupport::WriteBytes(dir.file("f"), bytes);
    fileReader reader;
    std::string reason;
    ASSERT_TRUE(reader.Open(dir.file("f"), reason));
    std::vector<uint8_t> out;
    ASSERT_TRUE(reader.Read(90, 10, out, reason));
    EXPECT_EQ(out, std::vector<uint8_t>(bytes.begin() + 90, bytes.end()));
    EXPECT_FALSE(reader.Read(90, 11, out, reason));
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(reason, "the range ends past the end of the file");
    EXPECT_FALSE(reader.Stream(MAX64, 2, [](const uint8_t*, size_t) { ADD_FAILURE(); }, reason));
}

TEST(FileReader, StreamsAcrossBufferBoundariesInOrder)
{
    TempDir dir;
    const std::vector<uint8_t> bytes = Counting((1 << 20) * 2 + 5);
    testsupport::WriteBytes(dir.file("f"), bytes);
    fileReader reader;
    std::string reason;
    ASSERT_TRUE(reader.Open(dir.file("f"), reason));
    std::vector<uint8_t> got;
    size_t pieces = 0;
    ASSERT_TRUE(reader.Stream(3, bytes.size() - 3,
                              [&](const uint8_t* data, size_t length) {
                                  got.insert(got.end(), data, data + length);
                                  ++pieces;
                              },
                              reason));
    EXPECT_EQ(got, std::vector<uint8_t>(bytes.begin() + 3, bytes.end()));
    EXPECT_EQ(pieces, 3u);
    // An empty range hands nothing over and succeeds.
    EXPECT_TRUE(reader.Stream(bytes.size(), 0, [](const uint8_t*, size_t) { ADD_FAILURE(); }, reason));
}

TEST(FileReader, FileShortenedAfterOpenFailsInsteadOfReadingPastIt)
{
    TempDir dir;
    testsupport::WriteBytes(dir.file("f"), Counting(5000));
    fileReader reader;
    std::string reason;
    ASSERT_TRUE(reader.Open(dir.file("f"), reason));
    ASSERT_EQ(truncate(dir.file("f").c_str(), 1000), 0);
    std::vector<uint8_t> out;
    EXPECT_FALSE(reader.Read(0, 5000, out, reason));
    EXPECT_EQ(reason, "cannot read " + dir.file("f") + ": the file became shorter");
}

TEST(FileReader, RefusesFoldersAndMissingFiles)
{
    TempDir dir;
    fileReader folder;
    std::string reason;
    EXPECT_FALSE(folder.Open(dir.path(), reason));
    EXPECT_EQ(reason, dir.path() + " is not a regular file");
    EXPECT_FALSE(folder.IsOpen());
    fileReader missing;
    EXPECT_FALSE(missing.Open(dir.file("absent"), reason));
    EXPECT_EQ(reason, "cannot read " + dir.file("absent") + ": No such file or directory");
}

}  // namespace
