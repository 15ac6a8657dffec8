// Fuzz target: an audit log's lines through the chain check of
// `markforge-agent --verify-audit`. Property: a log it accepts is still
// accepted line by line after it, and its counts never exceed its lines.
#include <cstdlib>
#include <string>

#include "auditChain.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    agent::AuditChainCheck chain;
    size_t start = 0;
    bool holds = true;
    while (holds && start < text.size()) {
        const size_t end = text.find('\n', start);
        const std::string line = text.substr(start, end == std::string::npos ? std::string::npos : end - start);
        holds = chain.Add(line);
        start = end == std::string::npos ? text.size() : end + 1;
    }
    if (chain.Signatures() > chain.Lines()) std::abort();
    // Appending a line that names the last hash always keeps the chain.
    if (holds && chain.Lines() > 0 && !chain.Add("{\"prev\":\"" + chain.LastHash() + "\"}")) std::abort();
    return 0;
}
