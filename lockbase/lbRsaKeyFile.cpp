// The markforge key file's text layout.
#include "lbRsaKeyFile.h"

#include <openssl/bn.h>
#include <openssl/crypto.h>

#include <memory>
#include <vector>

namespace lockbase {
namespace {

constexpr const char* MAGIC_LINE = "markforge-rsa-key 1";

using BnPtr = std::unique_ptr<BIGNUM, void (*)(BIGNUM*)>;
BnPtr NewBn(BIGNUM* bn) { return BnPtr(bn, BN_clear_free); }

bool IsHexDigit(char c)
{
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

bool IsHexNumber(const std::string& text)
{
    if (text.empty() || text.size() > MAX_KEY_HEX_DIGITS) return false;
    for (char c : text)
        if (!IsHexDigit(c)) return false;
    return true;
}

// Parses a hexadecimal text already known to be well formed.
BnPtr ParseHex(const std::string& text)
{
    BIGNUM* bn = nullptr;
    if (!BN_hex2bn(&bn, text.c_str())) return NewBn(nullptr);
    return NewBn(bn);
}

std::string ToHex(const BIGNUM* bn)
{
    char* hex = BN_bn2hex(bn);
    if (!hex) return std::string();
    std::string text(hex);
    OPENSSL_free(hex);
    return text;
}

// Splits on '\n', dropping a '\r' before it. A final line end is optional.
std::vector<std::string> SplitLines(const std::string& text)
{
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        std::string line = text.substr(start, end - start);
        if (!line.empty() && line.back() == '\r') line.pop_back();
        lines.push_back(std::move(line));
        start = end + 1;
    }
    return lines;
}

std::string LineReason(size_t index, const std::string& what)
{
    return "line " + std::to_string(index + 1) + ": " + what;
}

// Reads "<name>: <hex>" from line `index`.
bool ReadNumberLine(const std::vector<std::string>& lines, size_t index, const char* name,
                    std::string& value, std::string& reason)
{
    const std::string prefix = std::string(name) + ": ";
    if (index >= lines.size()) {
        reason = LineReason(index, std::string("missing, expected \"") + prefix + "\" and a number");
        return false;
    }
    const std::string& line = lines[index];
    if (line.compare(0, prefix.size(), prefix) != 0) {
        reason = LineReason(index, std::string("expected \"") + prefix + "\" and a number");
        return false;
    }
    value = line.substr(prefix.size());
    if (!IsHexNumber(value)) {
        reason = LineReason(index, std::string("the value of ") + name + " is not a hexadecimal number of 1 to " +
                                       std::to_string(MAX_KEY_HEX_DIGITS) + " digits");
        return false;
    }
    return true;
}

}  // namespace

std::string FormatRsaKeyFile(const RsaKeyTexts& key)
{
    const bool isPrivate = !key.d.empty();
    std::string text = std::string(MAGIC_LINE) + "\n";
    text += isPrivate ? "kind: private\n" : "kind: public\n";
    text += "n: " + key.n + "\n";
    text += "e: " + key.e + "\n";
    if (isPrivate) {
        text += "p: " + key.p + "\n";
        text += "q: " + key.q + "\n";
        text += "d: " + key.d + "\n";
    }
    text += "end\n";
    return text;
}

bool ParseRsaKeyFile(const std::string& text, RsaKeyTexts& key, std::string& reason)
{
    if (text.size() > MAX_KEY_FILE_SIZE) {
        reason = "larger than " + std::to_string(MAX_KEY_FILE_SIZE) + " bytes";
        return false;
    }
    if (text.find('\0') != std::string::npos) {
        reason = "holds a NUL byte";
        return false;
    }
    const std::vector<std::string> lines = SplitLines(text);
    if (lines.empty() || lines[0] != MAGIC_LINE) {
        reason = LineReason(0, std::string("expected \"") + MAGIC_LINE + "\"");
        return false;
    }
    if (lines.size() < 2 || (lines[1] != "kind: public" && lines[1] != "kind: private")) {
        reason = LineReason(1, "expected \"kind: public\" or \"kind: private\"");
        return false;
    }
    const bool isPrivate = lines[1] == "kind: private";
    RsaKeyTexts parsed;
    size_t index = 2;
    if (!ReadNumberLine(lines, index++, "n", parsed.n, reason)) return false;
    if (!ReadNumberLine(lines, index++, "e", parsed.e, reason)) return false;
    if (isPrivate) {
        if (!ReadNumberLine(lines, index++, "p", parsed.p, reason)) return false;
        if (!ReadNumberLine(lines, index++, "q", parsed.q, reason)) return false;
        if (!ReadNumberLine(lines, index++, "d", parsed.d, reason)) return false;
    }
    if (index >= lines.size() || lines[index] != "end") {
        reason = LineReason(index, "expected \"end\"");
        return false;
    }
    if (index + 1 != lines.size()) {
        reason = LineReason(index + 1, "unexpected text after \"end\"");
        return false;
    }
    if (!CanonicalizeRsaKey(parsed, reason)) return false;
    key = std::move(parsed);
    return true;
}

bool CanonicalizeRsaKey(RsaKeyTexts& key, std::string& reason)
{
    const bool anyPrivate = !key.p.empty() || !key.q.empty() || !key.d.empty();
    const bool allPrivate = !key.p.empty() && !key.q.empty() && !key.d.empty();
    if (key.n.empty()) {
        reason = "the modulus n is empty";
        return false;
    }
    if (key.e.empty()) {
        reason = "the public exponent e is empty";
        return false;
    }
    if (anyPrivate && !allPrivate) {
        reason = "a private key needs all of p, q and d";
        return false;
    }
    std::string* texts[] = {&key.n, &key.e, &key.p, &key.q, &key.d};
    const char* names[] = {"n", "e", "p", "q", "d"};
    std::vector<BnPtr> numbers;
    for (size_t i = 0; i < 5; ++i) {
        if (texts[i]->empty()) break;
        if (!IsHexNumber(*texts[i])) {
            reason = std::string("the value of ") + names[i] + " is not a hexadecimal number of 1 to " +
                     std::to_string(MAX_KEY_HEX_DIGITS) + " digits";
            return false;
        }
        numbers.push_back(ParseHex(*texts[i]));
        if (!numbers.back()) {
            reason = "out of memory";
            return false;
        }
    }
    if (BN_is_zero(numbers[0].get()) || BN_is_one(numbers[0].get())) {
        reason = "the modulus n must be greater than 1";
        return false;
    }
    if (!BN_is_odd(numbers[1].get()) || BN_is_one(numbers[1].get())) {
        reason = "the public exponent e must be odd and greater than 1";
        return false;
    }
    if (allPrivate) {
        std::unique_ptr<BN_CTX, void (*)(BN_CTX*)> ctx(BN_CTX_new(), BN_CTX_free);
        BnPtr product = NewBn(BN_new());
        if (!ctx || !product || !BN_mul(product.get(), numbers[2].get(), numbers[3].get(), ctx.get())) {
            reason = "out of memory";
            return false;
        }
        if (BN_cmp(product.get(), numbers[0].get()) != 0 || BN_is_one(numbers[2].get()) ||
            BN_is_one(numbers[3].get())) {
            reason = "p times q is not the modulus n";
            return false;
        }
        if (BN_is_zero(numbers[4].get())) {
            reason = "the private exponent d is zero";
            return false;
        }
    }
    for (size_t i = 0; i < numbers.size(); ++i) {
        *texts[i] = ToHex(numbers[i].get());
        if (texts[i]->empty()) {
            reason = "out of memory";
            return false;
        }
    }
    return true;
}

}  // namespace lockbase
