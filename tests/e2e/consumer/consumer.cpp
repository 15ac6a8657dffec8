// A small front end built against an installed tree: it installs a key-name
// generator of its own, as a plug-in would, resolves a name through
// markforge::keyname, and prints it with its hexadecimal text.
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "hexString.h"
#include "keyname.h"

namespace {

char** Resolve(const char* name, bool)
{
    const std::string resolved = std::string("/keys/") + name;
    char** names = new char*[2];
    names[0] = new char[resolved.size() + 1];
    std::memcpy(names[0], resolved.c_str(), resolved.size() + 1);
    names[1] = nullptr;
    return names;
}

}  // namespace

int main()
{
    markforgeRegistryRecord registry{};
    registry.mfPluginKeynameGenerator = &Resolve;
    markforgeRegistry = &registry;

    markforge::keyname names;
    std::string name;
    if (!names.PreOpen(__FILE__, __LINE__, nullptr) || !names.Open("dev", false) || !names.PostOpen(__LINE__) ||
        !names.GetKeyName(name)) {
        std::cerr << "no key name resolved\n";
        return 1;
    }
    names.PreClose();
    names.Close();
    names.PostClose();

    const lockbase::hexString hex(std::vector<uint8_t>(name.begin(), name.end()));
    std::cout << name << ' ' << hex.text << '\n';
    return 0;
}
