// markforge::hash: stream digests against openssl dgst, chunking, stream
// position, byte counts and failures.
#include <gtest/gtest.h>

#include <sstream>

#include "fixtures.h"
#include "hash.h"
#include "lbGlobal.h"
#include "openedObject.h"
#include "testKeys.h"
#include "testSupport.h"

using markforge::hash;
using testsupport::TrailLines;

namespace {

// Reproducible bytes that are not all alike.
std::string Pattern(size_t size)
{
    return testsupport::PseudoRandom(size, 0x12345678);
}

// An in-memory buffer that records every bulk read made through it, so a
// test can see the chunks the hasher asks for and where they land.
class RecordingBuffer : public std::stringbuf {
public:
    explicit RecordingBuffer(const std::string& bytes) : std::stringbuf(bytes, std::ios::in) {}
    std::vector<std::streamsize> reads;
    std::vector<const char*> targets;

protected:
    std::streamsize xsgetn(char* into, std::streamsize count) override
    {
        reads.push_back(count);
        targets.push_back(into);
        return std::stringbuf::xsgetn(into, count);
    }
};

// An ifstream that reads from a RecordingBuffer instead of a file.
class RecordedStream {
public:
    explicit RecordedStream(const std::string& bytes) : buffer(bytes) { stream.std::ios::rdbuf(&buffer); }
    RecordingBuffer buffer;
    std::ifstream stream;
};

class HashTest : public testsupport::FrameworkTest {
protected:
    void SetUp() override
    {
        FrameworkTest::SetUp();
        ASSERT_TRUE(testsupport::OpenObject(object));
    }
    void TearDown() override
    {
        testsupport::CloseObject(object);
        FrameworkTest::TearDown();
    }

    std::string Openssl(const std::string& name, const std::string& bytes)
    {
        return testsupport::OpensslDigestHex(dir.path(), name, bytes);
    }

    // A file holding `bytes`, opened for reading.
    void OpenFile(std::ifstream& in, const std::string& bytes)
    {
        const std::string path = dir.file("image-" + std::to_string(files++) + ".bin");
        testsupport::WriteFile(path, bytes);
        in.open(path, std::ios::binary);
        ASSERT_TRUE(in.good());
    }

    std::string Digest()
    {
        std::string text;
        EXPECT_TRUE(object.GetHashString(text));
        return text;
    }

    // GenerateHashInternal over the rest of `in` with each hash identifier
    // gives openssl's digest of `bytes` under the paired name.
    void ExpectDigestsById(std::ifstream& in, const std::string& bytes,
                           std::initializer_list<std::pair<uint32_t, const char*>> cases)
    {
        for (const auto& [id, name] : cases) {
            SCOPED_TRACE(id);
            ASSERT_TRUE(object.GenerateHashInternal(in, hash::TO_END, id));
            EXPECT_EQ(Digest(), Openssl(name, bytes));
        }
    }

    uint32_t HashedSize()
    {
        uint32_t size = 0;
        EXPECT_TRUE(object.GetHashedSize(size));
        return size;
    }

    bool InsideObject(const char* p) const
    {
        const char* begin = reinterpret_cast<const char*>(&object);
        return p >= begin && p < begin + sizeof object;
    }

    testsupport::TempDir dir;
    hash object;
    int files = 0;
};

// One generator of the object with openssl's name for its algorithm.
struct Algorithm {
    const char* opensslName;
    bool (hash::*generate)(std::ifstream&);
};
const Algorithm SHA256{"sha256", &hash::Generate};
const Algorithm SHA384{"sha384", &hash::Generate_SHA384};
const Algorithm SHA512{"sha512", &hash::Generate_SHA512};

struct SizeCase {
    Algorithm algorithm;
    size_t size;
};

void PrintTo(const SizeCase& c, std::ostream* out)
{
    *out << c.algorithm.opensslName << " over " << c.size << " bytes";
}

class HashSizes : public HashTest, public ::testing::WithParamInterface<SizeCase> {};

std::string SizeCaseName(const ::testing::TestParamInfo<SizeCase>& info)
{
    return std::string(info.param.algorithm.opensslName) + "_" + std::to_string(info.param.size) + "_bytes";
}

}  // namespace

