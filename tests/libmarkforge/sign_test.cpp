// markforge::sign: checksum checks, the digest that gets signed, the two
// modes, the signing agent's request byte for byte against a stand-in agent,
// how its answers are taken, and every console message.
#include <gtest/gtest.h>

#include <sys/resource.h>

#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

#include "fixtures.h"
#include "lbRsa.h"
#include "openedObject.h"
#include "sign.h"
#include "signingTest.h"
#include "testKeys.h"
#include "testSupport.h"

using markforge::sign;
using testsupport::FromHex;
using testsupport::resolvedKeyFile;
using testsupport::TrailLines;
using testsupport::Upper;
using Bytes = std::vector<uint8_t>;

namespace {

const char* const SIGN_TEXT =
    "bool markforge::sign::Sign(const string&, const string&, const string&, const string&, int, int, const string&)";
const char* const SIGN_INTERNAL_TEXT = "bool markforge::sign::SignInternal(const lbBytes&, lbRsa&)";

std::string Lower(std::string text)
{
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

std::string UpperHex(const Bytes& bytes)
{
    static const char digits[] = "0123456789ABCDEF";
    std::string text;
    for (uint8_t b : bytes) {
        text.push_back(digits[b >> 4]);
        text.push_back(digits[b & 15]);
    }
    return text;
}

// Hex text broken after every 128 characters, the last line ended too.
std::string HexLines(const Bytes& bytes)
{
    const std::string hex = UpperHex(bytes);
    std::string out;
    for (size_t at = 0; at < hex.size(); at += 128) out += hex.substr(at, 128) + "\n";
    return out;
}

Bytes Sequence(size_t size, uint8_t first = 1)
{
    Bytes bytes(size);
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(first + i);
    return bytes;
}

// The agent request as laid out on the wire: 32-byte key field, then a
// 32-byte digest area for a 32-byte digest (64 bytes otherwise), then the
// 64-byte argument field; all zero-padded.
Bytes Request(const std::string& keyField, const Bytes& digest, const std::string& argField)
{
    const bool shortDigest = digest.size() == 32;
    Bytes request(shortDigest ? 128 : 160, 0);
    std::copy(keyField.begin(), keyField.end(), request.begin());
    std::copy(digest.begin(), digest.end(), request.begin() + 32);
    std::copy(argField.begin(), argField.end(), request.begin() + (shortDigest ? 64 : 96));
    return request;
}

lbBytes LbBytes(const Bytes& bytes)
{
    lbBytes out;
    out.ImportFromV(bytes);
    return out;
}

// A checksum of `length` hex characters, lower case.
std::string Checksum(size_t length)
{
    const std::string digits = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < length; ++i) text.push_back(digits[(i * 7 + 3) % 16]);
    return text;
}

class SignTest : public testsupport::SigningTest {
protected:
    void SetUp() override
    {
        SigningTest::SetUp();
        ASSERT_TRUE(testsupport::OpenObject(object));
    }
    void TearDown() override
    {
        testsupport::CloseObject(object);
        SigningTest::TearDown();
    }

    // Makes sure nothing listens on the agent's port, and that no other
    // test run starts listening while this test runs.
    void ExpectNoAgent()
    {
        std::string error;
        ASSERT_TRUE(peer.ReservePort(error)) << error;
    }

    void MakeKey() { SigningTest::MakeKey("dev"); }

    Bytes Signature()
    {
        lbBytes out;
        EXPECT_TRUE(object.GetSignature(out));
        return out.buffer;
    }

    // Runs sign_hsm with standard output and error captured.
    int SignHsm(const Bytes& digest, const std::string& keyName, const std::string& fieldF, int fieldC,
                const std::string& extraArgs)
    {
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        const int result = object.sign_hsm(LbBytes(digest), keyName, fieldF, fieldC, extraArgs);
        out = testing::internal::GetCapturedStdout();
        err = testing::internal::GetCapturedStderr();
        return result;
    }

    // Runs Sign with standard output and error captured.
    bool SignChecksum(const std::string& checksum, const std::string& mode, int isDigest,
                      const std::string& fieldF = "", int fieldC = 0, const std::string& extraArgs = "",
                      const std::string& keyName = "release-key")
    {
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        const bool result = object.Sign(checksum, keyName, mode, fieldF, isDigest, fieldC, extraArgs);
        out = testing::internal::GetCapturedStdout();
        err = testing::internal::GetCapturedStderr();
        return result;
    }

