// Version constants, one copy per source unit that includes this header.
#pragma once

#include <string>

namespace recaster {
// The tool's own version, handed to the framework's runner.
static const std::string VERSION = "1.1.0";
}  // namespace recaster

namespace markforge {
// The version of the tool set's shared container, hashing and signing sources.
static const std::string VERSION = "2.1.0";
}  // namespace markforge
