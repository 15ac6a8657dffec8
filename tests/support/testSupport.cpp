// Helpers shared by the tests.
#include "testSupport.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

extern char** environ;

namespace testsupport {
namespace {

void Fail(const std::string& what)
{
    throw std::runtime_error(what + ": " + std::strerror(errno));
}

// Reads both pipes to their ends and feeds `input` to the child's stdin.
void Pump(int outFd, int errFd, int inFd, const std::string* input, ProcessResult& result)
{
    size_t written = 0;
    std::vector<pollfd> fds;
    char buffer[65536];
    for (;;) {
        fds.clear();
        if (outFd >= 0) fds.push_back({outFd, POLLIN, 0});
        if (errFd >= 0) fds.push_back({errFd, POLLIN, 0});
        if (inFd >= 0) fds.push_back({inFd, POLLOUT, 0});
        if (fds.empty()) return;
        if (poll(fds.data(), fds.size(), -1) < 0) {
            if (errno == EINTR) continue;
            Fail("poll");
        }
        for (const pollfd& p : fds) {
            if (!p.revents) continue;
            if (p.fd == inFd) {
                const ssize_t n = write(inFd, input->data() + written, input->size() - written);
                if (n > 0) written += static_cast<size_t>(n);
                if (n < 0 || written == input->size()) {
                    close(inFd);
                    inFd = -1;
                }
                continue;
            }
            const ssize_t n = read(p.fd, buffer, sizeof buffer);
            if (n > 0) {
                (p.fd == outFd ? result.out : result.err).append(buffer, static_cast<size_t>(n));
            } else if (n == 0 || errno != EINTR) {
                close(p.fd);
                (p.fd == outFd ? outFd : errFd) = -1;
            }
        }
    }
}

// `command` as the null-terminated array exec and spawn take; it points into
// `command`, which must outlive it.
std::vector<char*> ExecArguments(const std::vector<std::string>& command)
{
    std::vector<char*> args;
    for (const std::string& arg : command) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    return args;
}

// In a sanitizer build the spawned programs are instrumented too; a report
// from one fails the test even where the expected exit status matches.
void CheckForSanitizerReport(const std::vector<std::string>& argv, const ProcessResult& result)
{
    if (result.err.find("Sanitizer") != std::string::npos || result.err.find("runtime error:") != std::string::npos)
        ADD_FAILURE() << "sanitizer report from " << argv[0] << ":\n" << result.err;
}

// Waits for the child `pid` that runs `argv` and records how it ended.
void WaitForChild(pid_t pid, const std::vector<std::string>& argv, ProcessResult& result)
{
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status)) {
        result.status = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        result.signaled = true;
        result.status = 128 + WTERMSIG(status);
    }
    CheckForSanitizerReport(argv, result);
}

}  // namespace

#ifdef MARKFORGE_TEST_EMULATOR
namespace {

// True when `path` is an ELF program for 32-bit ARM, which the host can only
// run under the emulator (the openssl oracle stays a host program).
bool IsArmProgram(const std::string& path)
{
    if (path.find('/') == std::string::npos) return false;
    unsigned char elf[20] = {};
    std::ifstream in(path, std::ios::binary);
    if (!in.read(reinterpret_cast<char*>(elf), sizeof elf)) return false;
    const bool isElf = elf[0] == 0x7F && elf[1] == 'E' && elf[2] == 'L' && elf[3] == 'F';
    const unsigned machine = elf[18] | (elf[19] << 8);  // e_machine, little-endian on ARM
    return isElf && machine == 40;                        // EM_ARM
}

}  // namespace
#endif

// The command line that starts `argv`: in a cross build, target programs go
// through the emulator the build was configured with.
std::vector<std::string> WithEmulator(const std::vector<std::string>& argv)
{
#ifdef MARKFORGE_TEST_EMULATOR
    if (!argv.empty() && IsArmProgram(argv[0])) {
        std::vector<std::string> command;
        std::stringstream words(MARKFORGE_TEST_EMULATOR);
        for (std::string word; std::getline(words, word, '|');) command.push_back(word);
        command.insert(command.end(), argv.begin(), argv.end());
        return command;
    }
#endif
    return argv;
}

namespace {

// Starts `argv` and collects what it writes. With `brokenStderr`, its
// standard error is a pipe nobody reads (the reading end is closed at once)
// and SIGPIPE has its default action, as at a shell whose reader has gone.
ProcessResult Spawn(const std::vector<std::string>& argv, const std::string* input, bool brokenStderr)
{
    int outPipe[2], errPipe[2], inPipe[2] = {-1, -1};
    if (pipe2(outPipe, O_CLOEXEC) || pipe2(errPipe, O_CLOEXEC)) Fail("pipe");
    if (input && pipe2(inPipe, O_CLOEXEC)) Fail("pipe");
    if (brokenStderr) {
        close(errPipe[0]);
        errPipe[0] = -1;
    }

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (input)
        posix_spawn_file_actions_adddup2(&actions, inPipe[0], 0);
    else
        posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, outPipe[1], 1);
    posix_spawn_file_actions_adddup2(&actions, errPipe[1], 2);

    // A new session: the child has no controlling terminal, as under CI.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    short flags = POSIX_SPAWN_SETSID;
    sigset_t defaults;
    sigemptyset(&defaults);
    if (brokenStderr) {
        sigaddset(&defaults, SIGPIPE);
        posix_spawnattr_setsigdefault(&attributes, &defaults);
        flags |= POSIX_SPAWN_SETSIGDEF;
    }
    posix_spawnattr_setflags(&attributes, flags);

