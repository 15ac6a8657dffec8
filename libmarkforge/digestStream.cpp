// markforge::digestStream: SHA-2 over OpenSSL's EVP digests.
#include "digestStream.h"

#include <openssl/evp.h>
#include <unistd.h>

#include <cerrno>

#include <stdexcept>

#include "hexString.h"
#include "lbHashId.h"

namespace markforge {
namespace {

constexpr uint32_t SHA256_ID = lbHashId::SHA256;
constexpr uint32_t SHA512_ID = lbHashId::SHA512;
constexpr uint32_t SHA384_ID = lbHashId::SHA384;


}  // namespace

digestStream::digestStream(uint32_t hashId) : _context(EVP_MD_CTX_new(), EVP_MD_CTX_free)
{
    // Failing to set up a built-in digest means OpenSSL itself is unusable.
    if (!_context || EVP_DigestInit_ex(_context.get(), AlgorithmOf(hashId), nullptr) != 1)
        throw std::runtime_error("OpenSSL cannot set up a SHA-2 digest");
}

digestStream::~digestStream() = default;

void digestStream::Update(const uint8_t* data, size_t length)
{
    if (length > 0 && EVP_DigestUpdate(_context.get(), data, length) != 1)
        throw std::runtime_error("OpenSSL digest update failed");
}

std::vector<uint8_t> digestStream::Final()
{
    std::vector<uint8_t> out(EVP_MAX_MD_SIZE);
    unsigned length = 0;
    if (EVP_DigestFinal_ex(_context.get(), out.data(), &length) != 1)
        throw std::runtime_error("OpenSSL digest final failed");
    out.resize(length);
    return out;
}

size_t digestStream::LengthOf(uint32_t hashId)
{
    return lbHashId::DigestLength(hashId);
}

uint32_t digestStream::KeptId(uint32_t hashId)
{
    return lbHashId::Kept(hashId);
}

uint32_t digestStream::IdForLength(size_t length)
{
    return lbHashId::ForDigestLength(length);
}

const EVP_MD* digestStream::AlgorithmOf(uint32_t hashId)
{
    switch (KeptId(hashId)) {
    case SHA512_ID: return EVP_sha512();
    case SHA384_ID: return EVP_sha384();
    default: return EVP_sha256();
    }
}

const char* digestStream::NameOf(uint32_t hashId)
{
    switch (KeptId(hashId)) {
    case SHA512_ID: return "SHA-512";
    case SHA384_ID: return "SHA-384";
    default: return "SHA-256";
    }
}

const char* digestStream::WordOf(uint32_t hashId)
{
    switch (KeptId(hashId)) {
    case SHA512_ID: return "sha512";
    case SHA384_ID: return "sha384";
    default: return "sha256";
    }
}

uint32_t digestStream::IdOfWord(const std::string& word)
{
    for (uint32_t id : {SHA256_ID, SHA384_ID, SHA512_ID})
        if (word == WordOf(id)) return id;
    return SHA256_ID;
}

std::vector<uint8_t> digestStream::Of(uint32_t hashId, const uint8_t* data, size_t length)
{
    digestStream digest(hashId);
    digest.Update(data, length);
    return digest.Final();
}

bool digestStream::OfFile(uint32_t hashId, int fd, std::vector<uint8_t>& digest)
{
    digestStream stream(hashId);
    std::vector<uint8_t> block(1 << 20);
    for (off_t at = 0;;) {
        const ssize_t got = pread(fd, block.data(), block.size(), at);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return false;
        if (got == 0) break;
        stream.Update(block.data(), static_cast<size_t>(got));
        at += got;
    }
    digest = stream.Final();
    return true;
}

std::vector<uint8_t> SignedDigestOf(uint32_t hashId, const std::vector<uint8_t>& contentDigest)
{
    // hexString writes upper-case digits, the form the signer hashes.
    const std::string text = lockbase::hexString(contentDigest).text;
    return digestStream::Of(hashId, reinterpret_cast<const uint8_t*>(text.data()), text.size());
}

}  // namespace markforge
