// recaster --convertsig through the built binary: raw, markforge and DER
// signature files, with openssl as the oracle for real ECDSA signatures.
#include <sys/resource.h>

#include <csignal>

#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "blockFrame.h"
#include "containerBlock.h"
#include "testKeys.h"
#include "testSupport.h"

using testblocks::Bytes;
using testblocks::Pattern;
using testblocks::PeekBe32;
using testsupport::FileExists;
using testsupport::Openssl;
using testsupport::ProcessResult;
using testsupport::ReadBytes;
using testsupport::RunRecaster;
using testsupport::TempDir;
using testsupport::WriteBytes;
using testsupport::WriteFile;

namespace {

ProcessResult ConvertSig(const std::string& input, const std::string& output, const std::string& iformat,
                         const std::string& oformat)
{
    return RunRecaster({"--convertsig", "-i", input, "-o", output, "-I", iformat, "-O", oformat});
}

void ExpectClean(const ProcessResult& result)
{
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_FALSE(result.signaled);
    EXPECT_EQ(result.err, "");
}

void ExpectFailureWith(const ProcessResult& result, const std::string& message)
{
    EXPECT_EQ(result.status, 1);
    EXPECT_FALSE(result.signaled);
    EXPECT_EQ(result.out, "");
    EXPECT_NE(result.err.find(message), std::string::npos) << result.err;
}

Bytes Der(uint8_t tag, const Bytes& contents)
{
    return testblocks::Joined({tag, uint8_t(contents.size())}, contents);
}

// What openssl asn1parse says about a DER signature: the trace lines the
// walk must print and the raw bytes it must produce. An INTEGER whose value
// needs at most 32 bytes becomes 32 bytes, left-padded with zeros; a longer
// one passes through at its own length.
struct Asn1View {
    std::string trace;
    Bytes raw;
};

Asn1View ParseWithOpenssl(const std::string& derPath)
{
    const ProcessResult parsed = Openssl({"asn1parse", "-inform", "DER", "-in", derPath});
    const std::regex line(R"(l=\s*(\d+)\s+(?:cons|prim):\s+(SEQUENCE|INTEGER)\s*(?::([0-9A-F]+))?)");
    Asn1View view;
    std::istringstream lines(parsed.out);
    std::string text;
    while (std::getline(lines, text)) {
        std::smatch match;
        if (!std::regex_search(text, match, line)) {
            ADD_FAILURE() << "unexpected asn1parse line: " << text;
            continue;
        }
        view.trace += "type=" + std::string(match[2] == "SEQUENCE" ? "16" : "2") + ", len=" + match[1].str() + "\n";
        if (match[2] != "INTEGER") continue;
        const Bytes value = testsupport::FromHex(match[3]);
        if (value.size() < 32) view.raw.insert(view.raw.end(), 32 - value.size(), 0);
        view.raw.insert(view.raw.end(), value.begin(), value.end());
    }
    return view;
}

// Keys and a message shared by every test of this program.
class SignatureConversion : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        keys = new TempDir();
        for (const char* curve : {"P-256", "P-384"})
            Openssl({"genpkey", "-algorithm", "EC", "-pkeyopt", std::string("ec_paramgen_curve:") + curve, "-out",
                     KeyPath(curve)});
        WriteFile(keys->file("message.txt"), "firmware image stand-in\n");
    }
    static void TearDownTestSuite()
    {
        delete keys;
        keys = nullptr;
    }
    static std::string KeyPath(const std::string& curve) { return keys->file(curve + ".pem"); }

    std::string Put(const Bytes& bytes, const std::string& name)
    {
        const std::string path = dir.file(name);
        WriteBytes(path, bytes);
        return path;
    }

    // Signs the message with openssl and converts the DER signature.
    void CheckEcdsaSignature(const std::string& curve, int round)
    {
        const std::string der = dir.file(curve + "-" + std::to_string(round) + ".der");
        Openssl({"dgst", "-sha256", "-sign", KeyPath(curve), "-out", der, keys->file("message.txt")});
        const Asn1View expected = ParseWithOpenssl(der);
        const std::string raw = der + ".raw";
        const ProcessResult result = ConvertSig(der, raw, "der", "raw");
        ExpectClean(result);
        EXPECT_EQ(result.out, expected.trace);
        EXPECT_EQ(ReadBytes(raw), expected.raw);
    }

    static TempDir* keys;
    TempDir dir;
};