TEST_P(HashSizes, DigestMatchesOpensslAndCountsEveryByte)
{
    const std::string bytes = Pattern(GetParam().size);
    std::ifstream in;
    OpenFile(in, bytes);
    ASSERT_TRUE((object.*GetParam().algorithm.generate)(in));
    EXPECT_EQ(Digest(), Openssl(GetParam().algorithm.opensslName, bytes));
    EXPECT_EQ(HashedSize(), bytes.size());
    EXPECT_EQ(in.tellg(), 0);
    EXPECT_TRUE(in.good());
    EXPECT_FALSE(lbGlobal.errorFlag);
    EXPECT_TRUE(lbGlobal.trail.empty());
}

INSTANTIATE_TEST_SUITE_P(
    AllAlgorithms, HashSizes,
    ::testing::Values(SizeCase{SHA256, 0}, SizeCase{SHA256, 1}, SizeCase{SHA256, 4095}, SizeCase{SHA256, 4096},
                      SizeCase{SHA256, 4097}, SizeCase{SHA256, 10000}, SizeCase{SHA384, 0}, SizeCase{SHA384, 1},
                      SizeCase{SHA384, 4095}, SizeCase{SHA384, 4096}, SizeCase{SHA384, 4097},
                      SizeCase{SHA384, 10000}, SizeCase{SHA512, 0}, SizeCase{SHA512, 1}, SizeCase{SHA512, 4095},
                      SizeCase{SHA512, 4096}, SizeCase{SHA512, 4097}, SizeCase{SHA512, 10000}),
    SizeCaseName);

TEST_F(HashTest, DigestTextIsLowerCaseHexOfDigestLength)
{
    std::ifstream in;
    OpenFile(in, Pattern(300));
    ASSERT_TRUE(object.Generate_SHA384(in));
    const std::string text = Digest();
    EXPECT_EQ(text.size(), 96u);
    EXPECT_EQ(text.find_first_not_of("0123456789abcdef"), std::string::npos);
}

TEST_F(HashTest, StreamAtByte100HashesTheRestAndIsLeftAt100)
{
    const std::string bytes = Pattern(10000);
    std::ifstream in;
    OpenFile(in, bytes);
    in.seekg(100);
    ASSERT_TRUE(object.Generate(in));
    EXPECT_EQ(Digest(), Openssl("sha256", bytes.substr(100)));
    EXPECT_EQ(HashedSize(), 9900u);
    EXPECT_EQ(in.tellg(), 100);
    EXPECT_TRUE(in.good());
}

TEST_F(HashTest, StreamAtByte100IsReadInTwoChunksAndA1708ByteRest)
{
    RecordedStream recorded(Pattern(10000));
    recorded.stream.seekg(100);
    ASSERT_TRUE(object.Generate(recorded.stream));
    EXPECT_EQ(recorded.buffer.reads, (std::vector<std::streamsize>{4096, 4096, 1708}));
    EXPECT_EQ(recorded.stream.tellg(), 100);
}

TEST_F(HashTest, ChunksAreReadIntoTheObjectsOwnBuffer)
{
    RecordedStream recorded(Pattern(10000));
    ASSERT_TRUE(object.Generate(recorded.stream));
    ASSERT_EQ(recorded.buffer.targets.size(), 3u);
    for (const char* target : recorded.buffer.targets) {
        EXPECT_TRUE(InsideObject(target));
        EXPECT_EQ(target, recorded.buffer.targets.front());
    }
}

TEST_F(HashTest, ExactlyOneChunkIsOneReadOf4096)
{
    RecordedStream recorded(Pattern(4096));
    ASSERT_TRUE(object.Generate(recorded.stream));
    EXPECT_EQ(recorded.buffer.reads, (std::vector<std::streamsize>{4096}));
    EXPECT_EQ(HashedSize(), 4096u);
}

