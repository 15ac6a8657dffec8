// An independent container writer for tests: it lays containers out field by
// field (containerBlock.h), signs them with OpenSSL directly under a key of
// its own, and writes the table of contents from its documented layout. It
// uses none of markforge's code, so that a test of what markforge accepts
// never trusts markforge to have made the input.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "containerBlock.h"

struct evp_pkey_st;

namespace testsupport {

using Bytes = std::vector<uint8_t>;
using Parts = std::vector<std::pair<std::string, Bytes>>;

// The name and layout of the table of contents, as docs/container-format.md
// gives them.
constexpr const char* TABLE_NAME = ".markforge-toc";

// A container in pieces: bytes before the block, the block's fields, and
// the payload; a test edits any of them and then writes the file.
struct WrittenContainer {
    Bytes prefix;
    testblocks::Block block;
    Bytes payload;

    Bytes FileBytes() const;
    void Write(const std::string& path) const;
};

class ContainerWriter {
public:
    // A 2048-bit RSA key of the writer's own; `hash` is "sha256", "sha384"
    // or "sha512".
    explicit ContainerWriter(std::string hash = "sha256", int bits = 2048);
    ~ContainerWriter();
    ContainerWriter(const ContainerWriter&) = delete;
    ContainerWriter& operator=(const ContainerWriter&) = delete;

    // Writes the public key as PEM to `path` and returns it.
    std::string WritePublicKey(const std::string& path) const;

    Bytes Digest(const Bytes& content) const;
    // A component or archive signature: PKCS#1 v1.5 over the digest of the
    // content's digest written as upper-case hex.
    Bytes Sign(const Bytes& content) const;

    // `parts` back to back after the block, each with its signature, the
    // archive signed over them all (or carrying the only one's signature).
    WrittenContainer Container(const Parts& parts) const;
    // The same with the table of contents as the last component.
    WrittenContainer ContainerWithTable(const Parts& parts) const;
    // The table of contents that lists `parts` laid out back to back.
    Bytes Table(const Parts& parts) const;

private:
    std::string _hash;
    evp_pkey_st* _key;
};

}  // namespace testsupport
