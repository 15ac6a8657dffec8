// lbRsa::Sign: PKCS#1 v1.5 signatures over finished SHA-256, SHA-384 and
// SHA-512 digests, judged by openssl; keys that cannot sign and digests of
// other sizes are refused without touching the output.
#include <gtest/gtest.h>

#include <memory>

#include "lbBytes.h"
#include "lbRsa.h"
#include "testKeys.h"
#include "testSupport.h"

using testsupport::TrailLines;

namespace {

const char* const SIGN_TEXT = "bool lbRsa::Sign(const lbBytes&, lbBytes&)";

class LbRsaSignTest : public testsupport::FrameworkTest {
protected:
    static void SetUpTestSuite()
    {
        folder = std::make_unique<testsupport::TempDir>();
        std::string error;
        key = std::make_unique<testsupport::TestRsaKey>();
        keyReady = testsupport::MakeRsaKey(folder->path(), "signer", 2048, *key, error);
        keyError = error;
        lbGlobal.Reset();
    }
    static void TearDownTestSuite()
    {
        key.reset();
        folder.reset();
    }
    void SetUp() override
    {
        FrameworkTest::SetUp();
        ASSERT_TRUE(keyReady) << keyError;
    }

    static lbBytes Bytes(const std::vector<uint8_t>& bytes)
    {
        lbBytes out;
        out.ImportFromV(bytes);
        return out;
    }

    // The digest of a short message as openssl computes it.
    std::vector<uint8_t> DigestOf(const std::string& name, const std::string& message)
    {
        return testsupport::FromHex(testsupport::OpensslDigestHex(folder->path(), name, message));
    }

    void ExpectVerifies(const std::string& name, size_t digestSize)
    {
        lbRsa rsa;
        ASSERT_TRUE(rsa.MakeKeyFromExps(key->n, key->e, key->p, key->q, key->d));
        const lbBytes digest = Bytes(DigestOf(name, "message for " + name));
        ASSERT_EQ(digest.buffer.size(), digestSize);
        lbBytes signature;
        ASSERT_TRUE(rsa.Sign(digest, signature));
        EXPECT_EQ(signature.buffer.size(), 256u);
        std::string detail;
        EXPECT_TRUE(testsupport::OpensslVerifies(folder->path(), key->publicPem, name, digest.buffer,
                                                 signature.buffer, detail))
            << detail;
        // PKCS#1 v1.5 is deterministic: openssl's own signature is the same.
        const std::string digestPath = folder->path() + "/own-digest.bin";
        const std::string ownPath = folder->path() + "/own-signature.bin";
        testsupport::WriteBytes(digestPath, digest.buffer);
        testsupport::Openssl({"pkeyutl", "-sign", "-inkey", key->privatePem, "-in", digestPath, "-out", ownPath,
                              "-pkeyopt", "digest:" + name});
        EXPECT_EQ(signature.buffer, testsupport::ReadBytes(ownPath));
        rsa.Close();
        EXPECT_FALSE(lbGlobal.errorFlag);
    }

    static std::unique_ptr<testsupport::TempDir> folder;
    static std::unique_ptr<testsupport::TestRsaKey> key;
    static bool keyReady;
    static std::string keyError;
};

std::unique_ptr<testsupport::TempDir> LbRsaSignTest::folder;
std::unique_ptr<testsupport::TestRsaKey> LbRsaSignTest::key;
bool LbRsaSignTest::keyReady = false;
std::string LbRsaSignTest::keyError;

}  // namespace

TEST_F(LbRsaSignTest, Sha256DigestSignatureVerifies)
{
    ExpectVerifies("sha256", 32);
}

TEST_F(LbRsaSignTest, Sha384DigestSignatureVerifies)
{
    ExpectVerifies("sha384", 48);
}

TEST_F(LbRsaSignTest, Sha512DigestSignatureVerifies)
{
    ExpectVerifies("sha512", 64);
}

TEST_F(LbRsaSignTest, KeyReadFromAKeyFileSignsTheSame)
{
    lbRsa fromNumbers, fromFile;
    ASSERT_TRUE(fromNumbers.MakeKeyFromExps(key->n, key->e, key->p, key->q, key->d));
    ASSERT_TRUE(fromFile.ReadKeyFromDisk(key->keyFile));
    const lbBytes digest = Bytes(DigestOf("sha256", "same"));
    lbBytes first, second;
    ASSERT_TRUE(fromNumbers.Sign(digest, first));
    ASSERT_TRUE(fromFile.Sign(digest, second));
    EXPECT_EQ(first.buffer, second.buffer);
}

TEST_F(LbRsaSignTest, PublicKeyCannotSign)
{
    lbRsa rsa;
    ASSERT_TRUE(rsa.MakeKeyFromExps(key->n, key->e, "", "", ""));
    lbBytes signature;
    signature.ImportFromV({1, 2, 3});
    EXPECT_FALSE(rsa.Sign(Bytes(DigestOf("sha256", "x")), signature));
    EXPECT_EQ(signature.buffer, (std::vector<uint8_t>{1, 2, 3}));
    EXPECT_TRUE(lbGlobal.errorFlag);
    EXPECT_EQ(TrailLines(), (std::vector<std::string>{std::string(SIGN_TEXT) +
                                                      "|lockbase/lbRsa.cpp|Signing needs a private key"}));
}

TEST_F(LbRsaSignTest, TwentyByteDigestIsRefused)
{
    lbRsa rsa;
    ASSERT_TRUE(rsa.MakeKeyFromExps(key->n, key->e, key->p, key->q, key->d));
    lbBytes signature;
    signature.ImportFromV({9});
    EXPECT_FALSE(rsa.Sign(Bytes(std::vector<uint8_t>(20, 0xAB)), signature));
    EXPECT_EQ(signature.buffer, (std::vector<uint8_t>{9}));
    EXPECT_TRUE(lbGlobal.errorFlag);
    EXPECT_EQ(TrailLines(),
              (std::vector<std::string>{std::string(SIGN_TEXT) + "|lockbase/lbRsa.cpp|A digest of 20 bytes is not "
                                                                 "SHA-256, SHA-384 or SHA-512"}));
}

TEST_F(LbRsaSignTest, EmptyDigestIsRefused)
{
    lbRsa rsa;
    ASSERT_TRUE(rsa.MakeKeyFromExps(key->n, key->e, key->p, key->q, key->d));
    lbBytes signature;
    EXPECT_FALSE(rsa.Sign(lbBytes(), signature));
    EXPECT_TRUE(signature.buffer.empty());
    EXPECT_TRUE(lbGlobal.errorFlag);
}

TEST_F(LbRsaSignTest, KeylessObjectCannotSign)
{
    lbRsa rsa;
    lbBytes signature;
    EXPECT_FALSE(rsa.Sign(Bytes(std::vector<uint8_t>(32, 1)), signature));
    EXPECT_TRUE(signature.buffer.empty());
    EXPECT_TRUE(lbGlobal.errorFlag);
}

TEST_F(LbRsaSignTest, RaisedFlagStopsSigning)
{
    lbRsa rsa;
    ASSERT_TRUE(rsa.MakeKeyFromExps(key->n, key->e, key->p, key->q, key->d));
    lbGlobal.errorFlag = true;
    lbBytes signature;
    EXPECT_FALSE(rsa.Sign(Bytes(std::vector<uint8_t>(32, 1)), signature));
    EXPECT_TRUE(signature.buffer.empty());
    EXPECT_EQ(TrailLines(), (std::vector<std::string>{std::string(SIGN_TEXT) +
                                                      "|lockbase/lbRsa.cpp|Unable to continue from previous error"}));
}
