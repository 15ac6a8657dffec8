// markforge::keyFileSigner: the key file's numbers, PKCS#1 v1.5 through EVP.
#include "keyFileSigner.h"

#include <openssl/rsa.h>

#include <fstream>
#include <sstream>

#include "digestStream.h"
#include "lbRsaPrivateKey.h"

namespace markforge {

bool keyFileSigner::Load(const std::string& path, std::string& reason)
{
    _path = path;
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    lockbase::RsaKeyTexts texts;
    if (!in || !lockbase::ParseRsaKeyFile(text.str(), texts, reason) || !lockbase::CanonicalizeRsaKey(texts, reason)) {
        if (!in) reason = "cannot read " + path;
        return false;
    }
    if (texts.d.empty()) {
        reason = path + " holds a public key only";
        return false;
    }
    _key = lockbase::MakeRsaPrivateKey(texts);
    if (!_key) reason = "the numbers of " + path + " do not form an RSA private key";
    return _key != nullptr;
}

signatureResult keyFileSigner::Sign(const signatureRequest& request)
{
    // A context per signature: the key itself is only read, so threads may
    // sign at once.
    lockbase::PkeyCtxPtr context(EVP_PKEY_CTX_new_from_pkey(nullptr, _key.get(), nullptr));
    size_t length = 0;
    if (!context || EVP_PKEY_sign_init(context.get()) != 1 ||
        EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PADDING) != 1 ||
        EVP_PKEY_CTX_set_signature_md(context.get(), digestStream::AlgorithmOf(request.hashId)) != 1 ||
        EVP_PKEY_sign(context.get(), nullptr, &length, request.toSign.data(), request.toSign.size()) != 1)
        return signatureResult::Failed("OpenSSL could not prepare the RSA signature with " + _path);
    signatureResult result;
    result.signature.resize(length);
    if (EVP_PKEY_sign(context.get(), result.signature.data(), &length, request.toSign.data(), request.toSign.size()) !=
        1)
        return signatureResult::Failed("OpenSSL could not make the RSA signature with " + _path);
    result.signature.resize(length);
    return result;
}

}  // namespace markforge
