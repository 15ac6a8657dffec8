// markforge::pluginHost: dlopen, the entry point, and the registry record.
#include "pluginHost.h"

#include <dlfcn.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "keyname.h"

namespace markforge {
namespace {

// Checks the path before dlopen, whose own text for a missing file is the
// loader's and would not say which of the plug-in's libraries was missing.
bool IsLoadableFile(const std::string& path, std::string& reason)
{
    struct stat info;
    if (stat(path.c_str(), &info) != 0) {
        reason = "plug-in " + path + ": " + std::strerror(errno);
        return false;
    }
    if (!S_ISREG(info.st_mode)) {
        reason = "plug-in " + path + ": not a regular file";
        return false;
    }
    return true;
}

std::string LoaderError()
{
    const char* text = dlerror();
    return text ? text : "unknown loader error";
}

}  // namespace

pluginHost::~pluginHost()
{
    Unload();
}

bool pluginHost::Load(const std::string& path, const char* argument, std::string& reason)
{
    Unload();
    if (!IsLoadableFile(path, reason)) return false;

    // RTLD_NOW: a plug-in with unresolved symbols is refused here, not in
    // the middle of signing. A name without a slash would send dlopen
    // through the library search path; the file checked above is the one
    // in the current folder, so that is the one loaded.
    const std::string file = path.find('/') == std::string::npos ? "./" + path : path;
    void* handle = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle) {
        reason = "plug-in " + path + ": not a loadable shared object (" + LoaderError() + ")";
        return false;
    }
    dlerror();
    auto init = reinterpret_cast<markforgePluginInitFn>(dlsym(handle, MARKFORGE_PLUGIN_INIT_SYMBOL));
    if (!init) {
        dlclose(handle);
        reason = "plug-in " + path + ": no entry point " MARKFORGE_PLUGIN_INIT_SYMBOL;
        return false;
    }

    auto record = std::make_unique<markforgeRegistryRecord>();
    std::memset(record.get(), 0, sizeof(markforgeRegistryRecord));
    const int result = init(record.get(), argument);
    if (result != 0) {
        dlclose(handle);
        reason = "plug-in " + path + ": " MARKFORGE_PLUGIN_INIT_SYMBOL " refused with " + std::to_string(result);
        return false;
    }
    if (!record->mfPluginKeynameGenerator) {
        dlclose(handle);
        reason = "plug-in " + path + ": " MARKFORGE_PLUGIN_INIT_SYMBOL " left the key-name generator empty";
        return false;
    }

    _handle = handle;
    _record = std::move(record);
    _path = path;
    markforgeRegistry = _record.get();
    return true;
}

std::vector<std::string> pluginHost::ResolveKeyName(const std::string& name)
{
    std::vector<std::string> names;
    const mfKeynameGeneratorFn generator = markforgeRegistry ? markforgeRegistry->mfPluginKeynameGenerator : nullptr;
    char** resolved = generator ? generator(name.c_str(), true) : nullptr;
    if (!resolved) return names;
    for (char** entry = resolved; *entry; ++entry) {
        names.emplace_back(*entry);
        delete[] *entry;
    }
    delete[] resolved;
    return names;
}

void pluginHost::Unload()
{
    if (_record && markforgeRegistry == _record.get()) markforgeRegistry = nullptr;
    _record.reset();
    if (_handle) dlclose(_handle);
    _handle = nullptr;
    _path.clear();
}

}  // namespace markforge