    // Sign in production mode fails over a valid checksum, says `message` on
    // standard error and leaves the flag and the trail alone.
    void ExpectProductionSignFails(const std::string& message)
    {
        EXPECT_FALSE(SignChecksum(Checksum(64), "production", 0));
        EXPECT_EQ(err, message);
        EXPECT_FALSE(lbGlobal.errorFlag);
        EXPECT_TRUE(lbGlobal.trail.empty());
    }

    // A lower-case checksum of `length` characters signed in production
    // mode: the agent is asked to sign openssl's `digestName` digest, of
    // `digestSize` bytes, over the checksum upper-cased, with `args`.
    void ExpectAgentAskedToSign(size_t length, const std::string& digestName, size_t digestSize,
                                const std::string& args)
    {
        StartPeer();
        peer.AnswerWith(Sequence(256));
        const std::string checksum = Checksum(length);
        ASSERT_TRUE(SignChecksum(checksum, "production", 0));
        const Bytes digest = OpensslDigest(digestName, Upper(checksum));
        ASSERT_EQ(digest.size(), digestSize);
        EXPECT_EQ(OnlyRequest(), Request("release-key", digest, args));
    }

    // The request sign_hsm sends with these arguments to an agent that
    // answers with 256 bytes; the call must succeed.
    Bytes RequestSentFor(const Bytes& digest, const std::string& keyName, const std::string& fieldF = "",
                         int fieldC = 0, const std::string& extraArgs = "")
    {
        StartPeer();
        peer.AnswerWith(Sequence(256));
        EXPECT_EQ(SignHsm(digest, keyName, fieldF, fieldC, extraArgs), 0);
        return OnlyRequest();
    }

    // The one request the stand-in agent received.
    Bytes OnlyRequest()
    {
        const std::vector<Bytes> requests = peer.Requests();
        EXPECT_EQ(requests.size(), 1u);
        return requests.empty() ? Bytes() : requests.front();
    }

    // The digest openssl computes over `text`, as bytes.
    Bytes OpensslDigest(const std::string& name, const std::string& text)
    {
        return FromHex(testsupport::OpensslDigestHex(dir.path(), name, text));
    }

    bool Verifies(const std::string& name, const Bytes& digest, const Bytes& signature)
    {
        std::string detail;
        const bool ok = testsupport::OpensslVerifies(dir.path(), key.publicPem, name, digest, signature, detail);
        EXPECT_TRUE(ok) << detail;
        return ok;
    }

    sign object;
    std::string out, err;
};

// Runs sign_hsm in a process that may not open another file, then exits
// with 0 when it failed as it should. The fixture's folder is removed first:
// std::exit skips the fixture's clean-up, and without descriptors no folder
// can be listed.
[[noreturn]] void SignWithoutFileDescriptors(sign& object, const std::string& folder)
{
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
    const lbBytes digest = LbBytes(Sequence(32));
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = 0;
    setrlimit(RLIMIT_NOFILE, &limit);
    const int result = object.sign_hsm(digest, "k", "", 0, "");
    std::exit(result == -1 ? 0 : 1);
}

std::string LengthMessage(size_t length)
{
    return "||*** Invalid input size for checksum  : \n--- Expected 64/96/128 bytes received       : " +
           std::to_string(length) + "\n";
}

}  // namespace

// ---- checksum length ---------------------------------------------------------

TEST_F(SignTest, ChecksumOf63CharactersIsRefusedWithTheTwoLineText)
{
    StartPeer();
    EXPECT_FALSE(SignChecksum(Checksum(63), "production", 0));
    EXPECT_EQ(TrailLines(), (std::vector<std::string>{LengthMessage(63)}));
    EXPECT_FALSE(lbGlobal.errorFlag);
    EXPECT_EQ(out, "");
    EXPECT_EQ(err, "");
    EXPECT_TRUE(peer.Requests().empty());
}

