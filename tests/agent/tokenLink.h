// What the tests of a token reached over a link need: programs kept running
// in the background (p11-kit's server, socat forwarders), each in a process
// group of its own so that stopping it stops the children it forked for its
// connections too; and a set of network namespaces joined by veth links,
// standing for an HSM host and build hosts.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace agenttest {

// p11-kit's client module for the agent's architecture; empty where the
// build has none (a cross build).
constexpr const char* P11KIT_CLIENT_MODULE = MARKFORGE_TEST_P11KIT_CLIENT;

class BackgroundProcess {
public:
    BackgroundProcess() = default;
    ~BackgroundProcess();
    BackgroundProcess(const BackgroundProcess&) = delete;
    BackgroundProcess& operator=(const BackgroundProcess&) = delete;

    // Starts `argv` (argv[0] found on PATH) in a new process group, its
    // output appended to `log`. False with the reason in `error`.
    bool Start(const std::vector<std::string>& argv, const std::string& log, std::string& error);
    // SIGTERM to the whole group, SIGKILL after 10 s; waits for the leader.
    void Stop();
    bool Running() const { return _pid > 0; }

private:
    pid_t _pid = -1;
};

// Waits up to `seconds` for `path` to exist.
bool WaitForPath(const std::string& path, double seconds);

// Named network namespaces made for one test and removed with this object.
class Namespaces {
public:
    // Names are this prefix, the process id and `name`.
    ~Namespaces();
    // Makes a namespace with its loopback up; false with the reason.
    bool Add(const std::string& name, std::string& error);
    // Joins two namespaces with a veth pair on 10.77.`subnet`.0/24: `first`
    // gets .1 and `second` .2.
    bool Link(const std::string& first, const std::string& second, int subnet, std::string& error);
    // The system's name of a namespace made here.
    std::string Name(const std::string& name) const;
    // `argv` run inside namespace `name` (through ip netns exec).
    std::vector<std::string> Inside(const std::string& name, const std::vector<std::string>& argv) const;

private:
    std::vector<std::string> _made;
};

// Why linked namespaces cannot be made here (not root, no ip tool, the
// kernel refuses a namespace or a veth pair), or empty when they can.
std::string NamespacesUnavailable();

}  // namespace agenttest
