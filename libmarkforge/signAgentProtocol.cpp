// The signing agent's request, laid out.
#include "signAgentProtocol.h"

#include <algorithm>
#include <cstring>

namespace markforge {
namespace signagent {
namespace {

// Copies `text` as a C string into `field`, writing at most `bound` bytes
// including the terminator; the rest of the field keeps its zeros.
void CopyBounded(uint8_t* field, const std::string& text, size_t bound)
{
    const size_t length = std::min(std::strlen(text.c_str()), bound - 1);
    std::memcpy(field, text.c_str(), length);
    field[length] = 0;
}

}  // namespace

std::string ArgumentText(const std::string& fieldF, int fieldC, size_t digestLength, const std::string& extraArgs)
{
    std::string text;
    if (!fieldF.empty()) text += "F=" + fieldF + ";";
    if (fieldC != 0) text += "C=1;";
    text += "S=" + std::to_string(digestLength) + ";";
    if (!extraArgs.empty()) text += extraArgs;
    return text;
}

std::vector<uint8_t> Request(const std::string& keyName, const std::vector<uint8_t>& digest,
                             const std::string& arguments)
{
    const size_t digestArea = DigestArea(digest.size());
    std::vector<uint8_t> request(KEY_FIELD_SIZE + digestArea + ARG_FIELD_SIZE, 0);
    CopyBounded(request.data(), keyName, KEY_FIELD_BOUND);
    std::copy(digest.begin(), digest.end(), request.begin() + KEY_FIELD_SIZE);
    CopyBounded(request.data() + KEY_FIELD_SIZE + digestArea, arguments, ARG_FIELD_BOUND);
    return request;
}

}  // namespace signagent
}  // namespace markforge