TempDir* SignatureConversion::keys = nullptr;

TEST_F(SignatureConversion, RawToMarkforgeAndBackGivesTheSameBytes)
{
    const Bytes signature = Pattern(64, 11);
    const std::string raw = Put(signature, "sig.bin");
    const std::string block = dir.file("sig.hdr");
    const ProcessResult toMarkforge = ConvertSig(raw, block, "raw", "markforge");
    ExpectClean(toMarkforge);
    EXPECT_EQ(toMarkforge.out, "");
    const Bytes written = ReadBytes(block);
    ASSERT_NO_FATAL_FAILURE(testblocks::ExpectBlockFrame(written));
    EXPECT_EQ(PeekBe32(written, 8), 64u);

    const std::string back = dir.file("back.bin");
    const ProcessResult toRaw = ConvertSig(block, back, "markforge", "raw");
    ExpectClean(toRaw);
    EXPECT_EQ(toRaw.out, "");
    EXPECT_EQ(ReadBytes(back), signature);
}

TEST_F(SignatureConversion, FortyByteSignatureIsWrittenButCannotBeReadBack)
{
    const std::string block = dir.file("short.hdr");
    ExpectClean(ConvertSig(Put(Pattern(40), "short.bin"), block, "raw", "markforge"));
    EXPECT_EQ(ReadBytes(block).size(), 4096u);
    const std::string back = dir.file("back.bin");
    ExpectFailureWith(ConvertSig(block, back, "markforge", "raw"), "Corrupted header.");
    EXPECT_FALSE(FileExists(back));
}

TEST_F(SignatureConversion, HeaderInsideTheFirst64KiBOfALargerFileIsFound)
{
    const Bytes signature = Pattern(256, 21);
    const std::string block = dir.file("sig.hdr");
    ExpectClean(ConvertSig(Put(signature, "sig.bin"), block, "raw", "markforge"));
    Bytes image(30001, 0x11);
    const Bytes header = ReadBytes(block);
    image.insert(image.end(), header.begin(), header.end());
    image.resize(100000, 0x22);
    const std::string back = dir.file("back.bin");
    ExpectClean(ConvertSig(Put(image, "image.bin"), back, "markforge", "raw"));
    EXPECT_EQ(ReadBytes(back), signature);
}

TEST_F(SignatureConversion, HeaderEndingPastTheFirst64KiBIsNotFound)
{
    const std::string block = dir.file("sig.hdr");
    ExpectClean(ConvertSig(Put(Pattern(256), "sig.bin"), block, "raw", "markforge"));
    Bytes image(61441, 0x11);
    const Bytes header = ReadBytes(block);
    image.insert(image.end(), header.begin(), header.end());
    ExpectFailureWith(ConvertSig(Put(image, "image.bin"), dir.file("back.bin"), "markforge", "raw"),
                      "Unknown file format -- canary1 failed. ");
}

TEST_F(SignatureConversion, DerSequenceOfTwoIntegersBecomesSixtyFourBytes)
{
    Bytes r(33);
    Bytes s(31);
    for (size_t i = 1; i < r.size(); ++i) r[i] = uint8_t(0x80 + i);  // r[0] is the zero sign byte
    for (size_t i = 0; i < s.size(); ++i) s[i] = uint8_t(0x10 + i);
    Bytes contents = Der(0x02, r);
    const Bytes second = Der(0x02, s);
    contents.insert(contents.end(), second.begin(), second.end());
    const std::string out = dir.file("sig.raw");
    const ProcessResult result = ConvertSig(Put(Der(0x30, contents), "sig.der"), out, "der", "raw");
    ExpectClean(result);
    EXPECT_EQ(result.out, "type=16, len=68\ntype=2, len=33\ntype=2, len=31\n");
    Bytes expected(r.begin() + 1, r.end());
    expected.push_back(0);
    expected.insert(expected.end(), s.begin(), s.end());
    EXPECT_EQ(ReadBytes(out), expected);
}

TEST_F(SignatureConversion, DerNotStartingWithASequenceWritesAnEmptyFile)
{
    const std::string out = dir.file("sig.raw");
    const ProcessResult result = ConvertSig(Put(Der(0x02, {1, 2, 3}), "sig.der"), out, "der", "raw");
    ExpectClean(result);
    EXPECT_EQ(result.out, "type=2, len=3\n");
    EXPECT_TRUE(FileExists(out));
    EXPECT_TRUE(ReadBytes(out).empty());
}

