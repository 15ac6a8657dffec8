// The independent writer: OpenSSL signatures and containerBlock.h layouts.
#include "containerWriter.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <cstdio>
#include <stdexcept>

#include "testSupport.h"

namespace testsupport {
namespace {

const EVP_MD* Md(const std::string& hash)
{
    if (hash == "sha384") return EVP_sha384();
    if (hash == "sha512") return EVP_sha512();
    return EVP_sha256();
}

Bytes DigestOf(const std::string& hash, const uint8_t* data, size_t length)
{
    Bytes out(EVP_MAX_MD_SIZE);
    unsigned size = 0;
    if (EVP_Digest(data, length, out.data(), &size, Md(hash), nullptr) != 1)
        throw std::runtime_error("EVP_Digest failed");
    out.resize(size);
    return out;
}

std::string UpperHex(const Bytes& bytes)
{
    static const char DIGITS[] = "0123456789ABCDEF";
    std::string text;
    for (uint8_t b : bytes) {
        text += DIGITS[b >> 4];
        text += DIGITS[b & 15];
    }
    return text;
}

}  // namespace

Bytes WrittenContainer::FileBytes() const
{
    Bytes file = prefix;
    const Bytes header = testblocks::BlockBytes(block);
    file.insert(file.end(), header.begin(), header.end());
    file.insert(file.end(), payload.begin(), payload.end());
    return file;
}

void WrittenContainer::Write(const std::string& path) const
{
    WriteBytes(path, FileBytes());
}

ContainerWriter::ContainerWriter(std::string hash, int bits) : _hash(std::move(hash)), _key(nullptr)
{
    _key = EVP_RSA_gen(static_cast<unsigned>(bits));
    if (!_key) throw std::runtime_error("EVP_RSA_gen failed");
}

ContainerWriter::~ContainerWriter()
{
    EVP_PKEY_free(_key);
}

std::string ContainerWriter::WritePublicKey(const std::string& path) const
{
    FILE* file = std::fopen(path.c_str(), "w");
    if (!file || PEM_write_PUBKEY(file, _key) != 1) throw std::runtime_error("cannot write " + path);
    std::fclose(file);
    return path;
}

Bytes ContainerWriter::Digest(const Bytes& content) const
{
    return DigestOf(_hash, content.data(), content.size());
}

Bytes ContainerWriter::Sign(const Bytes& content) const
{
    const std::string text = UpperHex(Digest(content));
    const Bytes signedDigest = DigestOf(_hash, reinterpret_cast<const uint8_t*>(text.data()), text.size());
    EVP_PKEY_CTX* context = EVP_PKEY_CTX_new(_key, nullptr);
    size_t length = 0;
    Bytes signature;
    if (context && EVP_PKEY_sign_init(context) == 1 &&
        EVP_PKEY_CTX_set_rsa_padding(context, RSA_PKCS1_PADDING) == 1 &&
        EVP_PKEY_CTX_set_signature_md(context, Md(_hash)) == 1 &&
        EVP_PKEY_sign(context, nullptr, &length, signedDigest.data(), signedDigest.size()) == 1) {
        signature.resize(length);
        if (EVP_PKEY_sign(context, signature.data(), &length, signedDigest.data(), signedDigest.size()) != 1)
            signature.clear();
        signature.resize(length);
    }
    EVP_PKEY_CTX_free(context);
    if (signature.empty()) throw std::runtime_error("EVP_PKEY_sign failed");
    return signature;
}

WrittenContainer ContainerWriter::Container(const Parts& parts) const
{
    WrittenContainer out;
    out.block.digestLength = uint32_t(Digest({}).size());
    for (const auto& part : parts) {
        testblocks::Record record;
        record.size = uint32_t(part.second.size());
        record.offset = uint32_t(out.payload.size());
        record.name = part.first;
        record.signature = Sign(part.second);
        out.block.records.push_back(record);
        out.payload.insert(out.payload.end(), part.second.begin(), part.second.end());
    }
    out.block.signature = parts.size() == 1 ? out.block.records[0].signature : Sign(out.payload);
    return out;
}

WrittenContainer ContainerWriter::ContainerWithTable(const Parts& parts) const
{
    Parts all = parts;
    all.push_back({TABLE_NAME, Table(parts)});
    return Container(all);
}

Bytes ContainerWriter::Table(const Parts& parts) const
{
    // label "markforge-table" NUL, version 1, count; then per component its
    // index, 16-byte name field, offset, size, digest length and digest.
    const std::string label("markforge-table\0", 16);
    Bytes out(label.begin(), label.end());
    testblocks::PutBe32(out, 1);
    testblocks::PutBe32(out, uint32_t(parts.size()));
    uint32_t offset = 0;
    for (size_t i = 0; i < parts.size(); ++i) {
        testblocks::PutBe32(out, uint32_t(i));
        Bytes name(16, 0);
        for (size_t c = 0; c < parts[i].first.size() && c < 15; ++c) name[c] = uint8_t(parts[i].first[c]);
        out.insert(out.end(), name.begin(), name.end());
        testblocks::PutBe32(out, offset);
        testblocks::PutBe32(out, uint32_t(parts[i].second.size()));
        const Bytes digest = Digest(parts[i].second);
        testblocks::PutBe32(out, uint32_t(digest.size()));
        out.insert(out.end(), digest.begin(), digest.end());
        offset += uint32_t(parts[i].second.size());
    }
    return out;
}

}  // namespace testsupport
