// markforge verify through the built program: verdicts for intact, changed,
// foreign-signed and cut-short containers, text and JSON output.
#include <gtest/gtest.h>

#include <tuple>

#include "readingFixture.h"

namespace {

using namespace readingtest;
using testsupport::RunMarkforge;

constexpr size_t SIGNATURE = 256;  // 2048-bit keys
constexpr size_t BLOCK = 4096;

class VerifyIntact : public ::testing::TestWithParam<std::tuple<std::string, size_t>> {};

TEST_P(VerifyIntact, EveryVerdictOkAndExitZero)
{
    const std::string hash = std::get<0>(GetParam());
    const size_t count = std::get<1>(GetParam());
    TempDir dir;
    const std::string container = Build(dir, SomeComponents(count), hash);
    const ProcessResult r = Verify(container);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    const Json document = Parse(r);
    CheckVerifySchema(document);
    EXPECT_EQ(Verdicts(document), Repeat("ok", count + 1));
    EXPECT_EQ(document["header"]["hash"], hash);
    EXPECT_EQ(document["problems"], 0);
}

INSTANTIATE_TEST_SUITE_P(HashesAndCounts, VerifyIntact,
                         ::testing::Combine(::testing::Values("sha256", "sha384", "sha512"),
                                            ::testing::Values(0, 1, 2, 3)));

TEST(Verify, DigestsAgreeWithOpenssl)
{
    TempDir dir;
    const Components parts = SomeComponents(2);
    const std::string container = Build(dir, parts, "sha384");
    const Json document = Parse(Verify(container));
    for (size_t i = 0; i < parts.size(); ++i) {
        const ProcessResult dgst = testsupport::Openssl({"dgst", "-sha384", "-r", dir.file("in-" + parts[i].first)});
        EXPECT_EQ(dgst.out.substr(0, 96), document["components"][i]["digest"].get<std::string>());
    }
    // The archive digest covers the payload, which is the components back to back.
    const std::string payload = testsupport::ReadFile(container).substr(BLOCK);
    const ProcessResult dgst = testsupport::Openssl({"dgst", "-sha384", "-r"}, &payload);
    EXPECT_EQ(dgst.out.substr(0, 96), document["archive"]["digest"].get<std::string>());
}

TEST(Verify, FlippedComponentByteIsDigestMismatchForItAndTheArchive)
{
    TempDir dir;
    const Components parts = SomeComponents(3);
    const std::string container = Build(dir, parts);
    FlipByte(container, BLOCK + parts[0].second.size() + 17);
    const Json document = VerifyWithProblems(container);
    EXPECT_EQ(Verdicts(document),
              (std::vector<std::string>{"ok", "digest-mismatch", "ok", "digest-mismatch"}));
    EXPECT_EQ(document["problems"], 2);
    EXPECT_EQ(Verify(container).err, "markforge: " + container + ": 2 of 4 signatures did not verify\n");
}

TEST(Verify, FlippedByteOfTheOnlyComponent)
{
    TempDir dir;
    const std::string container = Build(dir, SomeComponents(1));
    FlipByte(container, BLOCK);
    EXPECT_EQ(Verdicts(VerifyWithProblems(container)), (std::vector<std::string>{"digest-mismatch", "digest-mismatch"}));
}

TEST(Verify, ChangedRecordSignatureIsBadSignature)
{
    TempDir dir;
    const std::string container = Build(dir, SomeComponents(3));
    FlipByte(container, RecordSignatureAt(SIGNATURE, 2) + 100);
    EXPECT_EQ(Verdicts(VerifyWithProblems(container)), (std::vector<std::string>{"ok", "ok", "bad-signature", "ok"}));
}

TEST(Verify, ChangedHeaderSignatureIsBadSignatureOfTheArchive)
{
    TempDir dir;
    const std::string container = Build(dir, SomeComponents(2));
    FlipByte(container, 12 + 5);
    EXPECT_EQ(Verdicts(VerifyWithProblems(container)), (std::vector<std::string>{"ok", "ok", "bad-signature"}));
}

TEST(Verify, WrongKeyMakesEveryVerdictBadSignature)
{
    TempDir dir;
    const std::string container = Build(dir, SomeComponents(3));
    EXPECT_EQ(Verdicts(VerifyWithProblems(container, "a")), Repeat("bad-signature", 4));
}

TEST(Verify, WrongKeyWithoutComponents)
{
    TempDir dir;
    const std::string container = Build(dir, {});
    EXPECT_EQ(Verdicts(VerifyWithProblems(container, "a")), Repeat("bad-signature", 1));
}

TEST(Verify, CutShortInThePayloadIsOutsideFileForTheComponentsPastTheCut)
{
    TempDir dir;
    const Components parts = SomeComponents(3);
    const std::string container = Build(dir, parts);
    Truncate(container, BLOCK + parts[0].second.size() + 10);
    EXPECT_EQ(Verdicts(VerifyWithProblems(container)),
              (std::vector<std::string>{"ok", "outside-file", "outside-file", "outside-file"}));
}

TEST(Verify, CutAfterTheHeaderBlock)
{
    TempDir dir;
    const std::string container = Build(dir, SomeComponents(1));
    Truncate(container, BLOCK);
    EXPECT_EQ(Verdicts(VerifyWithProblems(container)), Repeat("outside-file", 2));
}

TEST(Verify, HeaderBlockAtByte10000IsFoundAndVerified)
{
    TempDir dir;
    const Components parts = SomeComponents(2);
    const std::string built = Build(dir, parts);
    const std::string moved = dir.file("moved.bin");
    testsupport::WriteFile(moved, std::string(10000, 'x') + testsupport::ReadFile(built));
    const ProcessResult r = Verify(moved);
    EXPECT_EQ(r.status, 0) << r.err;
    const Json document = Parse(r);
    EXPECT_EQ(document["header"]["offset"], 10000);
    EXPECT_EQ(Verdicts(document), Repeat("ok", 3));

    const Json info = Parse(RunMarkforge({"info", moved, "--json"}));
    EXPECT_EQ(info["header"]["offset"], 10000);
    EXPECT_EQ(info["payload"]["offset"], 10000 + BLOCK);
    EXPECT_EQ(info["payload"]["length"], parts[0].second.size() + parts[1].second.size());
}

TEST(Verify, TextOutputNamesEachVerdict)
{
    TempDir dir;
    const Components parts = SomeComponents(2);
    const std::string container = Build(dir, parts);
    ProcessResult r = Verify(container, "k", false);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "component 0 part0: ok\ncomponent 1 part1: ok\narchive: ok\n"
                     "layout: ok: the records cover the " + std::to_string(parts[0].second.size() + parts[1].second.size()) +
                     " payload bytes exactly\n"
                     "table: absent: the names and order of this container's components are not signed\n"
                     "verified: every signature is good\n");
    EXPECT_EQ(r.err, "");

