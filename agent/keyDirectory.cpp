// Key folder loading. Private keys are turned into OpenSSL keys once, here on
// the main thread, so the workers never touch a file or the framework.
#include "keyDirectory.h"

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/param_build.h>
#include <openssl/pem.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "lbRsaKeyFile.h"
#include "signRequest.h"

namespace agent {
namespace {

struct BnFree {
    void operator()(BIGNUM* n) const { BN_clear_free(n); }
};
using BnPtr = std::unique_ptr<BIGNUM, BnFree>;

BnPtr FromHex(const std::string& hex)
{
    BIGNUM* n = nullptr;
    if (hex.empty() || BN_hex2bn(&n, hex.c_str()) != static_cast<int>(hex.size())) {
        BN_free(n);
        return nullptr;
    }
    return BnPtr(n);
}

bool ReadText(const std::string& path, std::string& text, std::string& error)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream buffer;
    if (in) buffer << in.rdbuf();
    if (!in) {
        error = path + ": " + std::strerror(errno);
        return false;
    }
    text = buffer.str();
    return true;
}

// d mod (m - 1), one of the CRT exponents.
BnPtr ExponentMod(const BIGNUM* d, const BIGNUM* m, BN_CTX* ctx)
{
    BnPtr less(BN_dup(m)), result(BN_new());
    if (!less || !result || !BN_sub_word(less.get(), 1) || !BN_mod(result.get(), d, less.get(), ctx)) return nullptr;
    return result;
}

// An RSA private key from its numbers, with the CRT values computed so that
// signing runs at full speed.
PkeyPtr MakeRsaKey(const lockbase::RsaKeyTexts& texts)
{
    BnPtr n = FromHex(texts.n), e = FromHex(texts.e), d = FromHex(texts.d), p = FromHex(texts.p),
          q = FromHex(texts.q);
    if (!n || !e || !d || !p || !q) return nullptr;
    std::unique_ptr<BN_CTX, decltype(&BN_CTX_free)> ctx(BN_CTX_new(), BN_CTX_free);
    BnPtr dp = ExponentMod(d.get(), p.get(), ctx.get()), dq = ExponentMod(d.get(), q.get(), ctx.get());
    BnPtr qinv(BN_mod_inverse(nullptr, q.get(), p.get(), ctx.get()));
    if (!dp || !dq || !qinv) return nullptr;
    std::unique_ptr<OSSL_PARAM_BLD, decltype(&OSSL_PARAM_BLD_free)> build(OSSL_PARAM_BLD_new(),
                                                                           OSSL_PARAM_BLD_free);
    if (!build || !OSSL_PARAM_BLD_push_BN(build.get(), OSSL_PKEY_PARAM_RSA_N, n.get()) ||
        !OSSL_PARAM_BLD_push_BN(build.get(), OSSL_PKEY_PARAM_RSA_E, e.get()) ||
        !OSSL_PARAM_BLD_push_BN(build.get(), OSSL_PKEY_PARAM_RSA_D, d.get()) ||
        !OSSL_PARAM_BLD_push_BN(build.get(), OSSL_PKEY_PARAM_RSA_FACTOR1, p.get()) ||
        !OSSL_PARAM_BLD_push_BN(build.get(), OSSL_PKEY_PARAM_RSA_FACTOR2, q.get()) ||
        !OSSL_PARAM_BLD_push_BN(build.get(), OSSL_PKEY_PARAM_RSA_EXPONENT1, dp.get()) ||
        !OSSL_PARAM_BLD_push_BN(build.get(), OSSL_PKEY_PARAM_RSA_EXPONENT2, dq.get()) ||
        !OSSL_PARAM_BLD_push_BN(build.get(), OSSL_PKEY_PARAM_RSA_COEFFICIENT1, qinv.get()))
        return nullptr;
    std::unique_ptr<OSSL_PARAM, decltype(&OSSL_PARAM_free)> params(OSSL_PARAM_BLD_to_param(build.get()),
                                                                    OSSL_PARAM_free);
    std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> make(EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr),
                                                                     EVP_PKEY_CTX_free);
    EVP_PKEY* key = nullptr;
    if (!params || !make || EVP_PKEY_fromdata_init(make.get()) != 1 ||
        EVP_PKEY_fromdata(make.get(), &key, EVP_PKEY_KEYPAIR, params.get()) != 1)
        return nullptr;
    return PkeyPtr(key);
}

// An encrypted PEM key is refused rather than prompting on a terminal.
int RefusePassphrase(char*, int, int, void*)
{
    return -1;
}

// The key name of a key file, or empty when `path` is not one.
std::string KeyNameOf(const std::filesystem::path& path)
{
    const std::string extension = path.extension().string();
    if (extension != ".markforge" && extension != ".pem") return "";
    return path.stem().string();
}

}  // namespace

bool KeyDirectory::Load(const std::string& folder, KeyStore& store, std::vector<std::string>& skipped,
                        std::string& error)
{
    std::error_code failure;
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(folder, failure))
        if (entry.is_regular_file()) files.push_back(entry.path());
    if (failure) {
        error = "cannot read the key folder " + folder + ": " + failure.message();
        return false;
    }
    std::sort(files.begin(), files.end());
    for (const auto& path : files) {
        const std::string name = KeyNameOf(path);
        if (name.empty()) continue;
        if (!IsValidKeyName(name)) {
            skipped.push_back(path.filename().string());
            continue;
        }
        PkeyPtr key = path.extension() == ".pem" ? ReadPemKey(path.string(), error)
                                                 : ReadMarkforgeKey(path.string(), error);
        if (!key) return false;
        auto agentKey = std::make_unique<AgentKey>(name, std::move(key));
        if (!agentKey->Prepare(error) || !store.Add(std::move(agentKey), error)) return false;
    }
    return true;
}

PkeyPtr KeyDirectory::ReadMarkforgeKey(const std::string& path, std::string& error)
{
    std::string text, reason;
    if (!ReadText(path, text, error)) return nullptr;
    lockbase::RsaKeyTexts texts;
    if (!lockbase::ParseRsaKeyFile(text, texts, reason) || !lockbase::CanonicalizeRsaKey(texts, reason)) {
        error = path + ": " + reason;
        return nullptr;
    }
    if (texts.d.empty()) {
        error = path + ": a public key cannot sign";
        return nullptr;
    }
    PkeyPtr key = MakeRsaKey(texts);
    if (!key) error = path + ": the numbers do not make an RSA private key";
    return key;
}

PkeyPtr KeyDirectory::ReadPemKey(const std::string& path, std::string& error)
{
    std::unique_ptr<BIO, decltype(&BIO_free)> in(BIO_new_file(path.c_str(), "r"), BIO_free);
    PkeyPtr key(in ? PEM_read_bio_PrivateKey(in.get(), nullptr, RefusePassphrase, nullptr) : nullptr);
    if (!key) {
        const unsigned long code = ERR_get_error();
        ERR_clear_error();
        char text[256] = "not a PEM private key";
        if (code) ERR_error_string_n(code, text, sizeof text);
        error = path + ": " + text;
    }
    return key;
}

}  // namespace agent
