// The key-directory plug-in: key name NAME resolves to DIR/NAME.markforge,
// DIR being the plug-in's argument.
#include <cctype>
#include <cstring>
#include <string>

#include "markforgePlugin.h"

namespace {

// The longest name the signing side can carry whole.
constexpr size_t MAX_NAME = 31;
constexpr const char* KEY_FILE_SUFFIX = ".markforge";

std::string& KeyFolder()
{
    static std::string folder;
    return folder;
}

// Names stay inside the folder: no separators, no hidden or parent entries,
// nothing a terminal would not print.
bool IsAcceptableName(const char* name)
{
    const size_t length = name ? std::strlen(name) : 0;
    if (length == 0 || length > MAX_NAME || name[0] == '.') return false;
    for (size_t i = 0; i < length; ++i) {
        const unsigned char c = static_cast<unsigned char>(name[i]);
        if (c == '/' || !std::isprint(c)) return false;
    }
    return true;
}

// A zero-terminated copy in new[] memory, as the registry's contract asks.
char* NewString(const std::string& text)
{
    char* copy = new char[text.size() + 1];
    std::memcpy(copy, text.c_str(), text.size() + 1);
    return copy;
}

char** ResolveKeyName(const char* name, bool /*flag*/)
{
    if (!IsAcceptableName(name)) return nullptr;
    char** names = new char*[2];
    names[0] = NewString(KeyFolder() + "/" + name + KEY_FILE_SUFFIX);
    names[1] = nullptr;
    return names;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int markforge_plugin_init(markforgeRegistryRecord* registry,
                                                                              const char* argument)
{
    if (!registry) return 1;
    if (!argument || !*argument) return 2;  // the folder is required
    KeyFolder() = argument;
    // "DIR/" and "DIR" name the same folder; keep resolved paths tidy.
    while (KeyFolder().size() > 1 && KeyFolder().back() == '/') KeyFolder().pop_back();
    registry->mfPluginKeynameGenerator = ResolveKeyName;
    return 0;
}
