// markforge::containerInput: the failures of opening a container or a key.
#include "containerInput.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "exitStatus.h"

namespace markforge {

void containerInput::Open(containerReader& reader, const std::string& path)
{
    std::string reason;
    std::string libraryText;
    switch (reader.Open(path, reason, libraryText)) {
    case containerReader::failure::none: return;
    case containerReader::failure::fileSystem: throw commandFailure(exitStatus::fileSystem, reason);
    case containerReader::failure::notContainer:
        if (!libraryText.empty()) libraryText.pop_back();
        throw commandFailure(exitStatus::badInput, reason + (libraryText.empty() ? "" : "\n" + libraryText));
    }
}

void containerInput::LoadKey(publicKey& key, const std::string& path, const std::string& option)
{
    // Told apart first: a missing file is the file system's, a file that
    // holds no key is bad input.
    if (access(path.c_str(), R_OK) != 0)
        throw commandFailure(exitStatus::fileSystem, option + " " + path + ": " + std::strerror(errno));
    struct stat info;
    if (stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode))
        throw commandFailure(exitStatus::fileSystem, option + " " + path + " is not a regular file");
    std::string reason;
    if (!key.Load(path, reason)) throw commandFailure(exitStatus::badInput, option + " " + reason);
}

}  // namespace markforge
