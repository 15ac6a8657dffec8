// PIN reading. The PIN itself never appears in a message.
#include "pinFile.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>

namespace agent {
namespace {

void TrimLineEnd(std::string& line)
{
    while (!line.empty() && (line.back() == '\r' || line.back() == '\n')) line.pop_back();
}

}  // namespace

bool PinFile::Read(const std::string& path, std::string& pin, std::string& error)
{
    if (path == "-") {
        if (!std::getline(std::cin, pin)) {
            error = "no PIN on standard input";
            return false;
        }
        TrimLineEnd(pin);
        return true;
    }
    struct stat info{};
    if (::stat(path.c_str(), &info) != 0) {
        error = "PIN file " + path + ": " + std::strerror(errno);
        return false;
    }
    if (info.st_mode & S_IRWXO) {
        char mode[8];
        std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(info.st_mode & 07777));
        error = "PIN file " + path + " is open to other users (mode " + mode + "); chmod o-rwx it";
        return false;
    }
    std::ifstream in(path);
    if (!in || !std::getline(in, pin)) {
        error = "PIN file " + path + " is empty or unreadable";
        return false;
    }
    TrimLineEnd(pin);
    return true;
}

}  // namespace agent
