// The agent's command line.
#pragma once

#include <string>
#include <vector>

#include "signAgentProtocol.h"

namespace agent {

struct AgentOptions {
    std::string keyDir;
    std::string pkcs11Module;
    std::string token;
    std::string pinFile;  // "-": standard input
    std::vector<std::string> pkcs11Uris;  // one key each
    std::vector<std::string> allowKeys;
    std::vector<std::string> allowUsers;
    std::vector<std::string> allowKeyUsers;  // KEY:USER
    size_t rateLimit = 0;                    // signatures per minute per user; 0: off
    unsigned short port = markforge::SIGN_AGENT_PORT;
    std::string portFile;
    size_t workers = 0;  // 0: one per core
    size_t maxConnections = 256;
    size_t maxConnectionsPerUser = 0;  // 0: half of maxConnections
    double readTimeout = 5.0;  // seconds
    std::string auditLog;
    std::string metricsFile;     // empty: none
    double metricsInterval = 5;  // seconds between rewrites
    bool check = false;
    std::vector<std::string> verifyAudit;  // audit log files whose chain to check, in order

    // Parses the command line. Returns -1 to go on, otherwise the exit
    // status (0 after --help or --version, 2 after a usage error, with the
    // message printed).
    int Parse(int argc, char** argv);
};

}  // namespace agent
