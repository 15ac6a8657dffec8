// Fuzz target: the signing agent's request parser, on the whole input and on
// every prefix length the reading loop may see, with its invariants checked.
#include <cstdlib>

#include "signRequest.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const agent::ParseResult whole = agent::ParseSignRequest(data, size);
    if (whole.status == agent::ParseStatus::Complete) {
        const agent::SignRequest& request = whole.request;
        if (request.length != size || !agent::IsValidKeyName(request.keyName)) std::abort();
        const size_t digest = request.digest.size();
        if (digest != 32 && digest != 48 && digest != 64) std::abort();
        if ((digest == 32) != (size == agent::SHORT_REQUEST)) std::abort();
    }
    // A complete or invalid prefix means the reader stops there: a longer
    // input must never turn it back into an incomplete one.
    for (size_t length = 0; length < size && length <= agent::LONG_REQUEST; ++length) {
        if (agent::ParseSignRequest(data, length).status != agent::ParseStatus::Incomplete &&
            whole.status == agent::ParseStatus::Incomplete)
            std::abort();
    }
    return 0;
}
