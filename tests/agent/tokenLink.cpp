// Background programs and network namespaces for the token link tests.
#include "tokenLink.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "testSupport.h"

namespace agenttest {
namespace {

constexpr auto STOP_LIMIT = std::chrono::seconds(10);
constexpr auto POLL = std::chrono::milliseconds(20);

bool Reaped(pid_t pid, std::chrono::steady_clock::duration limit)
{
    const auto deadline = std::chrono::steady_clock::now() + limit;
    do {
        if (::waitpid(pid, nullptr, WNOHANG) == pid) return true;
        std::this_thread::sleep_for(POLL);
    } while (std::chrono::steady_clock::now() < deadline);
    return false;
}

bool RunIp(const std::vector<std::string>& args, std::string& error)
{
    std::vector<std::string> argv{"ip"};
    argv.insert(argv.end(), args.begin(), args.end());
    const testsupport::ProcessResult result = testsupport::Run(argv);
    if (result.status == 0) return true;
    error = "ip";
    for (const auto& arg : args) error += " " + arg;
    error += ": " + result.err;
    return false;
}

}  // namespace

BackgroundProcess::~BackgroundProcess() { Stop(); }

bool BackgroundProcess::Start(const std::vector<std::string>& argv, const std::string& log, std::string& error)
{
    std::vector<char*> args;
    for (const auto& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    const int out = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (out < 0) {
        error = "cannot open " + log + ": " + std::strerror(errno);
        return false;
    }
    _pid = ::fork();
    if (_pid == 0) {
        ::setpgid(0, 0);
        const int in = ::open("/dev/null", O_RDONLY);
        ::dup2(in, 0);
        ::dup2(out, 1);
        ::dup2(out, 2);
        ::execvp(args[0], args.data());
        ::_exit(127);
    }
    ::close(out);
    if (_pid < 0) {
        error = std::string("fork: ") + std::strerror(errno);
        return false;
    }
    // Set on both sides, so that Stop finds the group whichever runs first.
    ::setpgid(_pid, _pid);
    return true;
}

void BackgroundProcess::Stop()
{
    if (_pid <= 0) return;
    ::kill(-_pid, SIGTERM);
    if (!Reaped(_pid, STOP_LIMIT)) {
        ::kill(-_pid, SIGKILL);
        Reaped(_pid, STOP_LIMIT);
    }
    // Children of the group that outlived their leader.
    ::kill(-_pid, SIGKILL);
    _pid = -1;
}

bool WaitForPath(const std::string& path, double seconds)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    struct stat info {};
    while (::stat(path.c_str(), &info) != 0) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(POLL);
    }
    return true;
}

Namespaces::~Namespaces()
{
    std::string ignored;
    for (const auto& made : _made) RunIp({"netns", "del", made}, ignored);
}

std::string Namespaces::Name(const std::string& name) const
{
    return "mf" + std::to_string(::getpid()) + name;
}

bool Namespaces::Add(const std::string& name, std::string& error)
{
    const std::string made = Name(name);
    if (!RunIp({"netns", "add", made}, error)) return false;
    _made.push_back(made);
    return RunIp({"-n", made, "link", "set", "lo", "up"}, error);
}

bool Namespaces::Link(const std::string& first, const std::string& second, int subnet, std::string& error)
{
    // Interface names stay within the kernel's 15 characters.
    const std::string near = "v" + std::to_string(::getpid()) + "n" + std::to_string(subnet);
    const std::string far = "v" + std::to_string(::getpid()) + "f" + std::to_string(subnet);
    const std::string net = "10.77." + std::to_string(subnet) + ".";
    return RunIp({"link", "add", near, "netns", Name(first), "type", "veth", "peer", "name", far, "netns",
                  Name(second)},
                 error) &&
           RunIp({"-n", Name(first), "addr", "add", net + "1/24", "dev", near}, error) &&
           RunIp({"-n", Name(first), "link", "set", near, "up"}, error) &&
           RunIp({"-n", Name(second), "addr", "add", net + "2/24", "dev", far}, error) &&
           RunIp({"-n", Name(second), "link", "set", far, "up"}, error);
}

std::vector<std::string> Namespaces::Inside(const std::string& name, const std::vector<std::string>& argv) const
{
    std::vector<std::string> command{"ip", "netns", "exec", Name(name)};
    const std::vector<std::string> program = testsupport::WithEmulator(argv);
    command.insert(command.end(), program.begin(), program.end());
    return command;
}

std::string NamespacesUnavailable()
{
    if (::geteuid() != 0) return "named network namespaces need root";
    bool ipFound = false;
    for (const char* path : {"/usr/sbin/ip", "/sbin/ip", "/usr/bin/ip", "/bin/ip"}) ipFound = ipFound || ::access(path, X_OK) == 0;
    if (!ipFound) return "no ip tool (iproute2) here";
    // Two namespaces and a link between them, as the test needs: a kernel or
    // container may allow the one and not the other.
    Namespaces probe;
    std::string error;
    if (!probe.Add("probe1", error) || !probe.Add("probe2", error) || !probe.Link("probe1", "probe2", 99, error))
        return "cannot make linked network namespaces here: " + error;
    return "";
}

}  // namespace agenttest
