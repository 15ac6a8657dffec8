// markforge::keyname: resolves a key name through the plug-in registry's
// generator.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "lbBase.h"
#include "markforgePlugin.h"

// Installed by the plug-in host before any key name is resolved. While it is
// null, resolution fails as for a registry without a generator.
extern markforgeRegistryRecord* markforgeRegistry;

namespace markforge {

using std::string;

class keyname : public lbBase {
public:
    keyname() { LB_CONSTRUCTOR(); }
    virtual ~keyname() { LB_DESTRUCTOR_CHECK("virtual markforge::keyname::~keyname()"); }

    using lbBase::Open;
    // Resolves `name` and appends the results.
    bool Open(const string& name, bool flag);
    // The first resolved name; only after a successful Open (otherwise the
    // checked access throws std::out_of_range).
    bool GetKeyName(string& out);
    // The name at `index`: false above the count, throws std::out_of_range at it.
    bool GetKeyNameById(uint32_t index, string& out);
    bool Close() override;

private:
    std::vector<string> _keyNames;
};

}  // namespace markforge
