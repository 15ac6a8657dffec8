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

// Every signal whose default action ends the process: the requests to stop,
// the broken pipe of a closed standard error, a file-size limit, timers, and
// the faults of a crash. Only SIGKILL (and SIGSTOP, which ends nothing) are
// beyond reach.
constexpr int FATAL_SIGNALS[] = {SIGHUP,  SIGINT,    SIGQUIT, SIGILL,  SIGTRAP, SIGABRT, SIGBUS,
                                 SIGFPE,  SIGUSR1,   SIGSEGV, SIGUSR2, SIGPIPE, SIGALRM, SIGTERM,
                                 SIGXCPU, SIGXFSZ,   SIGVTALRM, SIGPROF, SIGIO, SIGPWR, SIGSYS};
constexpr int SIGNAL_COUNT = 65;
// What each signal did before: a sanitizer's fault handler, say, still
// reports the crash after the temporaries are gone.
struct sigaction g_previous[SIGNAL_COUNT];

// True when the kernel raised `info`'s signal for the instruction that
// faulted; it comes again when the handler returns.
bool IsFault(const siginfo_t* info)
{
    return info && info->si_code > 0 &&
           (info->si_signo == SIGSEGV || info->si_signo == SIGBUS || info->si_signo == SIGILL ||
            info->si_signo == SIGFPE || info->si_signo == SIGTRAP);
}

void RemoveTemporariesAndDie(int signal, siginfo_t* info, void*)
{
    for (int i = 0; i < SLOTS; ++i)
        if (g_used[i]) unlink(g_temporaries[i]);
    struct sigaction fallback = {};
    fallback.sa_handler = SIG_DFL;
    const bool known = signal > 0 && signal < SIGNAL_COUNT;
    sigaction(signal, known ? &g_previous[signal] : &fallback, nullptr);
    if (IsFault(info)) return;
    sigset_t self;
    sigemptyset(&self);
    sigaddset(&self, signal);
    sigprocmask(SIG_UNBLOCK, &self, nullptr);
    raise(signal);
    // A previous handler that returned leaves the default action to end it.
    sigaction(signal, &fallback, nullptr);
    raise(signal);
}

const char* KindOf(mode_t mode)
{
    if (S_ISDIR(mode)) return "a folder";
    if (S_ISCHR(mode)) return "a character device";
    if (S_ISBLK(mode)) return "a block device";
    if (S_ISFIFO(mode)) return "a FIFO";
    if (S_ISSOCK(mode)) return "a socket";
    return "not a regular file";
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
    action.sa_sigaction = RemoveTemporariesAndDie;
    action.sa_flags = SA_SIGINFO;
    sigemptyset(&action.sa_mask);
    for (int signal : FATAL_SIGNALS) {
        // A signal the caller ignores (SIGPIPE under some shells) stays
        // ignored: then a failed write reports it instead.
        if (sigaction(signal, nullptr, &g_previous[signal]) == 0 && g_previous[signal].sa_handler == SIG_IGN)
            continue;
        sigaction(signal, &action, nullptr);
    }
}

bool outputFile::Create(const std::string& finalPath, std::string& reason)
{
    Discard();
    // The rename would put a regular file in place of whatever is there: a
    // device node, a FIFO or a socket is refused rather than replaced.
    struct stat info;
    if (stat(finalPath.c_str(), &info) == 0 && !S_ISREG(info.st_mode)) {
        reason = finalPath + " is " + KindOf(info.st_mode) + "; only a regular file is written or replaced";
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
