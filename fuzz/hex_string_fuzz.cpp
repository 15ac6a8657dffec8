// Fuzz target: hexadecimal text to bytes, and the round trip from bytes to
// text and back.
#include <cctype>
#include <cstdlib>
#include <string>
#include <vector>

#include "hexString.h"

using lockbase::hexString;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    const hexString parsed(text);
    if (parsed.valid && parsed.bytes.size() != text.size() / 2) std::abort();
    if (!parsed.valid && (!parsed.text.empty() || !parsed.bytes.empty())) std::abort();
    // Without spaces every pair is two digits, so formatting gives the text back in upper case.
    if (parsed.valid && text.find(' ') == std::string::npos) {
        std::string upper = text;
        for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        if (hexString(parsed.bytes).text != upper) std::abort();
    }

    const std::vector<uint8_t> bytes(data, data + size);
    const hexString formatted(bytes);
    const hexString reparsed(formatted.text);
    if (!reparsed.valid || reparsed.bytes != bytes) std::abort();
    return 0;
}
