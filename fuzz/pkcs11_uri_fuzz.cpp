// Fuzz target: a --pkcs11-uri value, through p11-kit's parser and the
// agent's own checks. A URI the agent accepts names a valid key name and
// matches the key it names; the exact URI made for a token and key parses
// again and matches both.
#include <cstdlib>
#include <string>

#include "pkcs11Uri.h"
#include "signRequest.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    agent::Pkcs11Uri uri;
    std::string error;
    if (!uri.Parse(text, error)) {
        if (error.empty()) std::abort();
        return 0;
    }
    if (!agent::IsValidKeyName(uri.Object())) std::abort();
    if (!uri.PinFile().empty() && uri.PinFile()[0] != '/') std::abort();
    agent::TokenFacts token;
    token.label = "tok";
    token.serial = "01";
    const agent::KeyFacts key{uri.Object(), {0x01, 0x02}};
    agent::Pkcs11Uri exact;
    if (!exact.Parse(agent::Pkcs11Uri::Identify(token, key), error) || !exact.Matches(token) || !exact.Matches(key) ||
        exact.Object() != uri.Object())
        std::abort();
    return 0;
}
