// markforge verify --keyring: the container verified under the key of a
// folder that made its signatures, that key named; no key of the folder
// having made any is a problem (status 1). --key and --keyring are
// alternatives, one of them needed.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include "readingFixture.h"
#include "testKeys.h"

namespace {

using namespace readingtest;
using testsupport::RunMarkforge;

class VerifyKeyring : public ::testing::Test {
protected:
    void SetUp() override
    {
        container = Build(dir, SomeComponents(2), "sha256", "k");
        ring = dir.file("ring");
        ASSERT_EQ(::mkdir(ring.c_str(), 0700), 0);
        testsupport::WriteFile(ring + "/other.pem", testsupport::ReadFile(PublicKey("other")));
        testsupport::WriteFile(ring + "/release.pem", testsupport::ReadFile(PublicKey("k")));
        testsupport::WriteFile(ring + "/README", "not a key");
    }

    ProcessResult VerifyWithKeyring(bool json)
    {
        std::vector<std::string> args{"verify", container, "--keyring", ring};
        if (json) args.push_back("--json");
        return RunMarkforge(args);
    }

    std::string Fingerprint(const std::string& pem)
    {
        const ProcessResult der = testsupport::Openssl({"pkey", "-pubin", "-in", pem, "-outform", "DER"});
        return testsupport::OpensslDigestHex(dir.path(), "sha256", der.out);
    }

    TempDir dir;
    std::string container, ring;
};

TEST_F(VerifyKeyring, TheKeyThatSignedIsUsedAndNamed)
{
    const ProcessResult text = VerifyWithKeyring(false);
    EXPECT_EQ(text.status, 0) << text.err;
    EXPECT_EQ(text.out.rfind("signed by: release.pem (key SHA-256 " + Fingerprint(ring + "/release.pem") + ")\n", 0),
              0u)
        << text.out;
    EXPECT_NE(text.out.find("verified: every signature is good"), std::string::npos);

    const ProcessResult json = VerifyWithKeyring(true);
    EXPECT_EQ(json.status, 0);
    const Json document = Parse(json);
    CheckVerifySchema(document);
    EXPECT_EQ(document["key"]["file"], ring + "/release.pem");
    EXPECT_EQ(document["key"]["fingerprint"], Fingerprint(ring + "/release.pem"));
    EXPECT_EQ(document["keyring"]["keys"].size(), 2u);
    EXPECT_EQ(document["keyring"]["skipped"], Json::array({"README"}));
    EXPECT_EQ(Verdicts(document), Repeat("ok", 3));
}

TEST_F(VerifyKeyring, WithKeyTheKeyringFieldIsNull)
{
    const Json document = Parse(Verify(container));
    EXPECT_TRUE(document["keyring"].is_null());
}

TEST_F(VerifyKeyring, NoKeyOfTheFolderMadeTheSignatures)
{
    ::unlink((ring + "/release.pem").c_str());
    const ProcessResult text = VerifyWithKeyring(false);
    EXPECT_EQ(text.status, 1);
    EXPECT_EQ(text.out, "signed by: no key in the keyring " + ring + "\n");
    EXPECT_EQ(text.err, "markforge: " + container + ": no key in " + ring + " made any of its signatures\n");

    const ProcessResult json = VerifyWithKeyring(true);
    EXPECT_EQ(json.status, 1);
    const Json document = Parse(json);
    EXPECT_EQ(KeysOf(document), (std::vector<std::string>{"schema", "command", "file", "file_size", "key", "header",
                                                          "problems", "keyring"}));
    EXPECT_TRUE(document["key"].is_null());
    EXPECT_EQ(document["problems"], 3);
}

TEST_F(VerifyKeyring, ABadSignatureUnderTheKeyringsKeyIsStillAProblem)
{
    FlipByte(container, 4096 + 10);
    const ProcessResult json = VerifyWithKeyring(true);
    EXPECT_EQ(json.status, 1);
    EXPECT_EQ(Verdicts(Parse(json)), (std::vector<std::string>{"digest-mismatch", "ok", "digest-mismatch"}));
}

TEST_F(VerifyKeyring, KeyAndKeyringAreAlternatives)
{
    const ProcessResult both =
        RunMarkforge({"verify", container, "--key", PublicKey("k"), "--keyring", ring});
    EXPECT_EQ(both.status, 2);
    const ProcessResult neither = RunMarkforge({"verify", container});
    EXPECT_EQ(neither.status, 2);
    EXPECT_EQ(neither.err, "markforge: verify needs one of --key PUBKEY and --keyring DIR\n");
    const ProcessResult missing = RunMarkforge({"verify", container, "--keyring", dir.file("nowhere")});
    EXPECT_EQ(missing.status, 4);
}

TEST_F(VerifyKeyring, InfoListsTheSkippedFilesInItsTextToo)
{
    const ProcessResult info = RunMarkforge({"info", container, "--keyring", ring});
    EXPECT_EQ(info.status, 0) << info.err;
    EXPECT_NE(info.out.find("keyring: skipped README (no key)\n"), std::string::npos) << info.out;
}

}  // namespace
