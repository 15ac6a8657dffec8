// markforge::outputFile: temporary file, rename, and clean-up on signals.
#include "outputFile.h"

#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

namespace markforge {
namespace {

// Temporary paths a signal handler may remove: fixed storage, since the
// handler may neither allocate nor lock.
constexpr int SLOTS = 8;
char g_temporaries[SLOTS][PATH_MAX];
volatile sig_atomic_t g_used[SLOTS];

int TakeSlot(const std::string& path)
{
    if (path.size() >= PATH_MAX) return -1;
    for (int i = 0; i < SLOTS; ++i) {
        if (g_used[i]) continue;
        std::memcpy(g_temporaries[i], path.c_str(), path.size() + 1);
        g_used[i] = 1;
        return i;
    }
    return -1;
}

void ReleaseSlot(int slot)
{
    if (slot >= 0) g_used[slot] = 0;
}

void RemoveTemporariesAndDie(int signal)
{
    for (int i = 0; i < SLOTS; ++i)
        if (g_used[i]) unlink(g_temporaries[i]);
    struct sigaction fallback = {};
    fallback.sa_handler = SIG_DFL;
    sigaction(signal, &fallback, nullptr);
    raise(signal);
}

std::string FolderOf(const std::string& path)
{
    const size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string SystemError(const std::string& what)
{
    return what + ": " + std::strerror(errno);
}

mode_t CurrentUmask()
{
    const mode_t mask = umask(0);
    umask(mask);
    return mask;
}

}  // namespace

outputFile::~outputFile()
{
    Discard();
}

void outputFile::RemoveTemporariesOnSignals()
{
    struct sigaction action = {};
    action.sa_handler = RemoveTemporariesAndDie;
    sigemptyset(&action.sa_mask);
    for (int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) sigaction(signal, &action, nullptr);
}

bool outputFile::Create(const std::string& finalPath, std::string& reason)
{
    Discard();
    struct stat info;
    if (stat(finalPath.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) {
        reason = finalPath + " is a folder";
        return false;
    }
    // The temporary name starts with a dot: hidden from a glob over the folder.
    const std::string folder = FolderOf(finalPath);
    const std::string base = finalPath.substr(finalPath.find_last_of('/') + 1);
    std::vector<char> name(folder.begin(), folder.end());
    const std::string suffix = "/." + base + ".XXXXXX";
    name.insert(name.end(), suffix.begin(), suffix.end());
    name.push_back('\0');
    _fd = mkostemp(name.data(), O_CLOEXEC);
    if (_fd < 0) {
        reason = SystemError("cannot create a file in " + folder);
        return false;
    }
    _tempPath = name.data();
    _finalPath = finalPath;
    _slot = TakeSlot(_tempPath);
    _committed = false;
    return true;
}

bool outputFile::CloseFile(std::string& reason)
{
    const int fd = _fd;
    _fd = -1;
    if (close(fd) != 0) {
        reason = SystemError("cannot write " + _finalPath);
        return false;
    }
    return true;
}

bool outputFile::SetUmaskMode(std::string& reason)
{
    if (fchmod(_fd, 0666 & ~CurrentUmask()) != 0) {
        reason = SystemError("cannot set the mode of " + _finalPath);
        return false;
    }
    return true;
}

bool outputFile::Commit(std::string& reason)
{
    if (!SetUmaskMode(reason) || !CloseFile(reason)) return false;
    if (rename(_tempPath.c_str(), _finalPath.c_str()) != 0) {
        reason = SystemError("cannot write " + _finalPath);
        return false;
    }
    _committed = true;
    ReleaseSlot(_slot);
    _slot = -1;
    return true;
}

bool outputFile::CommitWithoutReplacing(bool keepPrivate, std::string& reason)
{
    if ((!keepPrivate && !SetUmaskMode(reason)) || !CloseFile(reason)) return false;
    // A hard link is made whole or not at all, and never over an existing
    // name; the temporary name then goes.
    if (link(_tempPath.c_str(), _finalPath.c_str()) != 0) {
        reason = errno == EEXIST ? _finalPath + " exists; it is never overwritten"
                                 : SystemError("cannot write " + _finalPath);
        return false;
    }
    unlink(_tempPath.c_str());
    _committed = true;
    ReleaseSlot(_slot);
    _slot = -1;
    return true;
}

void outputFile::Discard()
{
    if (_fd >= 0) close(_fd);
    _fd = -1;
    if (!_committed && !_tempPath.empty()) unlink(_tempPath.c_str());
    ReleaseSlot(_slot);
    _slot = -1;
    _tempPath.clear();
}

}  // namespace markforge
