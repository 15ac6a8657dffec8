// markforge::keyname: key-name resolution through the plug-in registry.
#include "keyname.h"

#include <cstring>
#include <memory>

#include "lbSteps.h"
#include "markforgeVersion.h"

markforgeRegistryRecord* markforgeRegistry = nullptr;

namespace markforge {
namespace {

// The installed generator, or null. A host that has not installed a
// registry at all counts as one without a generator.
mfKeynameGeneratorFn InstalledGenerator()
{
    return markforgeRegistry ? markforgeRegistry->mfPluginKeynameGenerator : nullptr;
}

}  // namespace

bool keyname::Open(const string& name, bool flag)
{
    LB_FUNCTION("bool markforge::keyname::Open(const string&, bool)");
    // The generator gets a C string of its own; an embedded zero ends it.
    std::unique_ptr<char[]> copy(new char[name.size() + 1]);
    std::memcpy(copy.get(), name.c_str(), name.size() + 1);

    LB_CONTINUE_CHECK();
    const mfKeynameGeneratorFn generator = InstalledGenerator();
    if (!generator) LB_FAIL("Invalid function: markforgeRegistry->mfPluginKeynameGenerator ");

    char** names = generator(copy.get(), flag);
    copy.reset();

    // Nothing resolved is not a fault of this object: the caller's checked
    // open reports it. An empty array stays with the generator.
    if (!names || !names[0]) return false;

    for (char** entry = names; *entry; ++entry) {
        _keyNames.emplace_back(*entry);
        delete[] *entry;
    }
    delete[] names;
    return true;
}

bool keyname::GetKeyName(string& out)
{
    out = _keyNames.at(0);
    return true;
}

bool keyname::GetKeyNameById(uint32_t index, string& out)
{
    // An index equal to the count is left to the checked access, which
    // throws std::out_of_range; only one above it is refused quietly.
    if (index > _keyNames.size()) return false;
    out = _keyNames.at(index);
    return true;
}

bool keyname::Close()
{
    return true;
}

}  // namespace markforge
