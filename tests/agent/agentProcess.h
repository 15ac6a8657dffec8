// Runs the built markforge-agent as a child process for a test: started on a
// port it picks itself (or on a given one), its standard error kept in a
// file, stopped with SIGTERM. Every wait is bounded.
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <nlohmann/json.hpp>
#include "signAgentPeer.h"
#include <string>
#include <vector>

namespace agenttest {

class AgentProcess {
public:
    // `folder` holds the port file and the agent's output.
    explicit AgentProcess(std::string folder);
    ~AgentProcess();
    AgentProcess(const AgentProcess&) = delete;
    AgentProcess& operator=(const AgentProcess&) = delete;

    // Starts the agent with `args` plus --port-file (and --port 0 unless
    // `args` names a port) and waits until it listens. False with the
    // reason (and the agent's standard error) in `error`.
    bool Start(const std::vector<std::string>& args, std::string& error);
    // Words put before the agent's command line from the next Start on (ip
    // netns exec NAME, env VAR=VALUE, ...); each must exec the rest.
    void RunThrough(std::vector<std::string> prefix) { _prefix = std::move(prefix); }
    // Whether the agent is still running (it has not exited by itself).
    bool Running();
    // Starts the agent on 127.0.0.1:8001 for the library's signer, holding
    // the machine-wide port lock through `lock` (kept by the caller until
    // the agent has stopped). While another program holds the port, tries
    // again for a bounded time.
    bool StartOnSignAgentPort(testsupport::SignAgentPeer& lock, std::vector<std::string> args, std::string& error);
    unsigned short Port() const { return _port; }
    // Sends `signal` and waits for the exit; the exit status, or -1 when it
    // had to be killed (or was not running).
    int Stop(int signal = SIGTERM);
    // Sends `signal` to the running agent, which goes on running.
    void Signal(int signal) const;
    // The agent's standard error so far.
    std::string Errors() const;
    // The audit lines of this event kind ("request", "stop", ...).
    std::vector<nlohmann::json> Events(const std::string& kind) const;
    // Waits until `count` request lines are logged; false after 20 s.
    bool WaitForRequests(size_t count) const;
    // Waits until `count` lines of this event kind are logged; false after
    // 20 s.
    bool WaitForEvents(const std::string& kind, size_t count) const;

private:
    std::string _folder;
    pid_t _pid = -1;
    unsigned short _port = 0;
    std::vector<std::string> _prefix;
};

// The path of the built markforge-agent.
std::string AgentPath();

}  // namespace agenttest