TEST_F(SignTest, ChecksumOf65CharactersIsRefusedWithTheTwoLineText)
{
    EXPECT_FALSE(SignChecksum(Checksum(65), "development", 1));
    EXPECT_EQ(TrailLines(), (std::vector<std::string>{LengthMessage(65)}));
    EXPECT_FALSE(lbGlobal.errorFlag);
    EXPECT_EQ(err, "");
}

TEST_F(SignTest, ChecksumLengthIsCheckedWhateverTheMode)
{
    for (const char* mode : {"production", "development", "Production", ""}) {
        lbGlobal.Reset();
        EXPECT_FALSE(SignChecksum(Checksum(0), mode, 0)) << mode;
        EXPECT_EQ(TrailLines(), (std::vector<std::string>{LengthMessage(0)})) << mode;
        EXPECT_EQ(err, "") << mode;
    }
    lbGlobal.Reset();
    EXPECT_FALSE(SignChecksum(Checksum(127), "Production", 0));
    EXPECT_EQ(TrailLines(), (std::vector<std::string>{LengthMessage(127)}));
}

TEST_F(SignTest, LengthCheckDoesNotLookAtTheFlag)
{
    lbGlobal.errorFlag = true;
    EXPECT_FALSE(SignChecksum(Checksum(10), "production", 0));
    EXPECT_EQ(TrailLines(), (std::vector<std::string>{LengthMessage(10)}));
}

// ---- mode --------------------------------------------------------------------

TEST_F(SignTest, CapitalisedProductionIsRefusedOnStandardError)
{
    StartPeer();
    EXPECT_FALSE(SignChecksum(Checksum(64), "Production", 0));
    EXPECT_EQ(err, "*** Invalid value for --mode: Production\n");
    EXPECT_EQ(out, "");
    EXPECT_FALSE(lbGlobal.errorFlag);
    EXPECT_TRUE(lbGlobal.trail.empty());
    EXPECT_TRUE(peer.Requests().empty());
}

TEST_F(SignTest, UnknownModesAreRefused)
{
    EXPECT_FALSE(SignChecksum(Checksum(96), "", 1));
    EXPECT_EQ(err, "*** Invalid value for --mode: \n");
    EXPECT_FALSE(SignChecksum(Checksum(128), "Development", 0));
    EXPECT_EQ(err, "*** Invalid value for --mode: Development\n");
    EXPECT_FALSE(lbGlobal.errorFlag);
}

TEST_F(SignTest, DigestFailureWinsOverAModeError)
{
    lbGlobal.errorFlag = true;
    EXPECT_FALSE(SignChecksum(Checksum(64), "Production", 0));
    EXPECT_EQ(err, "");
    EXPECT_EQ(TrailLines(), (std::vector<std::string>{std::string(SIGN_TEXT) +
                                                      "|libmarkforge/sign.cpp|Unable to continue from previous error"}));
}

// ---- the digest that is signed -----------------------------------------------

TEST_F(SignTest, LowerCaseChecksumIsHashedUpperCasedBeforeSigning)
{
    ASSERT_NE(Checksum(64), Upper(Checksum(64)));
    ExpectAgentAskedToSign(64, "sha256", 32, "S=32;");
}

TEST_F(SignTest, ChecksumOf96CharactersIsHashedWithSha384)
{
    ExpectAgentAskedToSign(96, "sha384", 48, "S=48;");
}

TEST_F(SignTest, ChecksumOf128CharactersIsHashedWithSha512)
{
    ExpectAgentAskedToSign(128, "sha512", 64, "S=64;");
}

TEST_F(SignTest, DigestFlagSendsTheBytesTheChecksumSpells)
{
    StartPeer();
    peer.AnswerWith(Sequence(256));
    const Bytes spelled = Sequence(32, 0xA0);
    ASSERT_TRUE(SignChecksum(Lower(UpperHex(spelled)), "production", 1));
    EXPECT_EQ(OnlyRequest(), Request("release-key", spelled, "S=32;"));
}

