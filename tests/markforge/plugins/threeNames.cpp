// Test plug-in: every key name resolves to three names, the first being the
// plug-in's argument.
#include <cstring>
#include <string>

#include "markforgePlugin.h"

namespace {

std::string g_first;

char* Copy(const std::string& text)
{
    char* out = new char[text.size() + 1];
    std::memcpy(out, text.c_str(), text.size() + 1);
    return out;
}

char** ThreeNames(const char*, bool)
{
    char** names = new char*[4];
    names[0] = Copy(g_first);
    names[1] = Copy("second");
    names[2] = Copy("third");
    names[3] = nullptr;
    return names;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int markforge_plugin_init(markforgeRegistryRecord* registry,
                                                                              const char* argument)
{
    g_first = argument ? argument : "";
    registry->mfPluginKeynameGenerator = ThreeNames;
    return 0;
}