TEST_F(SignatureConversion, EmptyDerFileWritesAnEmptyFile)
{
    const std::string out = dir.file("sig.raw");
    const ProcessResult result = ConvertSig(Put({}, "sig.der"), out, "der", "markforge");
    ExpectClean(result);
    EXPECT_EQ(result.out, "");
    EXPECT_TRUE(FileExists(out));
    EXPECT_TRUE(ReadBytes(out).empty());
}

TEST_F(SignatureConversion, OutputFormatPemBehavesLikeRawAndMarkforge)
{
    const std::string raw = Put(Pattern(128, 5), "sig.bin");
    const std::string der = Put(Der(0x30, Der(0x02, {0x42})), "sig.der");
    const std::string block = dir.file("sig.hdr");
    ExpectClean(ConvertSig(raw, block, "raw", "markforge"));
    const std::pair<std::string, std::string> inputs[] = {{raw, "raw"}, {block, "markforge"}, {der, "der"}};
    for (const auto& [input, iformat] : inputs) {
        SCOPED_TRACE(iformat);
        std::vector<Bytes> outputs;
        std::vector<std::string> printed;
        for (const char* oformat : {"raw", "markforge", "pem"}) {
            const std::string out = dir.file(iformat + "." + oformat);
            const ProcessResult result = ConvertSig(input, out, iformat, oformat);
            ExpectClean(result);
            outputs.push_back(ReadBytes(out));
            printed.push_back(result.out);
        }
        EXPECT_EQ(outputs[0], outputs[1]);
        EXPECT_EQ(outputs[0], outputs[2]);
        EXPECT_EQ(printed[0], printed[2]);
    }
}

TEST_F(SignatureConversion, OpensslP256SignaturesBecomeTheirTwoValues)
{
    for (int round = 0; round < 4; ++round) {
        SCOPED_TRACE(round);
        CheckEcdsaSignature("P-256", round);
    }
}

TEST_F(SignatureConversion, OpensslP384SignaturesPassThroughAtTheirOwnLength)
{
    for (int round = 0; round < 4; ++round) {
        SCOPED_TRACE(round);
        CheckEcdsaSignature("P-384", round);
    }
}

TEST_F(SignatureConversion, SignatureFillingTheWholeBlockIsWrittenAndRefusedOnReading)
{
    const std::string block = dir.file("full.hdr");
    ExpectClean(ConvertSig(Put(Pattern(4072), "full.bin"), block, "raw", "markforge"));
    EXPECT_EQ(ReadBytes(block).size(), 4096u);
    ExpectFailureWith(ConvertSig(block, dir.file("back.bin"), "markforge", "raw"), "Corrupted header.");
}

TEST_F(SignatureConversion, SignatureLongerThanTheBlockEndsTheProcessWithTheLengthError)
{
    // The length error is not caught anywhere: the runtime reports it and
    // aborts. No core file is wanted from this deliberate abort.
    const rlimit noCore{0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    const std::string block = dir.file("over.hdr");
    const ProcessResult result = ConvertSig(Put(Pattern(4073), "over.bin"), block, "raw", "markforge");
    EXPECT_TRUE(result.signaled);
    EXPECT_EQ(result.status, 128 + SIGABRT);
    EXPECT_EQ(result.out, "");
    EXPECT_NE(result.err.find("std::length_error"), std::string::npos) << result.err;
    EXPECT_NE(result.err.find("cannot create std::vector larger than max_size()"), std::string::npos) << result.err;
    EXPECT_EQ(result.err.find("Error trail"), std::string::npos) << result.err;
    // The output had been opened, and so created empty, before the error.
    EXPECT_TRUE(FileExists(block));
    EXPECT_TRUE(ReadBytes(block).empty());
}

TEST_F(SignatureConversion, MissingInputsAreReported)
{
    ExpectFailureWith(ConvertSig(dir.file("missing.bin"), dir.file("a"), "raw", "markforge"),
                      "Unable to read input signature file");
    ExpectFailureWith(ConvertSig(dir.file("missing.der"), dir.file("b"), "der", "raw"),
                      "Unable to read input signature file");
    ExpectFailureWith(ConvertSig(dir.file("missing.hdr"), dir.file("c"), "markforge", "raw"),
                      "Unable to read input file. ");
    for (const char* name : {"a", "b", "c"}) EXPECT_FALSE(FileExists(dir.file(name))) << name;
}

}  // namespace
