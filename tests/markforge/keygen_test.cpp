// `markforge keygen`: a private key file of mode 0600 that round-trips
// through recaster to a PEM key openssl accepts, a matching public PEM, and
// no file ever overwritten.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <string>

#include "testKeys.h"
#include "testSupport.h"

namespace {

using testsupport::ProcessResult;
using testsupport::ReadFile;
using testsupport::RunMarkforge;

class KeygenTest : public ::testing::Test {
protected:
    testsupport::TempDir dir;
};

TEST_F(KeygenTest, WritesAPrivateKeyFileOfMode0600ThatOpensslAccepts)
{
    for (const char* bits : {"2048", "3072", "4096"}) {
        SCOPED_TRACE(bits);
        const std::string key = dir.file(std::string("k") + bits + ".markforge");
        const std::string pub = dir.file(std::string("k") + bits + ".pem");
        const ProcessResult made = RunMarkforge({"keygen", "--bits", bits, "-o", key, "--public-out", pub});
        ASSERT_EQ(made.status, 0) << made.err;
        EXPECT_EQ(made.err, "");
        // What it wrote, with the fingerprint info --keyring names the key by.
        const ProcessResult der = testsupport::Openssl({"pkey", "-pubin", "-in", pub, "-outform", "DER"});
        EXPECT_EQ(made.out, "wrote " + key + " (private key, " + bits + " bits, key SHA-256 " +
                                testsupport::OpensslDigestHex(dir.path(), "sha256", der.out) + ")\nwrote " + pub +
                                " (its public key, PEM)\n");
        struct stat info;
        ASSERT_EQ(stat(key.c_str(), &info), 0);
        EXPECT_EQ(info.st_mode & 0777, 0600u);
        EXPECT_EQ(ReadFile(key).rfind("markforge-rsa-key 1\nkind: private\n", 0), 0u);

        const std::string pem = dir.file(std::string("k") + bits + "-private.pem");
        const ProcessResult converted =
            testsupport::RunRecaster({"--convertkey", "-i", key, "-o", pem, "-I", "markforge", "-O", "pem"});
        ASSERT_EQ(converted.status, 0) << converted.err;
        const ProcessResult checked = testsupport::Openssl({"rsa", "-check", "-noout", "-in", pem});
        EXPECT_NE(checked.out.find("RSA key ok"), std::string::npos) << checked.out << checked.err;
        const ProcessResult text = testsupport::Openssl({"rsa", "-in", pem, "-noout", "-text"});
        EXPECT_NE(text.out.find(std::string("Private-Key: (") + bits + " bit"), std::string::npos);
        // The public half is the private key's own.
        const ProcessResult derived = testsupport::Openssl({"pkey", "-in", pem, "-pubout"});
        EXPECT_EQ(ReadFile(pub), derived.out);
    }
}

TEST_F(KeygenTest, RefusesToOverwrite)
{
    const std::string key = dir.file("k.markforge");
    testsupport::WriteFile(key, "precious");
    const ProcessResult made = RunMarkforge({"keygen", "--bits", "2048", "-o", key});
    EXPECT_EQ(made.status, 4);
    EXPECT_EQ(made.err, "markforge: " + key + " exists; keygen never overwrites a file\n");
    EXPECT_EQ(ReadFile(key), "precious");

    const std::string pub = dir.file("k.pem");
    testsupport::WriteFile(pub, "public");
    const std::string fresh = dir.file("fresh.markforge");
    const ProcessResult withPublic = RunMarkforge({"keygen", "--bits", "2048", "-o", fresh, "--public-out", pub});
    EXPECT_EQ(withPublic.status, 4);
    EXPECT_FALSE(testsupport::FileExists(fresh));
    EXPECT_EQ(ReadFile(pub), "public");
}

TEST_F(KeygenTest, OtherSizesAreAUsageError)
{
    for (const char* bits : {"1024", "2047", "8192", "many"}) {
        SCOPED_TRACE(bits);
        const ProcessResult made = RunMarkforge({"keygen", "--bits", bits, "-o", dir.file("k.markforge")});
        EXPECT_EQ(made.status, 2);
        EXPECT_EQ(made.err.rfind("markforge: --bits: ", 0), 0u) << made.err;
        EXPECT_FALSE(testsupport::FileExists(dir.file("k.markforge")));
    }
}

TEST_F(KeygenTest, SameFileTwiceIsAUsageError)
{
    const std::string key = dir.file("k");
    const ProcessResult made = RunMarkforge({"keygen", "--bits", "2048", "-o", key, "--public-out", key});
    EXPECT_EQ(made.status, 2);
    EXPECT_EQ(made.err, "markforge: -o and --public-out name the same file\n");
}

}  // namespace
