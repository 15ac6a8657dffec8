// RSA test keys made by the openssl command-line tool, in the files the
// signing tests need: the PEM private and public halves and a markforge key
// file written through lbRsa from the key's numbers.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace testsupport {

struct TestRsaKey {
    std::string privatePem;  // PKCS#8 private key, as openssl genpkey wrote it
    std::string publicPem;   // SubjectPublicKeyInfo
    std::string keyFile;     // markforge key file of the private key
    std::string n, e, d, p, q;  // the numbers as upper-case hex text
};

// Generates a `bits`-bit RSA key with openssl into `folder` (file names start
// with `stem`). On failure returns false with the reason in `error`.
bool MakeRsaKey(const std::string& folder, const std::string& stem, int bits, TestRsaKey& key,
                std::string& error);

// True when openssl verifies `signature` (PKCS#1 v1.5) over the finished
// `digest` with the public key and the named digest ("sha256", "sha384",
// "sha512"); the two are written to files in `folder` first. `detail` gets
// openssl's output.
bool OpensslVerifies(const std::string& folder, const std::string& publicPem, const std::string& digestName,
                     const std::vector<uint8_t>& digest, const std::vector<uint8_t>& signature,
                     std::string& detail);

// The digest of `bytes` in lower-case hex, as `openssl dgst -<name>` gives it.
std::string OpensslDigestHex(const std::string& folder, const std::string& digestName, const std::string& bytes);

// Lower-case hex text to bytes (test inputs only: no validation).
std::vector<uint8_t> FromHex(const std::string& hex);

}  // namespace testsupport