TEST_F(HashTest, OneByteOverAChunkIsAChunkAndOneByte)
{
    RecordedStream recorded(Pattern(4097));
    ASSERT_TRUE(object.Generate(recorded.stream));
    EXPECT_EQ(recorded.buffer.reads, (std::vector<std::streamsize>{4096, 1}));
}

TEST_F(HashTest, StreamAtItsEndHashesNothingAndKeepsTheCount)
{
    const std::string bytes = Pattern(5000);
    std::ifstream in;
    OpenFile(in, bytes);
    ASSERT_TRUE(object.Generate(in));
    ASSERT_EQ(HashedSize(), 5000u);

    RecordedStream atEnd(bytes);
    atEnd.stream.seekg(0, std::ios::end);
    ASSERT_TRUE(object.Generate(atEnd.stream));
    EXPECT_EQ(Digest(), Openssl("sha256", ""));
    EXPECT_EQ(HashedSize(), 5000u);
    EXPECT_TRUE(atEnd.buffer.reads.empty());
    EXPECT_EQ(atEnd.stream.tellg(), 5000);
}

TEST_F(HashTest, TwoGenerationsReportTheSumOfBothSizes)
{
    std::ifstream first, second;
    OpenFile(first, Pattern(1234));
    OpenFile(second, Pattern(8000));
    ASSERT_TRUE(object.Generate(first));
    ASSERT_TRUE(object.Generate_SHA512(second));
    EXPECT_EQ(HashedSize(), 1234u + 8000u);
    EXPECT_EQ(Digest(), Openssl("sha512", Pattern(8000)));
}

TEST_F(HashTest, OpenResetsTheCount)
{
    std::ifstream in;
    OpenFile(in, Pattern(700));
    ASSERT_TRUE(object.Generate(in));
    ASSERT_EQ(HashedSize(), 700u);
    EXPECT_TRUE(object.Open());
    EXPECT_EQ(HashedSize(), 0u);
}

TEST_F(HashTest, UnknownHashIdentifierMeansSha256)
{
    const std::string bytes = Pattern(5000);
    std::ifstream in;
    OpenFile(in, bytes);
    ExpectDigestsById(in, bytes, {{7, "sha256"}, {0, "sha256"}, {3, "sha256"}});
}

TEST_F(HashTest, IdentifiersFourAndFiveSelectSha512AndSha384)
{
    const std::string bytes = Pattern(3000);
    std::ifstream in;
    OpenFile(in, bytes);
    ExpectDigestsById(in, bytes, {{4, "sha512"}, {5, "sha384"}});
}

TEST_F(HashTest, ExplicitSizeHashesThatManyBytesFromThePosition)
{
    const std::string bytes = Pattern(10000);
    RecordedStream recorded(bytes);
    recorded.stream.seekg(10);
    ASSERT_TRUE(object.GenerateHashInternal(recorded.stream, 5000, 3));
    EXPECT_EQ(Digest(), Openssl("sha256", bytes.substr(10, 5000)));
    EXPECT_EQ(HashedSize(), 5000u);
    EXPECT_EQ(recorded.buffer.reads, (std::vector<std::streamsize>{4096, 904}));
    EXPECT_EQ(recorded.stream.tellg(), 10);
}

TEST_F(HashTest, StreamEndingBeforeTheSizeIsNotAnErrorAndCountsOnlyWhatWasRead)
{
    const std::string bytes = Pattern(6000);
    std::ifstream in;
    OpenFile(in, bytes);
    in.seekg(1000);
    ASSERT_TRUE(object.GenerateHashInternal(in, 20000, 3));
    EXPECT_EQ(Digest(), Openssl("sha256", bytes.substr(1000)));
    EXPECT_EQ(HashedSize(), 5000u);
    EXPECT_TRUE(in.good());
    EXPECT_EQ(in.tellg(), 1000);
    EXPECT_FALSE(lbGlobal.errorFlag);
}

