// markforge::programPaths: where the running program's installed companions
// lie, relative to the program itself.
#pragma once

#include <string>

namespace markforge {

class programPaths {
public:
    // The plug-in `name` installed with the program (lib/markforge/plugins/
    // NAME.so beside its bin/ folder).
    static std::string InstalledPlugin(const std::string& name);
};

}  // namespace markforge
