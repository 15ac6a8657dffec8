// markforge::keyring: the public keys of one folder, to name the key behind
// a signature.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "publicKey.h"

namespace markforge {

struct keyringEntry {
    std::string file;  // the file name inside the folder
    publicKey key;
    std::vector<uint8_t> fingerprint;  // SHA-256 of the DER SubjectPublicKeyInfo
};

class keyring {
public:
    // Loads every regular file of `folder` that holds a key (PEM, markforge
    // key file or raw modulus), in file-name order; other files are listed
    // in Skipped(). False, with a reason, when the folder cannot be read.
    bool Load(const std::string& folder, std::string& reason);

    // The first key whose PKCS#1 v1.5 signature `signature` is, or nullptr.
    const keyringEntry* SignerOf(const std::vector<uint8_t>& signature) const;

    const std::vector<keyringEntry>& Entries() const { return _entries; }
    const std::vector<std::string>& Skipped() const { return _skipped; }

private:
    std::vector<keyringEntry> _entries;
    std::vector<std::string> _skipped;
};

}  // namespace markforge
