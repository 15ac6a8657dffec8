// Signing and checking with one key through OpenSSL's EVP interface.
#include "agentKey.h"

#include <openssl/err.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <atomic>
#include <map>

#include "digestStream.h"
#include "hexText.h"

namespace agent {
namespace {

using lockbase::PkeyCtxPtr;

// A context for `key` set to PKCS#1 v1.5 with `md`'s DigestInfo. The legacy
// constructor is used so that a token's key keeps its own method.
PkeyCtxPtr SignatureContext(EVP_PKEY* key, const EVP_MD* md, bool forSigning)
{
    PkeyCtxPtr ctx(EVP_PKEY_CTX_new(key, nullptr));
    if (!ctx) return nullptr;
    const int init = forSigning ? EVP_PKEY_sign_init(ctx.get()) : EVP_PKEY_verify_init(ctx.get());
    if (init != 1 || EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING) != 1 ||
        EVP_PKEY_CTX_set_signature_md(ctx.get(), md) != 1)
        return nullptr;
    return ctx;
}

// A thread's own contexts for one key, one per digest and direction, made
// on first use. A software key is copied for each thread first: a private
// key shared between threads makes OpenSSL take a lock and a slower blinding
// path on every signature.
struct ThreadContexts {
    PkeyPtr ownKey;
    std::map<std::pair<const EVP_MD*, bool>, PkeyCtxPtr> contexts;
};

std::atomic<unsigned long> nextKeyId{1};

EVP_PKEY_CTX* CachedContext(unsigned long keyId, EVP_PKEY* key, bool copyKey, const EVP_MD* md, bool forSigning)
{
    thread_local std::map<std::pair<unsigned long, bool>, ThreadContexts> cache;
    ThreadContexts& mine = cache[{keyId, copyKey}];
    if (copyKey && !mine.ownKey) mine.ownKey.reset(EVP_PKEY_dup(key));
    PkeyCtxPtr& ctx = mine.contexts[{md, forSigning}];
    if (!ctx) ctx = SignatureContext(copyKey ? mine.ownKey.get() : key, md, forSigning);
    return ctx.get();
}

bool SignWith(EVP_PKEY_CTX* ctx, const std::vector<uint8_t>& digest, std::vector<uint8_t>& signature)
{
    size_t length = 0;
    if (!ctx || EVP_PKEY_sign(ctx, nullptr, &length, digest.data(), digest.size()) != 1) return false;
    signature.resize(length);
    if (EVP_PKEY_sign(ctx, signature.data(), &length, digest.data(), digest.size()) != 1) return false;
    signature.resize(length);
    return true;
}

std::string OpensslError()
{
    const unsigned long code = ERR_get_error();
    ERR_clear_error();
    if (code == 0) return "no detail from OpenSSL";
    char text[256];
    ERR_error_string_n(code, text, sizeof text);
    return text;
}

}  // namespace

const EVP_MD* DigestForLength(size_t length)
{
    const uint32_t hashId = markforge::digestStream::IdForLength(length);
    return hashId ? markforge::digestStream::AlgorithmOf(hashId) : nullptr;
}

AgentKey::AgentKey(std::string name, PkeyPtr privateKey, std::shared_ptr<TokenGuard> token)
    : _id(nextKeyId++), _name(std::move(name)), _private(std::move(privateKey)), _token(std::move(token))
{
}

bool AgentKey::Prepare(std::string& error)
{
    if (!_private || EVP_PKEY_get_base_id(_private.get()) != EVP_PKEY_RSA) {
        error = "key " + _name + " is not an RSA key";
        return false;
    }
    // A round trip through DER gives a plain software public key, whatever
    // holds the private half.
    unsigned char* der = nullptr;
    const int length = i2d_PUBKEY(_private.get(), &der);
    if (length <= 0) {
        error = "key " + _name + ": no public half: " + OpensslError();
        return false;
    }
    _publicDer.assign(der, der + length);
    OPENSSL_free(der);
    const unsigned char* cursor = _publicDer.data();
    _public.reset(d2i_PUBKEY(nullptr, &cursor, length));
    if (!_public) {
        error = "key " + _name + ": unreadable public half: " + OpensslError();
        return false;
    }
    _fingerprint = "SHA256:" + markforge::LowerHex(markforge::digestStream::Of(3, _publicDer.data(), _publicDer.size()));
    return true;
}

bool AgentKey::Sign(const std::vector<uint8_t>& digest, std::vector<uint8_t>& signature, std::string& error) const
{
    const EVP_MD* md = DigestForLength(digest.size());
    if (!md) {
        error = "a digest of " + std::to_string(digest.size()) + " bytes";
        return false;
    }
    if (_token) {
        if (!SignWithToken(md, digest, signature, error)) return false;
    } else if (!SignUnchecked(md, digest, signature)) {
        error = "signing failed: " + OpensslError();
        return false;
    }
    if (!Verifies(md, digest, signature)) {
        signature.clear();
        error = "the signature does not verify with the public key";
        return false;
    }
    return true;
}

bool AgentKey::SignUnchecked(const EVP_MD* md, const std::vector<uint8_t>& digest,
                             std::vector<uint8_t>& signature) const
{
    return SignWith(CachedContext(_id, _private.get(), true, md, true), digest, signature);
}

// Signatures through one module run side by side: libp11 hands each thread
// a session of its own, logged in once. The context is made per signature,
// since the module's recovery may replace the key between two of them.
bool AgentKey::SignWithToken(const EVP_MD* md, const std::vector<uint8_t>& digest, std::vector<uint8_t>& signature,
                             std::string& error) const
{
    std::shared_lock<std::shared_mutex> lock(_token->Mutex());
    if (!_token->Up()) {
        error = "token unavailable";
        return false;
    }
    const PkeyCtxPtr ctx = SignatureContext(_private.get(), md, true);
    if (SignWith(ctx.get(), digest, signature)) return true;
    error = "token error: " + OpensslError();
    lock.unlock();
    _token->Lost(error);
    return false;
}

bool AgentKey::Verifies(const EVP_MD* md, const std::vector<uint8_t>& digest,
                        const std::vector<uint8_t>& signature) const
{
    EVP_PKEY_CTX* ctx = CachedContext(_id, _public.get(), false, md, false);
    const bool good =
        ctx && EVP_PKEY_verify(ctx, signature.data(), signature.size(), digest.data(), digest.size()) == 1;
    ERR_clear_error();
    return good;
}

}  // namespace agent
