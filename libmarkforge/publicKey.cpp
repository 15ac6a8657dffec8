// markforge::publicKey: key files to an EVP key; PKCS#1 v1.5 verification and
// digest recovery.
#include "publicKey.h"

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/decoder.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>

#include "digestStream.h"
#include "lbOpensslPtr.h"
#include "lbRsaKeyFile.h"

namespace markforge {
namespace {

using lockbase::BioPtr;
using lockbase::BnPtr;
using lockbase::DecoderPtr;
using lockbase::ParamBldPtr;
using lockbase::ParamPtr;
using lockbase::PkeyCtxPtr;

// Key files are small; anything larger is not one.
constexpr size_t MAX_KEY_BYTES = 65536;
constexpr unsigned long RAW_EXPONENT = 65537;
constexpr size_t MIN_RAW_MODULUS = 64;   // 512 bits
constexpr size_t MAX_RAW_MODULUS = 1024; // 8192 bits

// The DER prefix of a PKCS#1 v1.5 DigestInfo, before the digest bytes.
struct DigestInfoPrefix {
    uint32_t hashId;
    std::vector<uint8_t> bytes;
};
const std::vector<DigestInfoPrefix>& DigestInfoPrefixes()
{
    static const std::vector<DigestInfoPrefix> prefixes = {
        {3, {0x30, 0x31, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x01, 0x05, 0x00,
             0x04, 0x20}},
        {5, {0x30, 0x41, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x02, 0x05, 0x00,
             0x04, 0x30}},
        {4, {0x30, 0x51, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x03, 0x05, 0x00,
             0x04, 0x40}},
    };
    return prefixes;
}

bool StartsWith(const std::string& text, const char* prefix)
{
    return text.compare(0, std::strlen(prefix), prefix) == 0;
}

// An RSA public key from its modulus and exponent.
EVP_PKEY* MakePublicKey(const BIGNUM* n, const BIGNUM* e)
{
    ParamBldPtr builder(OSSL_PARAM_BLD_new());
    if (!builder || !OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_RSA_N, n) ||
        !OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_RSA_E, e))
        return nullptr;
    ParamPtr params(OSSL_PARAM_BLD_to_param(builder.get()));
    PkeyCtxPtr context(EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr));
    EVP_PKEY* key = nullptr;
    if (!params || !context || EVP_PKEY_fromdata_init(context.get()) != 1 ||
        EVP_PKEY_fromdata(context.get(), &key, EVP_PKEY_PUBLIC_KEY, params.get()) != 1)
        return nullptr;
    return key;
}

// A verification context on `key` with PKCS#1 v1.5 padding.
PkeyCtxPtr VerifyContext(EVP_PKEY* key, bool recover)
{
    PkeyCtxPtr context(EVP_PKEY_CTX_new_from_pkey(nullptr, key, nullptr));
    if (!context) return context;
    const int started = recover ? EVP_PKEY_verify_recover_init(context.get()) : EVP_PKEY_verify_init(context.get());
    if (started != 1 || EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PADDING) != 1) context.reset();
    return context;
}

}  // namespace

publicKey::publicKey() : _key(nullptr) {}

publicKey::~publicKey()
{
    EVP_PKEY_free(_key);
}

publicKey::publicKey(publicKey&& other) noexcept : _key(other._key)
{
    other._key = nullptr;
}

publicKey& publicKey::operator=(publicKey&& other) noexcept
{
    std::swap(_key, other._key);
    return *this;
}

void publicKey::Adopt(evp_pkey_st* key)
{
    EVP_PKEY_free(_key);
    _key = key;
}

bool publicKey::Load(const std::string& path, std::string& reason)
{
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        reason = "cannot read key file " + path;
        return false;
    }
    std::string bytes;
    bytes.resize(MAX_KEY_BYTES + 1);
    file.read(&bytes[0], static_cast<std::streamsize>(bytes.size()));
    if (file.bad()) {
        reason = "cannot read key file " + path;
        return false;
    }
    bytes.resize(static_cast<size_t>(file.gcount()));
    if (bytes.size() > MAX_KEY_BYTES) {
        reason = path + " is too large for a key file";
        return false;
    }
    if (!LoadBytes(bytes, reason)) {
        reason = path + ": " + reason;
        return false;
    }
    return true;
}

bool publicKey::LoadBytes(const std::string& bytes, std::string& reason)
{
    if (bytes.find("-----BEGIN ") != std::string::npos) return LoadPem(bytes, reason);
    if (StartsWith(bytes, "markforge-rsa-key ")) return LoadKeyFile(bytes, reason);
    return LoadRawModulus(bytes, reason);
}

