// markforge::publicKey: an RSA public key read from any of the tool set's key
// files, to check PKCS#1 v1.5 signatures with. Independent of the
// framework's error trail, so that it may run on any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

struct evp_pkey_st;

namespace markforge {

class publicKey {
public:
    publicKey();
    ~publicKey();
    publicKey(publicKey&&) noexcept;
    publicKey& operator=(publicKey&&) noexcept;

    // Reads a PEM public or private RSA key, a markforge key file (public or
    // private) or a raw modulus file (exponent 65537). False, with a
    // one-line reason, for anything else.
    bool Load(const std::string& path, std::string& reason);
    // The same from the file's bytes.
    bool LoadBytes(const std::string& bytes, std::string& reason);

    bool Loaded() const { return _key != nullptr; }
    // The modulus size in bytes: the length of every signature by this key.
    size_t ModulusBytes() const;

    // True when `signature` is exactly ModulusBytes() long, the one length a
    // signature by this key has.
    bool HasModulusLength(const std::vector<uint8_t>& signature) const;
    // True when `signature` is this key's PKCS#1 v1.5 signature over
    // `digest` (32, 48 or 64 bytes, with the DigestInfo of SHA-256, SHA-384
    // or SHA-512). A signature of any other length than the modulus is not.
    bool Verifies(const std::vector<uint8_t>& signature, const std::vector<uint8_t>& digest) const;
    // The digest a PKCS#1 v1.5 signature by this key carries, with its
    // framework hash number (3, 5 or 4). False when the signature is not
    // one of this key's over a SHA-2 DigestInfo.
    bool Recover(const std::vector<uint8_t>& signature, std::vector<uint8_t>& digest, uint32_t& hashId) const;

    // SHA-256 of the key's DER SubjectPublicKeyInfo.
    std::vector<uint8_t> Fingerprint() const;
    // The key as a PEM "PUBLIC KEY" block.
    std::string PemText() const;

    // Takes ownership of an RSA EVP key (public or private).
    void Adopt(evp_pkey_st* key);

private:
    bool LoadPem(const std::string& bytes, std::string& reason);
    bool LoadKeyFile(const std::string& bytes, std::string& reason);
    bool LoadRawModulus(const std::string& bytes, std::string& reason);

    evp_pkey_st* _key;
};

}  // namespace markforge
