// Which key may be served to whom: --allow-key (the keys served at all) and
// --allow-key-user KEY:USER (a key named there is served only to the users
// named for it; a key named nowhere stays open to every user the agent lets
// in at all, as development keys are).
#pragma once

#include <sys/types.h>

#include <map>
#include <set>
#include <string>
#include <vector>

namespace agent {

class KeyPolicy {
public:
    KeyPolicy(const std::vector<std::string>& allowedKeys, std::map<std::string, std::set<uid_t>> keyUsers = {})
        : _allowed(allowedKeys.begin(), allowedKeys.end()), _keyUsers(std::move(keyUsers))
    {
    }

    // Why `key` is not served to `uid` (-1: the kernel did not say who), or
    // "" when it is.
    std::string Refusal(const std::string& key, long long uid) const;
    // Whether any key is kept for some users: the owner of every connection
    // must then be known.
    bool NamesUsers() const { return !_keyUsers.empty(); }

private:
    std::set<std::string> _allowed;  // empty: every key
    std::map<std::string, std::set<uid_t>> _keyUsers;
};

}  // namespace agent
