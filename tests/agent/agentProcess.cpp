// The agent child process.
#include "agentProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>

#include "testSupport.h"

namespace agenttest {
namespace {

constexpr auto START_TIMEOUT = std::chrono::seconds(20);
constexpr auto STOP_TIMEOUT = std::chrono::seconds(20);
constexpr auto POLL_STEP = std::chrono::milliseconds(10);
// A program that ignores the port lock may hold 8001 for a while.
constexpr auto PORT_BUSY_TIMEOUT = std::chrono::seconds(60);
constexpr auto PORT_BUSY_RETRY = std::chrono::milliseconds(200);

std::string Slurp(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// Waits for the child to end within `limit`; its status, or -2 when it is
// still running.
int WaitExit(pid_t pid, std::chrono::steady_clock::duration limit)
{
    const auto deadline = std::chrono::steady_clock::now() + limit;
    do {
        int status = 0;
        if (::waitpid(pid, &status, WNOHANG) == pid)
            return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        std::this_thread::sleep_for(POLL_STEP);
    } while (std::chrono::steady_clock::now() < deadline);
    return -2;
}

[[noreturn]] void ExecAgent(const std::vector<std::string>& args, const std::string& folder)
{
    const int in = ::open("/dev/null", O_RDONLY);
    const int out = ::open((folder + "/agent.out").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    const int err = ::open((folder + "/agent.err").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    ::dup2(in, 0);
    ::dup2(out, 1);
    ::dup2(err, 2);
    std::vector<char*> argv;
    for (const auto& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    ::execvp(argv[0], argv.data());  // the emulator, in a cross build, is found on PATH
    ::_exit(127);
}

}  // namespace

std::string AgentPath()
{
    return MARKFORGE_AGENT_BINARY;
}

AgentProcess::AgentProcess(std::string folder) : _folder(std::move(folder)) {}

AgentProcess::~AgentProcess()
{
    Stop();
}

bool AgentProcess::Start(const std::vector<std::string>& args, std::string& error)
{
    const std::string portFile = _folder + "/agent.port";
    std::vector<std::string> command{AgentPath(), "--port-file", portFile};
    if (std::find(args.begin(), args.end(), "--port") == args.end()) command.insert(command.end(), {"--port", "0"});
    command.insert(command.end(), args.begin(), args.end());
    command = testsupport::WithEmulator(command);
    command.insert(command.begin(), _prefix.begin(), _prefix.end());
    ::unlink(portFile.c_str());
    _pid = ::fork();
    if (_pid == 0) ExecAgent(command, _folder);
    const auto deadline = std::chrono::steady_clock::now() + START_TIMEOUT;
    while (std::chrono::steady_clock::now() < deadline) {
        const std::string port = Slurp(portFile);
        if (!port.empty()) {
            _port = static_cast<unsigned short>(std::stoi(port));
            return true;
        }
        const int status = WaitExit(_pid, POLL_STEP);
        if (status != -2) {
            _pid = -1;
            error = "the agent exited with status " + std::to_string(status) + ": " + Errors();
            return false;
        }
    }
    error = "the agent did not listen in time: " + Errors();
    return false;
}

bool AgentProcess::StartOnSignAgentPort(testsupport::SignAgentPeer& lock, std::vector<std::string> args,
                                        std::string& error)
{
    args.insert(args.end(), {"--port", "8001"});
    const auto deadline = std::chrono::steady_clock::now() + PORT_BUSY_TIMEOUT;
    for (;;) {
        if (lock.ReservePort(error) && Start(args, error)) return true;
        if (error.find("in use") == std::string::npos || std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(PORT_BUSY_RETRY);
    }
}

bool AgentProcess::Running()
{
    if (_pid <= 0) return false;
    if (::waitpid(_pid, nullptr, WNOHANG) != _pid) return true;
    _pid = -1;
    return false;
}

int AgentProcess::Stop(int signal)
{
    if (_pid <= 0) return -1;
    ::kill(_pid, signal);
    int status = WaitExit(_pid, STOP_TIMEOUT);
    if (status == -2) {
        ::kill(_pid, SIGKILL);
        WaitExit(_pid, STOP_TIMEOUT);
        status = -1;
    }
    _pid = -1;
    return status;
}

std::string AgentProcess::Errors() const
{
    return Slurp(_folder + "/agent.err");
}

std::vector<nlohmann::json> AgentProcess::Events(const std::string& kind) const
{
    std::vector<nlohmann::json> events;
    std::istringstream lines(Errors());
    for (std::string line; std::getline(lines, line);) {
        const nlohmann::json event = nlohmann::json::parse(line, nullptr, false);
        if (!event.is_discarded() && event.value("event", "") == kind) events.push_back(event);
    }
    return events;
}

void AgentProcess::Signal(int signal) const
{
    if (_pid > 0) ::kill(_pid, signal);
}

bool AgentProcess::WaitForRequests(size_t count) const
{
    return WaitForEvents("request", count);
}

bool AgentProcess::WaitForEvents(const std::string& kind, size_t count) const
{
    const auto deadline = std::chrono::steady_clock::now() + START_TIMEOUT;
    while (Events(kind).size() < count) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(POLL_STEP);
    }
    return true;
}

}  // namespace agenttest
