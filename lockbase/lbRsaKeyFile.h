// The markforge key file's text layout: formatting and strict parsing.
// See docs/markforge-key-file.md for the layout a reader accepts.
#pragma once

#include <string>

namespace lockbase {

struct RsaKeyTexts {
    std::string n, e, p, q, d;  // p, q, d empty for a public key
};

// The file text for `key`.
std::string FormatRsaKeyFile(const RsaKeyTexts& key);

// Parses `text` into `key`; on failure returns false with a one-line reason.
bool ParseRsaKeyFile(const std::string& text, RsaKeyTexts& key, std::string& reason);

// Checks that the five texts are hexadecimal numbers that form an RSA key,
// and rewrites them in canonical form (upper case, whole bytes, no leading
// zero bytes). On failure returns false with a one-line reason.
bool CanonicalizeRsaKey(RsaKeyTexts& key, std::string& reason);

// The largest file and number a reader accepts.
constexpr size_t MAX_KEY_FILE_SIZE = 65536;
constexpr size_t MAX_KEY_HEX_DIGITS = 4096;  // a 16384-bit number

}  // namespace lockbase