TEST_F(HashTest, StreamEndingWithinTheLastPieceIsNotAnError)
{
    const std::string bytes = Pattern(4200);
    std::ifstream in;
    OpenFile(in, bytes);
    ASSERT_TRUE(object.GenerateHashInternal(in, 8000, 5));
    EXPECT_EQ(Digest(), Openssl("sha384", bytes));
    EXPECT_EQ(HashedSize(), 4200u);
    EXPECT_EQ(in.tellg(), 0);
}

TEST_F(HashTest, StreamThatIsNotGoodIsRefusedWithItsCondition)
{
    std::ifstream good;
    OpenFile(good, Pattern(100));
    ASSERT_TRUE(object.Generate(good));
    const std::string before = Digest();

    std::ifstream missing(dir.file("no-such-file"), std::ios::binary);
    EXPECT_FALSE(object.Generate(missing));
    EXPECT_TRUE(lbGlobal.errorFlag);
    EXPECT_EQ(TrailLines(),
              (std::vector<std::string>{
                  "bool markforge::hash::GenerateHashInternal(std::ifstream&, uint32_t, uint32_t)|libmarkforge/hash.cpp|"
                  "instream.good()",
                  "bool markforge::hash::Generate(std::ifstream&)|libmarkforge/hash.cpp|Boolean return value failed."}));
    EXPECT_EQ(Digest(), before);
    EXPECT_EQ(HashedSize(), 100u);
}

TEST_F(HashTest, EachGeneratorReportsUnderItsOwnName)
{
    std::ifstream missing384(dir.file("no-such-file"), std::ios::binary);
    EXPECT_FALSE(object.Generate_SHA384(missing384));
    ASSERT_FALSE(TrailLines().empty());
    EXPECT_EQ(TrailLines().back(),
              "bool markforge::hash::Generate_SHA384(std::ifstream&)|libmarkforge/hash.cpp|Boolean return value failed.");
    lbGlobal.Reset();
    std::ifstream missing512(dir.file("no-such-file"), std::ios::binary);
    EXPECT_FALSE(object.Generate_SHA512(missing512));
    ASSERT_FALSE(TrailLines().empty());
    EXPECT_EQ(TrailLines().back(),
              "bool markforge::hash::Generate_SHA512(std::ifstream&)|libmarkforge/hash.cpp|Boolean return value failed.");
}

TEST_F(HashTest, RaisedFlagStopsBeforeAnythingIsRead)
{
    RecordedStream recorded(Pattern(5000));
    lbGlobal.errorFlag = true;
    EXPECT_FALSE(object.Generate(recorded.stream));
    EXPECT_TRUE(recorded.buffer.reads.empty());
    EXPECT_EQ(HashedSize(), 0u);
    EXPECT_EQ(TrailLines(), (std::vector<std::string>{"bool markforge::hash::Generate(std::ifstream&)|libmarkforge/hash.cpp|"
                                                      "Unable to continue from previous error"}));
}

TEST_F(HashTest, RaisedFlagStopsTheWorkerToo)
{
    RecordedStream recorded(Pattern(5000));
    lbGlobal.errorFlag = true;
    EXPECT_FALSE(object.GenerateHashInternal(recorded.stream, hash::TO_END, 3));
    EXPECT_TRUE(recorded.buffer.reads.empty());
    EXPECT_EQ(HashedSize(), 0u);
    ASSERT_FALSE(TrailLines().empty());
    EXPECT_EQ(TrailLines().front(),
              "bool markforge::hash::GenerateHashInternal(std::ifstream&, uint32_t, uint32_t)|libmarkforge/hash.cpp|"
              "Unable to continue from previous error");
}

TEST_F(HashTest, ObjectDestroyedWhileOpenIsReported)
{
    testsupport::ExpectReportedWhenDestroyedOpen<hash>(
        "virtual markforge::hash::~hash()|libmarkforge/hash.h|"
        "Object ( markforge::hash ) was not closed before going out of scope. ");
}