TEST_F(SignTest, ProductionSignatureIsTheAgentsAnswer)
{
    StartPeer();
    const Bytes answer = Sequence(256, 7);
    peer.AnswerWith(answer);
    ASSERT_TRUE(SignChecksum(Checksum(64), "production", 0, "boot", 1, "X=1;"));
    EXPECT_EQ(Signature(), answer);
    EXPECT_FALSE(lbGlobal.errorFlag);
    EXPECT_TRUE(lbGlobal.trail.empty());
    const Bytes request = OnlyRequest();
    EXPECT_EQ(std::string(request.begin() + 64, request.begin() + 64 + 20), std::string("F=boot;C=1;S=32;X=1;"));
}

TEST_F(SignTest, ProductionFailureLeavesTheTrailAndFlagAlone)
{
    StartPeer();
    peer.CloseWithoutAnswer();
    ExpectProductionSignFails("Got blank string from sign_agent\n");
}

// ---- development mode --------------------------------------------------------

TEST_F(SignTest, DevelopmentSignsTheSha256OfTheUpperCasedText)
{
    MakeKey();
    const std::string checksum = Checksum(64);
    ASSERT_TRUE(SignChecksum(checksum, "development", 0));
    EXPECT_EQ(out, "");
    EXPECT_EQ(err, "");
    EXPECT_TRUE(lbGlobal.trail.empty());
    const Bytes signature = Signature();
    EXPECT_EQ(signature.size(), 256u);
    EXPECT_TRUE(Verifies("sha256", OpensslDigest("sha256", Upper(checksum)), signature));
    // Not a signature over the value the text spells.
    std::string detail;
    EXPECT_FALSE(testsupport::OpensslVerifies(dir.path(), key.publicPem, "sha256", FromHex(Lower(checksum)),
                                              signature, detail));
}

TEST_F(SignTest, DevelopmentSignsSha384AndSha512Texts)
{
    MakeKey();
    const std::string text384 = Checksum(96);
    ASSERT_TRUE(SignChecksum(text384, "development", 0));
    EXPECT_TRUE(Verifies("sha384", OpensslDigest("sha384", Upper(text384)), Signature()));
    const std::string text512 = Checksum(128);
    ASSERT_TRUE(SignChecksum(text512, "development", 0));
    EXPECT_TRUE(Verifies("sha512", OpensslDigest("sha512", Upper(text512)), Signature()));
}

TEST_F(SignTest, DevelopmentWithDigestFlagSignsTheSpelledBytes)
{
    MakeKey();
    const Bytes spelled = OpensslDigest("sha256", "some image");
    ASSERT_TRUE(SignChecksum(Lower(UpperHex(spelled)), "development", 1));
    EXPECT_TRUE(Verifies("sha256", spelled, Signature()));
}

TEST_F(SignTest, DigestFlagWithATextThatIsNotHexHasNothingToSign)
{
    MakeKey();
    EXPECT_FALSE(SignChecksum(std::string(64, 'z'), "development", 1));
    EXPECT_TRUE(lbGlobal.errorFlag);
    const std::vector<std::string> lines = TrailLines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0], "bool lbRsa::Sign(const lbBytes&, lbBytes&)|lockbase/lbRsa.cpp|"
                        "A digest of 0 bytes is not SHA-256, SHA-384 or SHA-512");
    EXPECT_TRUE(Signature().empty());
}

TEST_F(SignTest, DevelopmentKeyFileMadeByRecasterSignsToo)
{
    MakeKey();
    const std::string converted = dir.file("converted.mfkey");
    const testsupport::ProcessResult run =
        testsupport::RunRecaster({"--convertkey", "-i", key.privatePem, "-o", converted, "-I", "pem", "-O", "markforge"});
    if (run.status != 0) GTEST_SKIP() << "recaster cannot convert PEM keys yet: " << run.err;
    resolvedKeyFile = converted;
    const std::string checksum = Checksum(64);
    ASSERT_TRUE(SignChecksum(checksum, "development", 0));
    EXPECT_TRUE(Verifies("sha256", OpensslDigest("sha256", Upper(checksum)), Signature()));
}

TEST_F(SignTest, DevelopmentWithoutGeneratorFailsOnTheTrail)
{
    registry.mfPluginKeynameGenerator = nullptr;
    EXPECT_FALSE(SignChecksum(Checksum(64), "development", 0));
    EXPECT_TRUE(lbGlobal.errorFlag);
    EXPECT_EQ(TrailLines(),
              (std::vector<std::string>{
                  "bool markforge::keyname::Open(const string&, bool)|libmarkforge/keyname.cpp|"
                  "Invalid function: markforgeRegistry->mfPluginKeynameGenerator ",
                  std::string(SIGN_TEXT) + "|libmarkforge/sign.cpp|Object Open() routine failed."}));
    EXPECT_EQ(err, "");
}

