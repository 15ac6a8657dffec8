// Reads a token PIN from a file that others cannot read, or from standard
// input.
#pragma once

#include <string>

namespace agent {

class PinFile {
public:
    // The first line of `path` ("-": of standard input). False with the
    // reason in `error` when the file is readable by others or unreadable.
    static bool Read(const std::string& path, std::string& pin, std::string& error);
};

}  // namespace agent
