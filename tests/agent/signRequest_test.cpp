// The request parser: which layout the argument text picks, when a request
// is complete, and every field check, one corrupted field per case.
#include <gtest/gtest.h>

#include "agentClient.h"
#include "signRequest.h"

using agent::ParseSignRequest;
using agent::ParseStatus;
using agenttest::Bytes;
using agenttest::MakeRequest;
using agenttest::Pattern;

namespace {

agent::ParseResult Parse(const Bytes& bytes)
{
    return ParseSignRequest(bytes.data(), bytes.size());
}

Bytes Prefix(const Bytes& bytes, size_t length)
{
    return Bytes(bytes.begin(), bytes.begin() + static_cast<long>(length));
}

}  // namespace

TEST(SignRequest, ShortRequestIsComplete)
{
    const auto result = Parse(MakeRequest("release", Pattern(32), "F=fw.bin;C=1;S=32;"));
    ASSERT_EQ(result.status, ParseStatus::Complete) << result.reason;
    EXPECT_EQ(result.request.length, 128u);
    EXPECT_EQ(result.request.keyName, "release");
    EXPECT_EQ(result.request.digest, Pattern(32));
    EXPECT_EQ(result.request.fieldF, "fw.bin");
    EXPECT_EQ(result.request.arguments, "F=fw.bin;C=1;S=32;");
}

TEST(SignRequest, LongRequestsAreComplete)
{
    for (const size_t length : {48u, 64u}) {
        const auto result = Parse(MakeRequest("k", Pattern(length), "S=" + std::to_string(length) + ";extra"));
        ASSERT_EQ(result.status, ParseStatus::Complete) << length << ": " << result.reason;
        EXPECT_EQ(result.request.length, 160u);
        EXPECT_EQ(result.request.digest, Pattern(length));
        EXPECT_EQ(result.request.fieldF, "");
    }
}

TEST(SignRequest, EveryPrefixIsIncomplete)
{
    const Bytes shortRequest = MakeRequest("k", Pattern(32), "S=32;");
    for (size_t length = 0; length < shortRequest.size(); ++length)
        EXPECT_EQ(Parse(Prefix(shortRequest, length)).status, ParseStatus::Incomplete) << length;
    const Bytes longRequest = MakeRequest("k", Pattern(64, 0x80), "S=64;");
    for (size_t length = 0; length < longRequest.size(); ++length)
        EXPECT_EQ(Parse(Prefix(longRequest, length)).status, ParseStatus::Incomplete) << length;
}

TEST(SignRequest, ExtraBytesAreRefused)
{
    Bytes shortRequest = MakeRequest("k", Pattern(32), "S=32;");
    shortRequest.push_back(0);
    EXPECT_EQ(Parse(shortRequest).status, ParseStatus::Invalid);
    Bytes longRequest = MakeRequest("k", Pattern(48, 0x80), "S=48;");
    longRequest.push_back(0);
    EXPECT_EQ(Parse(longRequest).status, ParseStatus::Invalid);
    EXPECT_EQ(Parse(Bytes(4096, 0x41)).status, ParseStatus::Invalid);
}

TEST(SignRequest, SizeMustMatchTheLayout)
{
    // A 128-byte request whose text names 64 bytes.
    Bytes request = MakeRequest("k", Pattern(32), "S=64;");
    auto result = Parse(request);
    EXPECT_EQ(result.status, ParseStatus::Invalid);
    EXPECT_NE(result.reason.find("does not match"), std::string::npos) << result.reason;
    // A 160-byte request whose text names 32 bytes.
    request = MakeRequest("k", Pattern(64, 0x80), "S=32;");
    result = Parse(request);
    EXPECT_EQ(result.status, ParseStatus::Invalid);
    EXPECT_NE(result.reason.find("does not match"), std::string::npos) << result.reason;
}

TEST(SignRequest, SizeMustBeKnown)
{
    for (const std::string size : {"0", "31", "033", "20", "", "x"}) {
        const auto result = Parse(MakeRequest("k", Pattern(64, 0x80), "S=" + size + ";"));
        EXPECT_EQ(result.status, ParseStatus::Invalid) << size;
    }
}

TEST(SignRequest, MissingSizeIsRefused)
{
    const auto result = Parse(MakeRequest("k", Pattern(64, 0x80), "F=a;C=1;"));
    EXPECT_EQ(result.status, ParseStatus::Invalid);
    EXPECT_NE(result.reason.find("S="), std::string::npos);
}

TEST(SignRequest, UnterminatedArgumentsAreRefused)
{
    const auto result = Parse(MakeRequest("k", Pattern(64, 0x80), "S=64;" + std::string(59, 'x')));
    EXPECT_EQ(result.status, ParseStatus::Invalid);
}

TEST(SignRequest, PaddingAfterA48ByteDigestMustBeZero)
{
    Bytes request = MakeRequest("k", Pattern(48, 0x80), "S=48;");
    request[32 + 48] = 1;
    EXPECT_EQ(Parse(request).status, ParseStatus::Invalid);
}

TEST(SignRequest, KeyNamesAreChecked)
{
    for (const char* name : {"", ".hidden", "a/b", "sp ace", "tab\t"}) {
        const auto result = Parse(MakeRequest(name, Pattern(32), "S=32;"));
        EXPECT_EQ(result.status, ParseStatus::Invalid) << name;
        EXPECT_EQ(result.reason, "malformed key name");
    }
    Bytes unterminated = MakeRequest(std::string(32, 'k'), Pattern(32), "S=32;");
    EXPECT_EQ(Parse(unterminated).status, ParseStatus::Invalid);
    EXPECT_EQ(Parse(MakeRequest(std::string(31, 'k'), Pattern(32), "S=32;")).status, ParseStatus::Complete);
}

TEST(SignRequest, ValidKeyNames)
{
    EXPECT_TRUE(agent::IsValidKeyName("release-2024_a.b"));
    EXPECT_FALSE(agent::IsValidKeyName(std::string(32, 'a')));
    EXPECT_FALSE(agent::IsValidKeyName("caf\xc3\xa9"));
}