TEST_F(SignTest, DevelopmentWithAMissingKeyFileFailsOnTheTrail)
{
    resolvedKeyFile = dir.file("no-such-key");
    const Bytes before = Signature();
    EXPECT_FALSE(SignChecksum(Checksum(64), "development", 0));
    EXPECT_TRUE(lbGlobal.errorFlag);
    const std::vector<std::string> lines = TrailLines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].rfind("bool lbRsa::ReadKeyFromDisk(const string&)|lockbase/lbRsa.cpp|Key file ", 0), 0u);
    EXPECT_EQ(lines[1], std::string(SIGN_TEXT) + "|libmarkforge/sign.cpp|Boolean return value failed.");
    EXPECT_EQ(Signature(), before);
}

TEST_F(SignTest, DevelopmentWithAPublicKeyFailsInSignInternal)
{
    MakeKey();
    lbRsa pub;
    ASSERT_TRUE(pub.MakeKeyFromExps(key.n, key.e, "", "", ""));
    resolvedKeyFile = dir.file("public.mfkey");
    ASSERT_TRUE(pub.WriteKeyToDisk(resolvedKeyFile));
    EXPECT_FALSE(SignChecksum(Checksum(64), "development", 0));
    EXPECT_EQ(TrailLines(),
              (std::vector<std::string>{
                  "bool lbRsa::Sign(const lbBytes&, lbBytes&)|lockbase/lbRsa.cpp|Signing needs a private key",
                  std::string(SIGN_INTERNAL_TEXT) + "|libmarkforge/sign.cpp|Boolean return value failed.",
                  std::string(SIGN_TEXT) + "|libmarkforge/sign.cpp|Boolean return value failed."}));
    EXPECT_TRUE(Signature().empty());
}

TEST_F(SignTest, SignInternalStopsOnARaisedFlag)
{
    MakeKey();
    lbRsa rsa;
    ASSERT_TRUE(rsa.ReadKeyFromDisk(key.keyFile));
    lbGlobal.errorFlag = true;
    EXPECT_FALSE(object.SignInternal(LbBytes(Sequence(32)), rsa));
    EXPECT_EQ(TrailLines(), (std::vector<std::string>{std::string(SIGN_INTERNAL_TEXT) +
                                                      "|libmarkforge/sign.cpp|Unable to continue from previous error"}));
    EXPECT_TRUE(Signature().empty());
}

TEST_F(SignTest, SignInternalSignsAFinishedDigest)
{
    MakeKey();
    lbRsa rsa;
    ASSERT_TRUE(rsa.ReadKeyFromDisk(key.keyFile));
    const Bytes digest = OpensslDigest("sha512", "payload");
    ASSERT_TRUE(object.SignInternal(LbBytes(digest), rsa));
    EXPECT_TRUE(Verifies("sha512", digest, Signature()));
}

// ---- the agent request -------------------------------------------------------

TEST_F(SignTest, ThirtyTwoByteDigestMakesA128ByteRequest)
{
    const Bytes digest = Sequence(32, 0x10);
    const Bytes request = RequestSentFor(digest, "k");
    ASSERT_EQ(request.size(), 128u);
    EXPECT_EQ(request, Request("k", digest, "S=32;"));
}

TEST_F(SignTest, FortyEightByteDigestIsFollowedBySixteenZeros)
{
    const Bytes digest = Sequence(48, 0x80);
    const Bytes request = RequestSentFor(digest, "key48", "X", 1);
    ASSERT_EQ(request.size(), 160u);
    EXPECT_EQ(request, Request("key48", digest, "F=X;C=1;S=48;"));
    EXPECT_EQ(Bytes(request.begin() + 80, request.begin() + 96), Bytes(16, 0));
}

