// The keys the agent serves, by name. Filled on the main thread at start,
// read-only while the workers sign.
#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "agentKey.h"

namespace agent {

class KeyStore {
public:
    // Adds a prepared key; false with the reason in `error` when the name is
    // taken already.
    bool Add(std::unique_ptr<AgentKey> key, std::string& error);
    // The key of this name, or null.
    const AgentKey* Find(const std::string& name) const;
    // Every key, ordered by name.
    std::vector<const AgentKey*> Keys() const;
    bool Empty() const { return _keys.empty(); }

private:
    std::map<std::string, std::unique_ptr<AgentKey>> _keys;
};

}  // namespace agent
