// A corpus of malformed containers through info and verify of the built
// program: each ends with its exit status and message, never a crash, and
// (in the sanitizer build) never a read past the end.
#include <gtest/gtest.h>

#include "containerBlock.h"
#include "readingFixture.h"

#include <cctype>

namespace {

using namespace readingtest;
using testblocks::Block;
using testblocks::BlockBytes;
using testblocks::Record;
using testsupport::RunMarkforge;

struct malformed {
    std::string name;
    Bytes bytes;
    int infoStatus;
    int verifyStatus;
    std::string libraryMessage;  // the library's first line, for status 3
};

Bytes Concat(Bytes a, const Bytes& b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// A block with one record whose size and offset are given, followed by a
// payload of `payload` bytes.
Bytes WithRecord(uint32_t size, uint32_t offset, size_t payload = 100)
{
    Block block;
    Record record = testblocks::SampleRecord(0);
    record.size = size;
    record.offset = offset;
    block.records.push_back(record);
    return Concat(BlockBytes(block), Bytes(payload, 0x42));
}

Bytes WithSignatureSize(size_t size, size_t records = 0)
{
    Block block;
    block.signature = testblocks::Pattern(size);
    for (uint32_t i = 0; i < records; ++i) block.records.push_back(testblocks::SampleRecord(i));
    return BlockBytes(block);
}

Bytes WithTableSizeWord(uint32_t tableSize)
{
    Bytes bytes = BlockBytes(Block());
    testblocks::PokeBe32(bytes, testblocks::ArchiveSizeAt(64), tableSize);
    return bytes;
}

std::vector<malformed> Corpus()
{
    const std::string canary1 = "Unknown file format -- canary1 failed. ";
    const std::string canary2 = "Unknown file format -- canary2 failed. ";
    const Bytes good = BlockBytes(Block());
    std::vector<malformed> corpus;
    corpus.push_back({"empty file", {}, 3, 3, canary1});
    corpus.push_back({"one byte", {0xDE}, 3, 3, canary1});
    corpus.push_back({"64 KiB of 0xFF", Bytes(65536, 0xFF), 3, 3, canary1});
    corpus.push_back({"header block beyond 64 KiB", Concat(Bytes(65536, 0), good), 3, 3, canary1});
    corpus.push_back({"header block straddling 64 KiB", Concat(Bytes(65536 - 2048, 0), good), 3, 3, canary1});
    Bytes badCanary1 = good;
    badCanary1[1] ^= 1;
    corpus.push_back({"canary 1 changed", badCanary1, 3, 3, canary1});
    Bytes badCanary2 = good;
    badCanary2[4095] ^= 1;
    corpus.push_back({"canary 2 changed", badCanary2, 3, 3, canary2});
    corpus.push_back({"block cut short", Bytes(good.begin(), good.begin() + 2000), 3, 3, canary2});
    corpus.push_back({"signature length 59", WithSignatureSize(59), 3, 3, "Corrupted header."});
    corpus.push_back({"signature length 513", WithSignatureSize(513), 3, 3, "Corrupted header."});
    corpus.push_back({"signature length 60, no components", WithSignatureSize(60), 0, 1, ""});
    corpus.push_back({"signature length 512, one component", WithSignatureSize(512, 1), 0, 1, ""});
    corpus.push_back({"signature length 512, seven components", WithSignatureSize(512, 7), 3, 3,
                      "( start + size < HEADER_SIZE )"});
    corpus.push_back({"table size 4096", WithTableSizeWord(4096), 3, 3, "_archive_size < HEADER_SIZE"});
    corpus.push_back({"table size 0xFFFFFFFF", WithTableSizeWord(0xFFFFFFFF), 3, 3, "_archive_size < HEADER_SIZE"});
    corpus.push_back({"table size 4095", WithTableSizeWord(4095), 3, 3, "temp == 0"});
    corpus.push_back({"table size 541", WithTableSizeWord(541), 3, 3, "temp == 0"});
    corpus.push_back({"table size 539", WithTableSizeWord(539), 3, 3, "temp == 0"});
    corpus.push_back({"table size 3780 (7 records)", WithTableSizeWord(3780), 0, 1, ""});
    corpus.push_back({"offset and size both 0xFFFFFFFF", WithRecord(0xFFFFFFFF, 0xFFFFFFFF), 0, 1, ""});
    corpus.push_back({"offset + size wraps 32 bits to 16", WithRecord(0x20, 0xFFFFFFF0), 0, 1, ""});
    corpus.push_back({"size past the end by one", WithRecord(101, 0), 0, 1, ""});
    corpus.push_back({"offset at the end, size 0", WithRecord(0, 100), 0, 1, ""});
    corpus.push_back({"offset past the end, size 0", WithRecord(0, 101), 0, 1, ""});
    Block longSignature;
    Record record = testblocks::SampleRecord(0);
    record.explicitLength = true;
    record.signatureLength = 0xFFFFFFFF;
    longSignature.records = {record, testblocks::SampleRecord(1)};
    corpus.push_back({"record signature length 0xFFFFFFFF", BlockBytes(longSignature), 0, 1, ""});
    Block unknownDigest;
    unknownDigest.records = {testblocks::SampleRecord(0)};
    unknownDigest.digestLength = 7;
    corpus.push_back({"digest length 7", BlockBytes(unknownDigest), 0, 1, ""});
    Block version3;
    version3.version = 3;
    version3.records = {testblocks::SampleRecord(0)};
    corpus.push_back({"version 3", BlockBytes(version3), 0, 1, ""});
    return corpus;
}

class Malformed : public ::testing::TestWithParam<malformed> {};

// `status`, and for 3 our line followed by the library's.
void ExpectEnding(const ProcessResult& r, const std::string& path, int status, const std::string& libraryMessage)
{
    EXPECT_FALSE(r.signaled) << r.err;
    EXPECT_EQ(r.status, status) << r.err;
    if (status != 3) return;
    EXPECT_EQ(r.out, "");
    const std::string expected = "markforge: " + path + " is not a markforge container\n" + libraryMessage + "\n";
    EXPECT_EQ(r.err.substr(0, expected.size()), expected);
}

TEST_P(Malformed, InfoEndsWithItsStatusAndMessage)
{
    TempDir dir;
    const std::string path = dir.file("container.bin");
    testsupport::WriteBytes(path, GetParam().bytes);
    ExpectEnding(RunMarkforge({"info", path}), path, GetParam().infoStatus, GetParam().libraryMessage);
    const ProcessResult json = RunMarkforge({"info", path, "--json"});
    ExpectEnding(json, path, GetParam().infoStatus, GetParam().libraryMessage);
    if (json.status == 0) {
        EXPECT_EQ(Parse(json)["schema"], 1);
    }
}

TEST_P(Malformed, VerifyEndsWithItsStatusAndMessage)
{
    TempDir dir;
    const std::string path = dir.file("container.bin");
    testsupport::WriteBytes(path, GetParam().bytes);
    const ProcessResult r = Verify(path);
    ExpectEnding(r, path, GetParam().verifyStatus, GetParam().libraryMessage);
    if (r.status == 1) CheckVerifySchema(Parse(r));
}

TEST_P(Malformed, ExtractOfThePayloadEndsWithoutAnOutputOrWithOne)
{
    TempDir dir;
    const std::string path = dir.file("container.bin");
    testsupport::WriteBytes(path, GetParam().bytes);
    const ProcessResult r = RunMarkforge({"extract", path, "--payload", "-o", dir.file("out")});
    EXPECT_FALSE(r.signaled);
    EXPECT_EQ(testsupport::FileExists(dir.file("out")), r.status == 0);
    if (GetParam().infoStatus == 3) {
        EXPECT_EQ(r.status, 3) << r.err;
        return;
    }
    // The payload comes out only where the records cover it exactly, up to
    // where the last one ends.
    const Json info = Parse(RunMarkforge({"info", path, "--json"}));
    bool tiled = true;
    for (const Json& finding : info["layout"])
        if (finding["kind"] != "trailing-bytes" && finding["kind"] != "duplicate-name") tiled = false;
    const Json& components = info["components"];
    const bool inside = components.empty() || components.back()["inside_file"] == true;
    EXPECT_EQ(r.status, tiled && inside ? 0 : 3) << r.err;
    if (r.status != 0) return;
    const uint64_t end = components.empty() ? 0
                                            : components.back()["offset"].get<uint64_t>() +
                                                  components.back()["size"].get<uint64_t>();
    EXPECT_EQ(testsupport::ReadBytes(dir.file("out")).size(), end);
}

std::string CaseName(const ::testing::TestParamInfo<malformed>& info)
{
    std::string name;
    for (char c : info.param.name) name += std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
    return name;
}

INSTANTIATE_TEST_SUITE_P(Corpus, Malformed, ::testing::ValuesIn(Corpus()), CaseName);

TEST(MalformedVerdicts, OffsetsThatOverflow32BitsAreOutsideFile)
{
    TempDir dir;
    const std::string path = dir.file("container.bin");
    testsupport::WriteBytes(path, WithRecord(0x20, 0xFFFFFFF0));
    const Json document = Parse(Verify(path));
    EXPECT_EQ(Verdicts(document), Repeat("outside-file", 2));
    const Json info = Parse(RunMarkforge({"info", path, "--json"}));
    EXPECT_EQ(info["components"][0]["offset"], 0xFFFFFFF0u);
    EXPECT_EQ(info["components"][0]["inside_file"], false);
}

TEST(MalformedVerdicts, ForeignSignatureBytesAreBadSignature)
{
    TempDir dir;
    const std::string path = dir.file("container.bin");
    testsupport::WriteBytes(path, WithRecord(100, 0));
    EXPECT_EQ(Verdicts(Parse(Verify(path))), Repeat("bad-signature", 2));
}

TEST(MalformedVerdicts, UnknownDigestLengthIsReportedAsNoHash)
{
    Block block;
    block.digestLength = 7;
    TempDir dir;
    const std::string path = dir.file("container.bin");
    testsupport::WriteBytes(path, BlockBytes(block));
    const Json info = Parse(RunMarkforge({"info", path, "--json"}));
    EXPECT_EQ(info["header"]["digest_length"], 7);
    EXPECT_TRUE(info["header"]["hash"].is_null());
}

}  // namespace