TEST_F(SignTest, SixtyFourByteDigestMakesA160ByteRequest)
{
    const Bytes digest = Sequence(64, 0xC0);
    EXPECT_EQ(RequestSentFor(digest, "key64"), Request("key64", digest, "S=64;"));
}

TEST_F(SignTest, OtherDigestSizesUseTheLongLayout)
{
    const Bytes digest = Sequence(20);
    EXPECT_EQ(RequestSentFor(digest, "k"), Request("k", digest, "S=20;"));
}

TEST_F(SignTest, KeyNameOf30CharactersIsSentWhole)
{
    const std::string name(30, 'k');
    EXPECT_EQ(RequestSentFor(Sequence(32), name), Request(name, Sequence(32), "S=32;"));
}

TEST_F(SignTest, KeyNameOf31CharactersIsSentAs30ButTracedWhole)
{
    const std::string name = "abcdefghijklmnopqrstuvwxyz01234";
    ASSERT_EQ(name.size(), 31u);
    EXPECT_EQ(RequestSentFor(Sequence(32), name), Request(name.substr(0, 30), Sequence(32), "S=32;"));
    EXPECT_EQ(out.rfind("CCA sign: key:" + name + " data:", 0), 0u) << out;
}

TEST_F(SignTest, KeyNameOf32CharactersIsRefused)
{
    StartPeer();
    EXPECT_EQ(SignHsm(Sequence(32), std::string(32, 'k'), "", 0, ""), -1);
    EXPECT_EQ(err, "sign_hsm: keyname is too long\n");
    EXPECT_EQ(out, "");
    EXPECT_TRUE(peer.Requests().empty());
    EXPECT_FALSE(lbGlobal.errorFlag);
    EXPECT_TRUE(lbGlobal.trail.empty());
}

TEST_F(SignTest, DigestOver64BytesIsRefused)
{
    StartPeer();
    EXPECT_EQ(SignHsm(Sequence(65), "k", "", 0, ""), -1);
    EXPECT_EQ(err, "sign_hsm: digest is too long\n");
    EXPECT_EQ(out, "");
    EXPECT_TRUE(peer.Requests().empty());
}

TEST_F(SignTest, ArgumentTextOf70CharactersIsSentAsItsFirst62)
{
    const std::string extra = std::string(65, 'e');  // "S=32;" + 65 = 70 characters
    const std::string text = "S=32;" + extra;
    ASSERT_EQ(text.size(), 70u);
    const Bytes request = RequestSentFor(Sequence(32), "k", "", 0, extra);
    ASSERT_EQ(request.size(), 128u);
    EXPECT_EQ(request, Request("k", Sequence(32), text.substr(0, 62)));
    EXPECT_EQ(request[64 + 62], 0);
    EXPECT_EQ(request[64 + 63], 0);
}

TEST_F(SignTest, EmptyFieldFAndNoCGiveS32Alone)
{
    const Bytes request = RequestSentFor(Sequence(32), "k");
    ASSERT_EQ(request.size(), 128u);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&request[64])), "S=32;");
    EXPECT_EQ(out.find("CCA args: S=32;\n"), out.find("CCA args: "));
}

TEST_F(SignTest, ArgumentTextHoldsFieldsInOrderAndExtrasAsTheyStand)
{
    EXPECT_EQ(RequestSentFor(Sequence(48), "k", "kernel", 7, "A=b;c"),
              Request("k", Sequence(48), "F=kernel;C=1;S=48;A=b;c"));
}

// ---- the agent's answer ------------------------------------------------------

TEST_F(SignTest, AnswerOf256BytesBecomesThe256ByteSignatureAndIsTraced)
{
    StartPeer();
    const Bytes answer = Sequence(256, 0x33);
    peer.AnswerWith(answer);
    const Bytes digest = Sequence(32, 0xF0);
    ASSERT_EQ(SignHsm(digest, "release", "F1", 0, ""), 0);
    EXPECT_EQ(Signature(), answer);
    EXPECT_EQ(out, "CCA sign: key:release data:" + HexLines(digest) + "CCA args: F=F1;S=32;\n" +
                       "CCA sign: signature :" + HexLines(answer));
    EXPECT_EQ(err, "");
}

