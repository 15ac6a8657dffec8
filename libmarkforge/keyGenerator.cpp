// markforge::keyGenerator: OpenSSL's RSA key generation, as key texts.
#include "keyGenerator.h"

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>

namespace markforge {
namespace {

// One number of `key` as upper-case hex text; empty when it is missing.
std::string NumberText(EVP_PKEY* key, const char* name)
{
    BIGNUM* number = nullptr;
    if (EVP_PKEY_get_bn_param(key, name, &number) != 1) return {};
    char* hex = BN_bn2hex(number);
    BN_clear_free(number);
    if (!hex) return {};
    std::string text(hex);
    OPENSSL_clear_free(hex, text.size());
    return text;
}

}  // namespace

bool keyGenerator::Generate(unsigned bits, lockbase::RsaKeyTexts& texts, publicKey& half, std::string& reason)
{
    EVP_PKEY* key = EVP_RSA_gen(bits);
    if (!key) {
        reason = "OpenSSL could not generate a " + std::to_string(bits) + "-bit RSA key";
        return false;
    }
    texts.n = NumberText(key, OSSL_PKEY_PARAM_RSA_N);
    texts.e = NumberText(key, OSSL_PKEY_PARAM_RSA_E);
    texts.p = NumberText(key, OSSL_PKEY_PARAM_RSA_FACTOR1);
    texts.q = NumberText(key, OSSL_PKEY_PARAM_RSA_FACTOR2);
    texts.d = NumberText(key, OSSL_PKEY_PARAM_RSA_D);
    half.Adopt(key);
    if (texts.n.empty() || texts.e.empty() || texts.p.empty() || texts.q.empty() || texts.d.empty()) {
        reason = "OpenSSL did not hand out the new key's numbers";
        return false;
    }
    return true;
}

}  // namespace markforge
