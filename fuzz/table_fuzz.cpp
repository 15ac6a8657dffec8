// Fuzz target: a table of contents' bytes through the strict decoder.
// Property: whatever it accepts is canonical, so encoding the entries again
// gives back exactly the same bytes.
#include <cstdlib>

#include "tableOfContents.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::vector<uint8_t> bytes(data, data + size);
    std::vector<markforge::tableEntry> entries;
    std::string reason;
    if (markforge::tableOfContents::Decode(bytes, entries, reason) &&
        markforge::tableOfContents::Encode(entries) != bytes)
        std::abort();
    return 0;
}
