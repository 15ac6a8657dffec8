// Owning pointers for OpenSSL objects, each released by its own free call.
#pragma once

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/decoder.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>

#include <memory>

namespace lockbase {

template <typename T, void (*F)(T*)>
struct OpensslDeleter {
    void operator()(T* p) const { F(p); }
};

// Big numbers are wiped when freed: some hold private key material.
using BnPtr = std::unique_ptr<BIGNUM, OpensslDeleter<BIGNUM, BN_clear_free>>;
using BnCtxPtr = std::unique_ptr<BN_CTX, OpensslDeleter<BN_CTX, BN_CTX_free>>;
using PkeyPtr = std::unique_ptr<EVP_PKEY, OpensslDeleter<EVP_PKEY, EVP_PKEY_free>>;
using PkeyCtxPtr = std::unique_ptr<EVP_PKEY_CTX, OpensslDeleter<EVP_PKEY_CTX, EVP_PKEY_CTX_free>>;
using ParamBldPtr = std::unique_ptr<OSSL_PARAM_BLD, OpensslDeleter<OSSL_PARAM_BLD, OSSL_PARAM_BLD_free>>;
using ParamPtr = std::unique_ptr<OSSL_PARAM, OpensslDeleter<OSSL_PARAM, OSSL_PARAM_free>>;
using DecoderPtr = std::unique_ptr<OSSL_DECODER_CTX, OpensslDeleter<OSSL_DECODER_CTX, OSSL_DECODER_CTX_free>>;
using BioPtr = std::unique_ptr<BIO, OpensslDeleter<BIO, BIO_free_all>>;

}  // namespace lockbase
