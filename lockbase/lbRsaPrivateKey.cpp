// Building an OpenSSL private key from the numbers of an RSA key file.
#include "lbRsaPrivateKey.h"

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/param_build.h>

namespace lockbase {
namespace {

BnPtr Hex(const std::string& text)
{
    BIGNUM* bn = nullptr;
    if (!BN_hex2bn(&bn, text.c_str())) return BnPtr();
    return BnPtr(bn);
}

}  // namespace

PkeyPtr MakeRsaPrivateKey(const RsaKeyTexts& texts)
{
    BnPtr n = Hex(texts.n), e = Hex(texts.e), p = Hex(texts.p), q = Hex(texts.q), d = Hex(texts.d);
    BnPtr p1(BN_new()), q1(BN_new()), dmp1(BN_new()), dmq1(BN_new()), iqmp(BN_new());
    BnCtxPtr ctx(BN_CTX_new());
    if (!n || !e || !p || !q || !d || !p1 || !q1 || !dmp1 || !dmq1 || !iqmp || !ctx) return PkeyPtr();
    if (!BN_sub(p1.get(), p.get(), BN_value_one()) || !BN_sub(q1.get(), q.get(), BN_value_one()) ||
        !BN_mod(dmp1.get(), d.get(), p1.get(), ctx.get()) || !BN_mod(dmq1.get(), d.get(), q1.get(), ctx.get()) ||
        !BN_mod_inverse(iqmp.get(), q.get(), p.get(), ctx.get()))
        return PkeyPtr();

    ParamBldPtr bld(OSSL_PARAM_BLD_new());
    if (!bld || !OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_RSA_N, n.get()) ||
        !OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_RSA_E, e.get()) ||
        !OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_RSA_D, d.get()) ||
        !OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_RSA_FACTOR1, p.get()) ||
        !OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_RSA_FACTOR2, q.get()) ||
        !OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_RSA_EXPONENT1, dmp1.get()) ||
        !OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_RSA_EXPONENT2, dmq1.get()) ||
        !OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_RSA_COEFFICIENT1, iqmp.get()))
        return PkeyPtr();
    ParamPtr params(OSSL_PARAM_BLD_to_param(bld.get()));
    PkeyCtxPtr pctx(EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr));
    EVP_PKEY* key = nullptr;
    if (!params || !pctx || EVP_PKEY_fromdata_init(pctx.get()) != 1 ||
        EVP_PKEY_fromdata(pctx.get(), &key, EVP_PKEY_KEYPAIR, params.get()) != 1)
        return PkeyPtr();
    return PkeyPtr(key);
}

}  // namespace lockbase
