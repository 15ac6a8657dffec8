// The markforge library's version, one copy per source unit that includes
// this header.
#pragma once

#include <string>

namespace markforge {
// The version of the tool set's shared container, hashing and signing sources.
static const std::string VERSION = "2.1.0";
}  // namespace markforge
