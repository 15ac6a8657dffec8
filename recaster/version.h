// Version constants, one copy per source unit that includes this header.
#pragma once

#include <string>

#include "markforgeVersion.h"

namespace recaster {
// The tool's own version, handed to the framework's runner.
static const std::string VERSION = "1.1.0";
}  // namespace recaster
