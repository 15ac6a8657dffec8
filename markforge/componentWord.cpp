// markforge::componentWord: NAME=FILE parsing.
#include "componentWord.h"

namespace markforge {
namespace {

// Names are printed in reports and looked up by `extract`: keep them to
// printable ASCII without blanks.
bool IsNameCharacter(char c)
{
    return c > ' ' && c < 0x7f;
}

}  // namespace

bool componentWord::Parse(const std::string& word, std::string& reason)
{
    const size_t equals = word.find('=');
    if (equals == std::string::npos) {
        reason = "'" + word + "' is not NAME=FILE";
        return false;
    }
    name = word.substr(0, equals);
    path = word.substr(equals + 1);
    if (name.empty()) {
        reason = "'" + word + "' has no component name before '='";
        return false;
    }
    if (name.size() > MAX_NAME) {
        reason = "component name '" + name + "' has " + std::to_string(name.size()) + " characters; at most " +
                 std::to_string(MAX_NAME) + " fit";
        return false;
    }
    for (char c : name) {
        if (!IsNameCharacter(c)) {
            reason = "component name '" + name + "' may hold only printable ASCII characters without blanks";
            return false;
        }
    }
    if (path.empty()) {
        reason = "'" + word + "' has no file after '='";
        return false;
    }
    return true;
}

}  // namespace markforge
