// The names the installed key-name generator gives for a key name.
#pragma once

#include <string>
#include <vector>

#include "keyname.h"

namespace testsupport {

// The names the installed generator gives for `name`, released as the
// registry's contract asks; empty for a refusal.
inline std::vector<std::string> ResolvedNames(const std::string& name)
{
    std::vector<std::string> out;
    char** names = markforgeRegistry->mfPluginKeynameGenerator(name.c_str(), true);
    if (!names) return out;
    for (char** entry = names; *entry; ++entry) {
        out.emplace_back(*entry);
        delete[] *entry;
    }
    delete[] names;
    return out;
}

}  // namespace testsupport
