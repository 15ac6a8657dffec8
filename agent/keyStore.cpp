// The key table.
#include "keyStore.h"

namespace agent {

bool KeyStore::Add(std::unique_ptr<AgentKey> key, std::string& error)
{
    const std::string name = key->Name();
    if (_keys.count(name)) {
        error = "two keys are named " + name;
        return false;
    }
    _keys.emplace(name, std::move(key));
    return true;
}

const AgentKey* KeyStore::Find(const std::string& name) const
{
    const auto found = _keys.find(name);
    return found == _keys.end() ? nullptr : found->second.get();
}

std::vector<const AgentKey*> KeyStore::Keys() const
{
    std::vector<const AgentKey*> keys;
    for (const auto& entry : _keys) keys.push_back(entry.second.get());
    return keys;
}

}  // namespace agent
