// markforge::programPaths: paths from /proc/self/exe.
#include "programPaths.h"

#include <limits.h>
#include <unistd.h>

namespace markforge {
namespace {

std::string ProgramFolder()
{
    char path[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
    if (length <= 0) return ".";
    const std::string program(path, static_cast<size_t>(length));
    const size_t slash = program.find_last_of('/');
    return slash == std::string::npos ? "." : program.substr(0, slash);
}

}  // namespace

std::string programPaths::InstalledPlugin(const std::string& name)
{
    // MARKFORGE_PLUGINS_FROM_BIN is set by the build: the plug-in folder
    // relative to the program folder, the same in the build tree and when
    // installed.
    return ProgramFolder() + "/" MARKFORGE_PLUGINS_FROM_BIN "/" + name + ".so";
}

}  // namespace markforge
