// markforge::publicKey: every key file format gives the same key; PKCS#1
// v1.5 signatures made by openssl verify and give their digest back;
// anything else is refused.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "digestStream.h"
#include "publicKey.h"
#include "testKeys.h"
#include "testSupport.h"

namespace {

using markforge::publicKey;
using testsupport::FromHex;
using testsupport::ProcessResult;

class PublicKeyTest : public testsupport::FrameworkTest {
protected:
    void SetUp() override
    {
        FrameworkTest::SetUp();
        std::string error;
        ASSERT_TRUE(testsupport::MakeRsaKey(dir.path(), "k", 2048, key, error)) << error;
        lbGlobal.Reset();
    }

    publicKey Loaded(const std::string& path)
    {
        publicKey loaded;
        std::string reason;
        EXPECT_TRUE(loaded.Load(path, reason)) << path << ": " << reason;
        return loaded;
    }

    // openssl's PKCS#1 v1.5 signature over a finished digest.
    std::vector<uint8_t> OpensslSign(const std::vector<uint8_t>& digest, const std::string& digestName)
    {
        testsupport::WriteBytes(dir.file("digest.bin"), digest);
        testsupport::Openssl({"pkeyutl", "-sign", "-inkey", key.privatePem, "-pkeyopt", "digest:" + digestName, "-in",
                              dir.file("digest.bin"), "-out", dir.file("signature.bin")});
        return testsupport::ReadBytes(dir.file("signature.bin"));
    }

    // The SHA-256 of the key's DER SubjectPublicKeyInfo, by openssl.
    std::vector<uint8_t> OpensslFingerprint()
    {
        testsupport::Openssl({"pkey", "-pubin", "-in", key.publicPem, "-outform", "DER", "-out", dir.file("spki.der")});
        return FromHex(testsupport::OpensslDigestHex(dir.path(), "sha256", testsupport::ReadFile(dir.file("spki.der"))));
    }

    testsupport::TempDir dir;
    testsupport::TestRsaKey key;
};

TEST_F(PublicKeyTest, EveryKeyFileFormatGivesTheSameKey)
{
    const std::string traditional = dir.file("k-pkcs1.pem");
    const std::string markforgePublic = dir.file("k-public.markforge");
    const std::string raw = dir.file("k.raw");
    ASSERT_EQ(testsupport::RunRecaster({"--convertkey", "-i", key.publicPem, "-o", markforgePublic, "-I", "pem", "-O",
                                        "markforge"})
                  .status,
              0);
    ASSERT_EQ(testsupport::RunRecaster({"--convertkey", "-i", key.publicPem, "-o", raw, "-I", "pem", "-O", "raw"}).status,
              0);
    const std::vector<uint8_t> expected = OpensslFingerprint();
    ASSERT_EQ(expected.size(), 32u);
    for (const std::string& path : {key.publicPem, key.privatePem, traditional, key.keyFile, markforgePublic, raw}) {
        SCOPED_TRACE(path);
        const publicKey loaded = Loaded(path);
        EXPECT_EQ(loaded.Fingerprint(), expected);
        EXPECT_EQ(loaded.ModulusBytes(), 256u);
    }
    EXPECT_EQ(Loaded(key.keyFile).PemText(), testsupport::ReadFile(key.publicPem));
}

TEST_F(PublicKeyTest, VerifiesAndRecoversEachSha2)
{
    const publicKey loaded = Loaded(key.publicPem);
    for (const auto& [name, id] : std::vector<std::pair<std::string, uint32_t>>{{"sha256", 3}, {"sha384", 5}, {"sha512", 4}}) {
        SCOPED_TRACE(name);
        const std::vector<uint8_t> digest = markforge::digestStream::Of(id, reinterpret_cast<const uint8_t*>("abc"), 3);
        std::vector<uint8_t> signature = OpensslSign(digest, name);
        EXPECT_TRUE(loaded.Verifies(signature, digest));
        std::vector<uint8_t> recovered;
        uint32_t recoveredId = 0;
        ASSERT_TRUE(loaded.Recover(signature, recovered, recoveredId));
        EXPECT_EQ(recovered, digest);
        EXPECT_EQ(recoveredId, id);

        std::vector<uint8_t> other = digest;
        other[0] ^= 1;
        EXPECT_FALSE(loaded.Verifies(signature, other));
        signature[10] ^= 1;
        EXPECT_FALSE(loaded.Verifies(signature, digest));
        EXPECT_FALSE(loaded.Recover(signature, recovered, recoveredId));
    }
}

TEST_F(PublicKeyTest, AnotherKeysSignatureNeitherVerifiesNorRecovers)
{
    testsupport::TestRsaKey other;
    std::string error;
    ASSERT_TRUE(testsupport::MakeRsaKey(dir.path(), "other", 2048, other, error)) << error;
    const std::vector<uint8_t> digest(32, 0x5A);
    const std::vector<uint8_t> signature = OpensslSign(digest, "sha256");
    const publicKey wrong = Loaded(other.publicPem);
    EXPECT_FALSE(wrong.Verifies(signature, digest));
    std::vector<uint8_t> recovered;
    uint32_t id = 0;
    EXPECT_FALSE(wrong.Recover(signature, recovered, id));
}

TEST_F(PublicKeyTest, DigestsOfOtherLengthsNeverVerify)
{
    const publicKey loaded = Loaded(key.publicPem);
    const std::vector<uint8_t> digest(32, 1);
    const std::vector<uint8_t> signature = OpensslSign(digest, "sha256");
    EXPECT_FALSE(loaded.Verifies(signature, std::vector<uint8_t>(20, 1)));
    EXPECT_FALSE(loaded.Verifies({}, digest));
}

TEST_F(PublicKeyTest, RefusesWhatIsNotAnRsaKey)
{
    testsupport::Openssl({"genpkey", "-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:P-256", "-out", dir.file("ec.pem")});
    testsupport::WriteFile(dir.file("empty"), "");
    testsupport::WriteFile(dir.file("short"), std::string(63, '\x7f'));
    testsupport::WriteFile(dir.file("long"), std::string(1025, '\x7f'));
    testsupport::WriteFile(dir.file("leading-zero"), std::string(1, '\0') + std::string(255, '\x7f'));
    testsupport::WriteFile(dir.file("broken.markforge"), "markforge-rsa-key 1\nkind: public\nn: XYZ\n");
    testsupport::WriteFile(dir.file("huge"), std::string(70000, 'A'));
    const std::vector<std::pair<std::string, std::string>> rows = {
        {"ec.pem", "no RSA key in the PEM text"},
        {"empty", "neither PEM, a markforge key file nor a raw modulus of 512 to 8192 bits"},
        {"short", "neither PEM"},
        {"long", "neither PEM"},
        {"leading-zero", "neither PEM"},
        {"broken.markforge", ""},
        {"huge", "is too large for a key file"},
        {"missing", "cannot read key file"},
    };
    for (const auto& [file, why] : rows) {
        SCOPED_TRACE(file);
        publicKey loaded;
        std::string reason;
        EXPECT_FALSE(loaded.Load(dir.file(file), reason));
        EXPECT_FALSE(loaded.Loaded());
        EXPECT_NE(reason.find(why), std::string::npos) << reason;
        EXPECT_NE(reason.find(dir.file(file)), std::string::npos) << reason;
    }
}

}  // namespace
