// Looking up the users the command line names.
#include "userNames.h"

#include <pwd.h>

#include <cstdlib>

namespace agent {

bool ResolveUsers(const std::vector<std::string>& names, std::set<uid_t>& uids, std::string& error)
{
    for (const auto& name : names) {
        passwd entry{}, *found = nullptr;
        char buffer[4096];
        if (::getpwnam_r(name.c_str(), &entry, buffer, sizeof buffer, &found) == 0 && found) {
            uids.insert(found->pw_uid);
            continue;
        }
        char* end = nullptr;
        const unsigned long number = std::strtoul(name.c_str(), &end, 10);
        if (name.empty() || *end != '\0') {
            error = "unknown user " + name;
            return false;
        }
        uids.insert(static_cast<uid_t>(number));
    }
    return true;
}

bool ResolveKeyUsers(const std::vector<std::string>& pairs, const KeyStore& keys,
                     std::map<std::string, std::set<uid_t>>& keyUsers, std::string& error)
{
    for (const std::string& pair : pairs) {
        const size_t colon = pair.find(':');
        const std::string key = pair.substr(0, colon);
        if (colon == std::string::npos || key.empty() || colon + 1 == pair.size()) {
            error = "--allow-key-user " + pair + " is not KEY:USER";
            return false;
        }
        if (!keys.Find(key)) {
            error = "--allow-key-user " + pair + " names key " + key + ", which the agent does not serve";
            return false;
        }
        if (!ResolveUsers({pair.substr(colon + 1)}, keyUsers[key], error)) return false;
    }
    return true;
}

}  // namespace agent
