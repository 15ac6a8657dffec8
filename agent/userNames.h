// User names and uids as the command line gives them (--allow-user,
// --allow-key-user), resolved once at start.
#pragma once

#include <sys/types.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "keyStore.h"

namespace agent {

// Each name (a user name, or else a uid) into `uids`. False with the
// reason in `error` for an unknown name.
bool ResolveUsers(const std::vector<std::string>& names, std::set<uid_t>& uids, std::string& error);

// KEY:USER pairs into users per key, each KEY one that `keys` holds.
bool ResolveKeyUsers(const std::vector<std::string>& pairs, const KeyStore& keys,
                     std::map<std::string, std::set<uid_t>>& keyUsers, std::string& error);

}  // namespace agent
