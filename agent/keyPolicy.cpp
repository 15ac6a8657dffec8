// The key policy's one decision.
#include "keyPolicy.h"

namespace agent {

std::string KeyPolicy::Refusal(const std::string& key, long long uid) const
{
    if (!_allowed.empty() && !_allowed.count(key)) return "key not allowed";
    const auto users = _keyUsers.find(key);
    if (users == _keyUsers.end()) return "";
    if (uid < 0) return "key " + key + " is kept for named users and the owner of this connection is unknown";
    if (!users->second.count(static_cast<uid_t>(uid)))
        return "key " + key + " is not for user " + std::to_string(uid);
    return "";
}

}  // namespace agent
