// lockbase::hexString: formatting and parsing.
#include "hexString.h"

#include <iomanip>
#include <sstream>

namespace lockbase {
namespace {

constexpr const char* ACCEPTED = "0123456789abcdefABCDEF ";

// Reads one pair the way a hexadecimal stream extraction does: leading
// spaces skipped, then digits up to the first non-digit. A pair of two
// spaces holds no digit and reads as 0.
uint8_t ReadPair(char high, char low)
{
    std::istringstream pair(std::string{high, low});
    unsigned value = 0;
    pair >> std::hex >> value;
    return static_cast<uint8_t>(value & 0xFF);
}

}  // namespace

std::string hexString::FormatBytes(const std::vector<uint8_t>& bytes)
{
    std::ostringstream out;
    out << std::hex << std::uppercase << std::setfill('0');
    for (uint8_t byte : bytes) out << std::setw(2) << static_cast<unsigned>(byte);
    return out.str();
}

void hexString::ParseText(const std::string& in)
{
    if (in.size() % 2 != 0) return;
    if (in.find_first_not_of(ACCEPTED) != std::string::npos) return;
    text = in;
    bytes.reserve(in.size() / 2);
    for (size_t i = 0; i < in.size(); i += 2) bytes.push_back(ReadPair(in[i], in[i + 1]));
    valid = true;
}

}  // namespace lockbase
