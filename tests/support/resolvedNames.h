// The names the installed key-name generator gives for a key name.
#pragma once

#include <string>
#include <vector>

#include "pluginHost.h"

namespace testsupport {

inline std::vector<std::string> ResolvedNames(const std::string& name)
{
    return markforge::pluginHost::ResolveKeyName(name);
}

}  // namespace testsupport
