// Lower-case hex text through the one hex encoder, lockbase::hexString.
#include "hexText.h"

#include <cctype>

#include "hexString.h"

namespace markforge {

std::string LowerHex(const std::vector<uint8_t>& bytes)
{
    std::string text = lockbase::hexString(bytes).text;
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

}  // namespace markforge