    FlipByte(container, BLOCK + 3);
    r = Verify(container, "k", false);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "component 0 part0: digest-mismatch\ncomponent 1 part1: ok\narchive: digest-mismatch\n"
                     "layout: ok: the records cover the " + std::to_string(parts[0].second.size() + parts[1].second.size()) +
                     " payload bytes exactly\n"
                     "table: absent: the names and order of this container's components are not signed\n"
                     "2 problems found\n");
}

TEST(Verify, AcceptsEveryKeyFileFormat)
{
    TempDir dir;
    const std::string container = Build(dir, SomeComponents(2));
    const std::string modulus = dir.file("k.raw");
    const ProcessResult converted =
        testsupport::RunRecaster({"--convertkey", "-i", PublicKey("k"), "-o", modulus, "-I", "pem", "-O", "raw"});
    ASSERT_EQ(converted.status, 0) << converted.err;
    const std::string privatePem = dir.file("k-private.pem");
    ASSERT_EQ(testsupport::RunRecaster({"--convertkey", "-i", Keys().file("k.markforge"), "-o", privatePem, "-I",
                                        "markforge", "-O", "pem"})
                  .status,
              0);
    for (const std::string& key : {PublicKey("k"), Keys().file("k.markforge"), modulus, privatePem}) {
        const ProcessResult r = RunMarkforge({"verify", container, "--key", key, "--json"});
        EXPECT_EQ(r.status, 0) << key << ": " << r.err;
        EXPECT_EQ(Verdicts(Parse(r)), Repeat("ok", 3)) << key;
    }
}

