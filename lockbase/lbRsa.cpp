// lbRsa: key texts, markforge key files and PKCS#1 v1.5 signing over EVP.
#include "lbRsa.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "lbBytes.h"
#include "lbOpensslPtr.h"
#include "lbRsaKeyFile.h"
#include "lbRsaPrivateKey.h"
#include "lbSteps.h"

namespace {

using lockbase::PkeyCtxPtr;
using lockbase::PkeyPtr;

void Wipe(std::string& text)
{
    if (!text.empty()) OPENSSL_cleanse(&text[0], text.size());
    text.clear();
}

const char* DigestNameForLength(size_t length)
{
    switch (length) {
    case 32: return "SHA256";
    case 48: return "SHA384";
    case 64: return "SHA512";
    default: return nullptr;
    }
}

// Reads a whole file of at most `limit` bytes; false when it cannot be read
// or is larger.
bool ReadSmallFile(const std::string& path, size_t limit, std::string& text, std::string& reason)
{
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        reason = std::string("cannot be opened: ") + std::strerror(errno);
        return false;
    }
    text.clear();
    char chunk[4096];
    for (;;) {
        const ssize_t got = ::read(fd, chunk, sizeof chunk);
        if (got < 0) {
            if (errno == EINTR) continue;
            reason = std::string("cannot be read: ") + std::strerror(errno);
            ::close(fd);
            return false;
        }
        if (got == 0) break;
        if (text.size() + static_cast<size_t>(got) > limit) {
            reason = "larger than " + std::to_string(limit) + " bytes";
            ::close(fd);
            return false;
        }
        text.append(chunk, static_cast<size_t>(got));
    }
    ::close(fd);
    return true;
}

bool WriteWholeFile(const std::string& path, const std::string& text, mode_t mode, std::string& reason)
{
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    if (fd < 0) {
        reason = std::string("cannot be created: ") + std::strerror(errno);
        return false;
    }
    // An existing file keeps its mode on open; a private key must not stay
    // readable by others.
    if ((mode & 077) == 0 && ::fchmod(fd, mode) != 0) {
        reason = std::string("cannot be made private: ") + std::strerror(errno);
        ::close(fd);
        return false;
    }
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t put = ::write(fd, text.data() + done, text.size() - done);
        if (put < 0) {
            if (errno == EINTR) continue;
            reason = std::string("cannot be written: ") + std::strerror(errno);
            ::close(fd);
            return false;
        }
        done += static_cast<size_t>(put);
    }
    if (::close(fd) != 0) {
        reason = std::string("cannot be written: ") + std::strerror(errno);
        return false;
    }
    return true;
}

}  // namespace

lbRsa::~lbRsa()
{
    LB_DESTRUCTOR_CHECK("virtual lbRsa::~lbRsa()");
    Forget();
}

bool lbRsa::Fail(const char* function, int line, const std::string& message)
{
    addHistory(function, __FILE__, line);
    addMessage("%s", message.c_str());
    lbGlobal.errorFlag = true;
    return false;
}

void lbRsa::Forget()
{
    for (std::string* number : {&_key.n, &_key.e, &_key.p, &_key.q, &_key.d}) Wipe(*number);
}

void lbRsa::Adopt(lockbase::RsaKeyTexts&& key)
{
    Forget();
    _key = std::move(key);
}

bool lbRsa::MakeKeyFromExps(const std::string& n, const std::string& e, const std::string& p,
                            const std::string& q, const std::string& d)
{
    LB_FUNCTION("bool lbRsa::MakeKeyFromExps(const string&, const string&, const string&, const string&, const string&)");
    LB_CONTINUE_CHECK();
    lockbase::RsaKeyTexts key{n, e, p, q, d};
    std::string reason;
    if (!lockbase::CanonicalizeRsaKey(key, reason)) return Fail(lbFunction, __LINE__, "Not an RSA key: " + reason);
    Adopt(std::move(key));
    return true;
}

bool lbRsa::WriteKeyToDisk(const std::string& path)
{
    LB_FUNCTION("bool lbRsa::WriteKeyToDisk(const string&)");
    LB_CONTINUE_CHECK();
    if (_key.n.empty()) return Fail(lbFunction, __LINE__, "No key to write to " + path);
    std::string text = lockbase::FormatRsaKeyFile(_key);
    std::string reason;
    const bool written = WriteWholeFile(path, text, IsPrivate() ? 0600 : 0644, reason);
    Wipe(text);
    if (!written) return Fail(lbFunction, __LINE__, "Key file " + path + " " + reason);
    return true;
}

bool lbRsa::ReadKeyFromDisk(const std::string& path)
{
    LB_FUNCTION("bool lbRsa::ReadKeyFromDisk(const string&)");
    LB_CONTINUE_CHECK();
    std::string text, reason;
    if (!ReadSmallFile(path, lockbase::MAX_KEY_FILE_SIZE, text, reason))
        return Fail(lbFunction, __LINE__, "Key file " + path + " " + reason);
    lockbase::RsaKeyTexts key;
    const bool parsed = lockbase::ParseRsaKeyFile(text, key, reason);
    Wipe(text);
    if (!parsed) return Fail(lbFunction, __LINE__, "Key file " + path + " is not a markforge key file: " + reason);
    Adopt(std::move(key));
    return true;
}

bool lbRsa::GetExponents(std::string& n, std::string& e, std::string& p, std::string& q, std::string& d) const
{
    if (_key.n.empty()) return false;
    n = _key.n;
    e = _key.e;
    p = _key.p;
    q = _key.q;
    d = _key.d;
    return true;
}

bool lbRsa::Sign(const lbBytes& digest, lbBytes& signature)
{
    LB_FUNCTION("bool lbRsa::Sign(const lbBytes&, lbBytes&)");
    LB_CONTINUE_CHECK();
    if (!IsPrivate()) return Fail(lbFunction, __LINE__, "Signing needs a private key");
    const char* mdName = DigestNameForLength(digest.buffer.size());
    if (!mdName)
        return Fail(lbFunction, __LINE__,
                    "A digest of " + std::to_string(digest.buffer.size()) + " bytes is not SHA-256, SHA-384 or SHA-512");
    PkeyPtr key = lockbase::MakeRsaPrivateKey(_key);
    if (!key) return Fail(lbFunction, __LINE__, "The private key cannot be used for signing");
    PkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_pkey(nullptr, key.get(), nullptr));
    size_t length = 0;
    if (!ctx || EVP_PKEY_sign_init(ctx.get()) != 1 ||
        EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PADDING) != 1 ||
        EVP_PKEY_CTX_set_signature_md(ctx.get(), EVP_get_digestbyname(mdName)) != 1 ||
        EVP_PKEY_sign(ctx.get(), nullptr, &length, digest.buffer.data(), digest.buffer.size()) != 1)
        return Fail(lbFunction, __LINE__, "OpenSSL could not prepare the RSA signature");
    std::vector<uint8_t> out(length);
    if (EVP_PKEY_sign(ctx.get(), out.data(), &length, digest.buffer.data(), digest.buffer.size()) != 1)
        return Fail(lbFunction, __LINE__, "OpenSSL could not make the RSA signature");
    out.resize(length);
    signature.buffer = std::move(out);
    return true;
}

bool lbRsa::Close()
{
    Forget();
    return true;
}
