// markforge::pluginHost: loads a key-name plug-in and installs its registry
// record as markforgeRegistry.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "markforgePlugin.h"

namespace markforge {

class pluginHost {
public:
    pluginHost() = default;
    // Uninstalls the registry record and unloads the plug-in.
    ~pluginHost();
    pluginHost(const pluginHost&) = delete;
    pluginHost& operator=(const pluginHost&) = delete;

    // Loads the shared object at `path`, hands its entry point a fresh
    // record and `argument` (may be null), and installs the record. On
    // failure nothing is installed and `reason` holds one line naming the
    // path.
    bool Load(const std::string& path, const char* argument, std::string& reason);

    // The names the installed generator gives for `name` (empty when it
    // refuses), released as the registry's contract asks.
    static std::vector<std::string> ResolveKeyName(const std::string& name);

    // True once a plug-in is installed by this host.
    bool Loaded() const { return _record != nullptr; }
    const std::string& Path() const { return _path; }

private:
    void Unload();

    void* _handle = nullptr;
    std::unique_ptr<markforgeRegistryRecord> _record;
    std::string _path;
};

}  // namespace markforge
