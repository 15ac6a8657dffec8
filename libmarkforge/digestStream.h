// markforge::digestStream: a SHA-2 digest fed in pieces, independent of the
// framework's error trail, so that it may run on any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

struct evp_md_ctx_st;
struct evp_md_st;

namespace markforge {

class digestStream {
public:
    // `hashId` is the framework's number: 4 SHA-512, 5 SHA-384, any other
    // SHA-256 (as the archive builder maps it).
    explicit digestStream(uint32_t hashId);
    ~digestStream();
    digestStream(const digestStream&) = delete;
    digestStream& operator=(const digestStream&) = delete;

    void Update(const uint8_t* data, size_t length);
    // The digest of everything fed since construction; the stream is then
    // spent.
    std::vector<uint8_t> Final();

    // The digest length in bytes of `hashId` (32, 48 or 64).
    static size_t LengthOf(uint32_t hashId);
    // The framework number kept for `hashId`: 3, 4 or 5.
    static uint32_t KeptId(uint32_t hashId);
    // The number for a digest of `length` bytes, or 0 for other lengths.
    static uint32_t IdForLength(size_t length);
    // OpenSSL's digest for `hashId` (an EVP_MD).
    static const evp_md_st* AlgorithmOf(uint32_t hashId);
    // "SHA-256", "SHA-384" or "SHA-512".
    static const char* NameOf(uint32_t hashId);
    // The command-line word: "sha256", "sha384" or "sha512".
    static const char* WordOf(uint32_t hashId);
    // The number for a command-line word; any other word means SHA-256.
    static uint32_t IdOfWord(const std::string& word);

    // The one-shot digest of `data`.
    static std::vector<uint8_t> Of(uint32_t hashId, const uint8_t* data, size_t length);
    // The digest of everything in the open file `fd`, from its first byte
    // to its end. False, with errno set, when it cannot be read.
    static bool OfFile(uint32_t hashId, int fd, std::vector<uint8_t>& digest);

private:
    std::unique_ptr<evp_md_ctx_st, void (*)(evp_md_ctx_st*)> _context;
};

// What a component or archive signature signs: the digest of the content
// written as upper-case hex text, hashed once more with the same SHA-2.
std::vector<uint8_t> SignedDigestOf(uint32_t hashId, const std::vector<uint8_t>& contentDigest);

}  // namespace markforge