    const std::vector<std::string> command = WithEmulator(argv);
    std::vector<char*> args = ExecArguments(command);

    pid_t pid = 0;
    const int rc = posix_spawnp(&pid, args[0], &actions, &attributes, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    close(outPipe[1]);
    close(errPipe[1]);
    if (input) close(inPipe[0]);
    if (rc != 0) {
        errno = rc;
        Fail("spawn " + argv[0]);
    }

    ProcessResult result;
    Pump(outPipe[0], errPipe[0], input ? inPipe[1] : -1, input, result);
    WaitForChild(pid, argv, result);
    return result;
}

}  // namespace

ProcessResult Run(const std::vector<std::string>& argv, const std::string* input)
{
    return Spawn(argv, input, false);
}

ProcessResult RunWithBrokenStderr(const std::vector<std::string>& argv)
{
    return Spawn(argv, nullptr, true);
}

std::string RecasterPath()
{
    return RECASTER_BINARY;
}

std::string MarkforgePath()
{
    return MARKFORGE_BINARY;
}

std::string DataPath(const std::string& name)
{
    return std::string(TEST_DATA_DIR) + "/" + name;
}

ProcessResult RunOnTerminal(const std::vector<std::string>& argv, const std::string& prompt,
                            const std::string& typed, int seconds)
{
    const std::vector<std::string> command = WithEmulator(argv);
    std::vector<char*> args = ExecArguments(command);

    int terminal = -1;
    const pid_t pid = forkpty(&terminal, nullptr, nullptr, nullptr);
    if (pid < 0) Fail("forkpty");
    if (pid == 0) {
        execvp(args[0], args.data());
        _exit(127);
    }

    ProcessResult result;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    bool typedYet = false;
    char buffer[4096];
    for (;;) {
        using std::chrono::milliseconds;
        const auto left = std::chrono::duration_cast<milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd p{terminal, POLLIN, 0};
        const int ready = left.count() > 0 ? poll(&p, 1, static_cast<int>(left.count())) : 0;
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) {
            kill(pid, SIGKILL);
            break;
        }
        const ssize_t n = read(terminal, buffer, sizeof buffer);
        if (n <= 0) break;  // EIO once the child has closed the terminal
        result.out.append(buffer, static_cast<size_t>(n));
        if (!typedYet && result.out.find(prompt) != std::string::npos) {
            typedYet = write(terminal, typed.data(), typed.size()) == static_cast<ssize_t>(typed.size());
        }
    }
    close(terminal);
    WaitForChild(pid, argv, result);
    return result;
}

ProcessResult RunRecaster(const std::vector<std::string>& args)
{
    std::vector<std::string> argv{RecasterPath()};
    argv.insert(argv.end(), args.begin(), args.end());
    return Run(argv);
}

ProcessResult RunMarkforge(const std::vector<std::string>& args)
{
    std::vector<std::string> argv{MarkforgePath()};
    argv.insert(argv.end(), args.begin(), args.end());
    ProcessResult result = Run(argv);
    // However a run ends, it closes every framework object it opened.
    EXPECT_EQ(result.err.find("was not closed before going out of scope"), std::string::npos) << result.err;
    return result;
}

ProcessResult Openssl(const std::vector<std::string>& args, const std::string* input)
{
    std::vector<std::string> argv{"openssl"};
    argv.insert(argv.end(), args.begin(), args.end());
    ProcessResult result = Run(argv, input);
    EXPECT_EQ(result.status, 0) << "openssl failed: " << result.err;
    return result;
}

std::vector<uint8_t> SeededBytes(size_t size, uint32_t seed)
{
    std::vector<uint8_t> out(size);
    uint32_t x = seed * 2654435761u + 1;
    for (uint8_t& byte : out) {
        x = x * 1103515245u + 12345u;
        byte = uint8_t(x >> 16);
    }
    return out;
}

std::string ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::vector<uint8_t> ReadBytes(const std::string& path)
{
    const std::string text = ReadFile(path);
    return std::vector<uint8_t>(text.begin(), text.end());
}

void WriteFile(const std::string& path, const std::string& bytes)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!out) throw std::runtime_error("cannot write " + path);
}

void WriteBytes(const std::string& path, const std::vector<uint8_t>& bytes)
{
    WriteFile(path, std::string(bytes.begin(), bytes.end()));
}

bool FileExists(const std::string& path)
{
    return std::filesystem::exists(path);
}

TempDir::TempDir() : TempDir(std::filesystem::temp_directory_path().string()) {}

TempDir::TempDir(const std::string& parent)
{
    std::string pattern = parent + "/markforge-test-XXXXXX";
    if (!mkdtemp(&pattern[0])) Fail("mkdtemp");
    _path = pattern;
}

TempDir::~TempDir()
{
    std::error_code ignored;
    std::filesystem::remove_all(_path, ignored);
}

std::vector<std::string> TrailLines()
{
    std::vector<std::string> lines;
    // A message belongs to the location entry before it only while that
    // entry has none yet; any other message gets a line of its own.
    bool locationAwaitsMessage = false;
    for (const lbTrailEntry& entry : lbGlobal.trail) {
        switch (entry.kind) {
        case lbTrailEntry::Kind::Location:
            lines.push_back(entry.function + "|" + entry.file + "|");
            locationAwaitsMessage = true;
            break;
        case lbTrailEntry::Kind::Message:
            if (!locationAwaitsMessage) lines.push_back("||");
            lines.back() += entry.text;
            locationAwaitsMessage = false;
            break;
        case lbTrailEntry::Kind::OpenedBy:
            break;
        }
    }
    return lines;
}

}  // namespace testsupport