bool publicKey::LoadPem(const std::string& bytes, std::string& reason)
{
    EVP_PKEY* key = nullptr;
    // Selection 0: public and private keys alike, in any PEM structure.
    DecoderPtr decoder(OSSL_DECODER_CTX_new_for_pkey(&key, "PEM", nullptr, "RSA", 0, nullptr, nullptr));
    const unsigned char* data = reinterpret_cast<const unsigned char*>(bytes.data());
    size_t length = bytes.size();
    if (!decoder || OSSL_DECODER_from_data(decoder.get(), &data, &length) != 1 || !key) {
        reason = "no RSA key in the PEM text";
        return false;
    }
    Adopt(key);
    return true;
}

bool publicKey::LoadKeyFile(const std::string& bytes, std::string& reason)
{
    lockbase::RsaKeyTexts texts;
    if (!lockbase::ParseRsaKeyFile(bytes, texts, reason)) return false;
    BIGNUM* n = nullptr;
    BIGNUM* e = nullptr;
    BN_hex2bn(&n, texts.n.c_str());
    BN_hex2bn(&e, texts.e.c_str());
    BnPtr modulus(n), exponent(e);
    EVP_PKEY* key = modulus && exponent ? MakePublicKey(n, e) : nullptr;
    if (!key) {
        reason = "the key file's numbers do not form an RSA key";
        return false;
    }
    Adopt(key);
    return true;
}

bool publicKey::LoadRawModulus(const std::string& bytes, std::string& reason)
{
    if (bytes.size() < MIN_RAW_MODULUS || bytes.size() > MAX_RAW_MODULUS || bytes[0] == 0) {
        reason = "neither PEM, a markforge key file nor a raw modulus of 512 to 8192 bits";
        return false;
    }
    BnPtr n(BN_bin2bn(reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()), nullptr));
    BnPtr e(BN_new());
    EVP_PKEY* key = n && e && BN_set_word(e.get(), RAW_EXPONENT) ? MakePublicKey(n.get(), e.get()) : nullptr;
    if (!key) {
        reason = "the raw modulus does not form an RSA key";
        return false;
    }
    Adopt(key);
    return true;
}

size_t publicKey::ModulusBytes() const
{
    return _key ? static_cast<size_t>(EVP_PKEY_get_size(_key)) : 0;
}

bool publicKey::HasModulusLength(const std::vector<uint8_t>& signature) const
{
    // OpenSSL's recovery would take a shorter number too (a dropped leading
    // zero byte); only the one encoding at the modulus length is accepted.
    return !signature.empty() && signature.size() == ModulusBytes();
}

bool publicKey::Verifies(const std::vector<uint8_t>& signature, const std::vector<uint8_t>& digest) const
{
    const uint32_t hashId = digestStream::IdForLength(digest.size());
    if (!_key || hashId == 0 || !HasModulusLength(signature)) return false;
    PkeyCtxPtr context = VerifyContext(_key, false);
    const EVP_MD* md = EVP_get_digestbyname(digestStream::NameOf(hashId));
    return context && md && EVP_PKEY_CTX_set_signature_md(context.get(), md) == 1 &&
           EVP_PKEY_verify(context.get(), signature.data(), signature.size(), digest.data(), digest.size()) == 1;
}

bool publicKey::Recover(const std::vector<uint8_t>& signature, std::vector<uint8_t>& digest, uint32_t& hashId) const
{
    if (!_key || !HasModulusLength(signature)) return false;
    PkeyCtxPtr context = VerifyContext(_key, true);
    std::vector<uint8_t> info(ModulusBytes());
    size_t length = info.size();
    if (!context ||
        EVP_PKEY_verify_recover(context.get(), info.data(), &length, signature.data(), signature.size()) != 1)
        return false;
    info.resize(length);
    for (const DigestInfoPrefix& prefix : DigestInfoPrefixes()) {
        const size_t digestLength = digestStream::LengthOf(prefix.hashId);
        if (info.size() == prefix.bytes.size() + digestLength &&
            std::equal(prefix.bytes.begin(), prefix.bytes.end(), info.begin())) {
            digest.assign(info.begin() + static_cast<std::ptrdiff_t>(prefix.bytes.size()), info.end());
            hashId = prefix.hashId;
            return true;
        }
    }
    return false;
}

std::vector<uint8_t> publicKey::Fingerprint() const
{
    unsigned char* der = nullptr;
    const int length = _key ? i2d_PUBKEY(_key, &der) : -1;
    if (length <= 0) return {};
    std::vector<uint8_t> fingerprint = digestStream::Of(3, der, static_cast<size_t>(length));
    OPENSSL_free(der);
    return fingerprint;
}

std::string publicKey::PemText() const
{
    BioPtr bio(BIO_new(BIO_s_mem()));
    if (!_key || !bio || PEM_write_bio_PUBKEY(bio.get(), _key) != 1) return {};
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio.get(), &data);
    return length > 0 ? std::string(data, static_cast<size_t>(length)) : std::string();
}

}  // namespace markforge
