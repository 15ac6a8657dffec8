// The audit chain: hashes, the last hash of a file, and the check.
#include "auditChain.h"

#include <nlohmann/json.hpp>

#include <fstream>

#include "digestStream.h"
#include "hexText.h"
#include "lbHashId.h"

namespace agent {
namespace {

// How much of a file's end is read to find its last line: far more than
// any audit line.
constexpr std::streamoff TAIL_BYTES = 256 * 1024;

}  // namespace

std::string AuditChain::HashOf(const std::string& line)
{
    return markforge::LowerHex(markforge::digestStream::Of(
        lbHashId::SHA256, reinterpret_cast<const uint8_t*>(line.data()), line.size()));
}

std::string AuditChain::LastHashOf(const std::string& path, bool& cut)
{
    cut = false;
    std::ifstream in(path, std::ios::binary | std::ios::ate);
    if (!in) return "";
    const std::streamoff size = in.tellg();
    if (size <= 0) return "";
    const std::streamoff start = size > TAIL_BYTES ? size - TAIL_BYTES : 0;
    in.seekg(start);
    std::string tail(static_cast<size_t>(size - start), '\0');
    in.read(&tail[0], static_cast<std::streamsize>(tail.size()));
    tail.resize(static_cast<size_t>(in.gcount()));
    if (tail.empty()) return "";
    cut = tail.back() != '\n';
    if (!cut) tail.pop_back();
    const size_t newline = tail.rfind('\n');
    return HashOf(newline == std::string::npos ? tail : tail.substr(newline + 1));
}

bool AuditChainCheck::Add(const std::string& line)
{
    ++_lines;
    ++_lineInFile;
    const nlohmann::json parsed = nlohmann::json::parse(line, nullptr, false);
    if (parsed.is_discarded() || !parsed.is_object() || !parsed.contains("prev")) {
        _failure = "it is not a JSON object with a \"prev\" member";
        return false;
    }
    const nlohmann::json& prev = parsed["prev"];
    if (!prev.is_null() && !prev.is_string()) {
        _failure = "its \"prev\" is neither a hash nor null";
        return false;
    }
    // Only the very first line read may start a chain, or name a hash
    // that is not there to check.
    const bool first = _lines == 1;
    if (!first && (prev.is_null() || prev.get<std::string>() != _last)) {
        _failure = _lineInFile == 1 ? "its \"prev\" is not the hash of the last line of the file before"
                                    : "its \"prev\" is not the SHA-256 of the line before it";
        return false;
    }
    const auto text = [&parsed](const char* key) {
        const auto found = parsed.find(key);
        return found != parsed.end() && found->is_string() ? found->get<std::string>() : std::string();
    };
    if (text("event") == "request" && text("result") == "signed") ++_signatures;
    _last = AuditChain::HashOf(line);
    return true;
}

}  // namespace agent
