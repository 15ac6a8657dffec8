// AgentKey: signs with its private half and gives out only signatures that
// its public half verifies; a damaged private key yields no signature.
#include <gtest/gtest.h>

#include <cstdio>

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/param_build.h>
#include <openssl/rsa.h>

#include "agentClient.h"
#include "agentKey.h"

using agent::AgentKey;
using agent::PkeyPtr;
using agenttest::Pattern;

namespace {

struct BnFree {
    void operator()(BIGNUM* n) const { BN_free(n); }
};
using BnPtr = std::unique_ptr<BIGNUM, BnFree>;

BnPtr Number(const EVP_PKEY* key, const char* name)
{
    BIGNUM* n = nullptr;
    EVP_PKEY_get_bn_param(key, name, &n);
    return BnPtr(n);
}

// An RSA key of n, e and d alone (no CRT values, so OpenSSL uses d as it is).
PkeyPtr KeyFromNumbers(const BIGNUM* n, const BIGNUM* e, const BIGNUM* d)
{
    OSSL_PARAM_BLD* build = OSSL_PARAM_BLD_new();
    OSSL_PARAM_BLD_push_BN(build, OSSL_PKEY_PARAM_RSA_N, n);
    OSSL_PARAM_BLD_push_BN(build, OSSL_PKEY_PARAM_RSA_E, e);
    OSSL_PARAM_BLD_push_BN(build, OSSL_PKEY_PARAM_RSA_D, d);
    OSSL_PARAM* params = OSSL_PARAM_BLD_to_param(build);
    EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr);
    EVP_PKEY* key = nullptr;
    EVP_PKEY_fromdata_init(ctx);
    EVP_PKEY_fromdata(ctx, &key, EVP_PKEY_KEYPAIR, params);
    EVP_PKEY_CTX_free(ctx);
    OSSL_PARAM_free(params);
    OSSL_PARAM_BLD_free(build);
    return PkeyPtr(key);
}

class AgentKeyTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { generated.reset(EVP_RSA_gen(2048)); }
    static void TearDownTestSuite() { generated.reset(); }

    static PkeyPtr Copy()
    {
        EVP_PKEY_up_ref(generated.get());
        return PkeyPtr(generated.get());
    }

    static inline PkeyPtr generated;
};

TEST_F(AgentKeyTest, SignsEveryDigestLength)
{
    AgentKey key("k", Copy());
    std::string error;
    ASSERT_TRUE(key.Prepare(error)) << error;
    for (const size_t length : {32u, 48u, 64u}) {
        std::vector<uint8_t> signature;
        EXPECT_TRUE(key.Sign(Pattern(length), signature, error)) << error;
        EXPECT_EQ(signature.size(), 256u);
    }
}

TEST_F(AgentKeyTest, OtherDigestLengthsAreRefused)
{
    AgentKey key("k", Copy());
    std::string error;
    ASSERT_TRUE(key.Prepare(error)) << error;
    std::vector<uint8_t> signature;
    EXPECT_FALSE(key.Sign(Pattern(20), signature, error));
    EXPECT_EQ(error, "a digest of 20 bytes");
    EXPECT_TRUE(signature.empty());
}

TEST_F(AgentKeyTest, SignatureThatDoesNotVerifyIsNotGivenOut)
{
    BnPtr n = Number(generated.get(), OSSL_PKEY_PARAM_RSA_N), e = Number(generated.get(), OSSL_PKEY_PARAM_RSA_E),
          d = Number(generated.get(), OSSL_PKEY_PARAM_RSA_D);
    ASSERT_TRUE(n && e && d);
    BN_add_word(d.get(), 2);  // a damaged private exponent
    AgentKey key("k", KeyFromNumbers(n.get(), e.get(), d.get()));
    std::string error;
    ASSERT_TRUE(key.Prepare(error)) << error;
    std::vector<uint8_t> signature;
    EXPECT_FALSE(key.Sign(Pattern(32), signature, error));
    EXPECT_EQ(error, "the signature does not verify with the public key");
    EXPECT_TRUE(signature.empty());
}

TEST_F(AgentKeyTest, FingerprintIsTheHashOfThePublicKey)
{
    AgentKey key("k", Copy());
    std::string error;
    ASSERT_TRUE(key.Prepare(error)) << error;
    std::vector<uint8_t> hash(32);
    unsigned length = 0;
    EVP_Digest(key.PublicDer().data(), key.PublicDer().size(), hash.data(), &length, EVP_sha256(), nullptr);
    std::string hex;
    char pair[3];
    for (const uint8_t b : hash) {
        std::snprintf(pair, sizeof pair, "%02x", b);
        hex += pair;
    }
    EXPECT_EQ(key.Fingerprint(), "SHA256:" + hex);
}

TEST_F(AgentKeyTest, NonRsaKeyIsRefused)
{
    AgentKey key("ec", PkeyPtr(EVP_EC_gen("P-256")));
    std::string error;
    EXPECT_FALSE(key.Prepare(error));
    EXPECT_EQ(error, "key ec is not an RSA key");
}

}  // namespace