TEST_F(SignTest, HexOfExactly128CharactersEndsWithOneLineEnd)
{
    StartPeer();
    peer.AnswerWith(Sequence(64));
    const Bytes digest = Sequence(64, 0x40);
    ASSERT_EQ(SignHsm(digest, "k", "", 0, ""), 0);
    EXPECT_EQ(out, "CCA sign: key:k data:" + UpperHex(digest) + "\nCCA args: S=64;\nCCA sign: signature :" +
                       UpperHex(Sequence(64)) + "\n");
}

TEST_F(SignTest, LongAnswerYieldsAtMostItsFirst1024Bytes)
{
    StartPeer();
    const Bytes answer = Sequence(2000, 9);
    peer.AnswerWith(answer);
    ASSERT_EQ(SignHsm(Sequence(32), "k", "", 0, ""), 0);
    const Bytes signature = Signature();
    ASSERT_FALSE(signature.empty());
    ASSERT_LE(signature.size(), 1024u);
    EXPECT_EQ(signature, Bytes(answer.begin(), answer.begin() + signature.size()));
}

TEST_F(SignTest, NoAnswerIsABlankString)
{
    StartPeer();
    peer.AnswerWith(Sequence(256));
    ASSERT_EQ(SignHsm(Sequence(32), "k", "", 0, ""), 0);
    const Bytes before = Signature();
    peer.CloseWithoutAnswer();
    EXPECT_EQ(SignHsm(Sequence(32), "k", "", 0, ""), -1);
    EXPECT_EQ(err, "Got blank string from sign_agent\n");
    EXPECT_EQ(Signature(), before);
    EXPECT_EQ(peer.Requests().size(), 2u);
    EXPECT_EQ(out.find("CCA sign: signature"), std::string::npos);
}

TEST_F(SignTest, NoListenerCannotBeConnected)
{
    ExpectNoAgent();
    EXPECT_EQ(SignHsm(Sequence(32), "k", "", 0, ""), -1);
    EXPECT_EQ(err, "Unable to connect to sign_agent\n");
    // The trace comes before any connection is tried.
    EXPECT_EQ(out, "CCA sign: key:k data:" + HexLines(Sequence(32)) + "CCA args: S=32;\n");
    EXPECT_TRUE(Signature().empty());
}

TEST_F(SignTest, NoListenerFailsSignInProductionMode)
{
    ExpectNoAgent();
    ExpectProductionSignFails("Unable to connect to sign_agent\n");
}

TEST_F(SignTest, AgentThatResetsTheConnectionFailsWithoutKillingTheSigner)
{
    StartPeer();
    peer.ResetWithoutReading();
    EXPECT_EQ(SignHsm(Sequence(32), "k", "", 0, ""), -1);
    // Depending on when the reset lands, the send or the read sees it.
    const bool readFailed = err == "Failed to read from sign_agent\n";
    const bool sendFailed = err.rfind("Unable to send to sign_agent\n", 0) == 0;
    EXPECT_TRUE(readFailed || sendFailed) << err;
    EXPECT_TRUE(Signature().empty());
}

TEST_F(SignTest, SocketThatCannotBeCreatedIsReported)
{
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizers' own checks need new file descriptors";
#endif
#if defined(MARKFORGE_TEST_EMULATOR)
    GTEST_SKIP() << "a threadsafe death test re-executes the test program, which the host cannot start "
                    "outside the emulator";
#endif
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(SignWithoutFileDescriptors(object, dir.path()), ::testing::ExitedWithCode(0), "^Unable to create socket\n$");
}

TEST_F(SignTest, GetSignatureCopiesTheWholeBuffer)
{
    StartPeer();
    peer.AnswerWith(Sequence(300));
    ASSERT_EQ(SignHsm(Sequence(32), "k", "", 0, ""), 0);
    lbBytes copy;
    copy.ImportFromV({1, 2, 3});
    EXPECT_TRUE(object.GetSignature(copy));
    EXPECT_EQ(copy.buffer, Sequence(300));
}

TEST_F(SignTest, ObjectDestroyedWhileOpenIsReported)
{
    testsupport::ExpectReportedWhenDestroyedOpen<sign>(
        "virtual markforge::sign::~sign()|libmarkforge/sign.h|"
        "Object ( markforge::sign ) was not closed before going out of scope. ");
}