TEST(Verify, KeyFingerprintIsOpensslsDerDigest)
{
    TempDir dir;
    const std::string container = Build(dir, SomeComponents(1));
    const Json document = Parse(Verify(container));
    const std::string der = testsupport::Openssl({"pkey", "-pubin", "-in", PublicKey("k"), "-outform", "DER"}).out;
    const std::string sum = testsupport::Openssl({"dgst", "-sha256", "-r"}, &der).out.substr(0, 64);
    EXPECT_EQ(document["key"]["fingerprint"], sum);
}

TEST(Verify, MissingKeyFileIsAFileSystemError)
{
    TempDir dir;
    const std::string container = Build(dir, SomeComponents(1));
    const ProcessResult r = RunMarkforge({"verify", container, "--key", dir.file("absent.pem")});
    EXPECT_EQ(r.status, 4);
    EXPECT_EQ(r.out, "");
    EXPECT_NE(r.err.find("--key " + dir.file("absent.pem")), std::string::npos) << r.err;
}

TEST(Verify, FolderAsKeyIsAFileSystemError)
{
    TempDir dir;
    const std::string container = Build(dir, SomeComponents(1));
    const ProcessResult r = RunMarkforge({"verify", container, "--key", dir.path()});
    EXPECT_EQ(r.status, 4);
    EXPECT_EQ(r.err, "markforge: --key " + dir.path() + " is not a regular file\n");
}

TEST(Verify, KeyFileWithoutAKeyIsBadInput)
{
    TempDir dir;
    const std::string container = Build(dir, SomeComponents(1));
    testsupport::WriteFile(dir.file("notes.txt"), "no key here\n");
    const ProcessResult r = RunMarkforge({"verify", container, "--key", dir.file("notes.txt")});
    EXPECT_EQ(r.status, 3);
    EXPECT_EQ(r.out, "");
}

TEST(Verify, MissingContainerIsAFileSystemError)
{
    TempDir dir;
    const ProcessResult r = RunMarkforge({"verify", dir.file("absent.bin"), "--key", PublicKey("k")});
    EXPECT_EQ(r.status, 4);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err.rfind("markforge: cannot read " + dir.file("absent.bin") + ": ", 0), 0u) << r.err;
}

TEST(Verify, MissingKeyOptionIsAUsageError)
{
    TempDir dir;
    const std::string container = Build(dir, SomeComponents(1));
    const ProcessResult r = RunMarkforge({"verify", container});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.out, "");
}

TEST(Verify, NameThatIsNotTextIsShownAsHexAndTheOutputStaysValidJson)
{
    TempDir dir;
    const std::string container = Build(dir, SomeComponents(2));
    Bytes bytes = testsupport::ReadBytes(container);
    const uint8_t name[] = {0xC3, 0x28, 0xFF, 0x01};  // invalid UTF-8 and a control byte
    std::copy(std::begin(name), std::end(name), bytes.begin() + long(RecordNameAt(SIGNATURE, 1)));
    testsupport::WriteBytes(container, bytes);
    const ProcessResult r = Verify(container);
    EXPECT_EQ(r.status, 0) << r.err;  // names are not signed
    const Json document = Parse(r);
    CheckVerifySchema(document);
    EXPECT_EQ(document["components"][1]["name"], "c328ff0131");
    EXPECT_EQ(document["components"][1]["name_encoding"], "hex");
    EXPECT_EQ(document["components"][0]["name_encoding"], "text");
}

}  // namespace
