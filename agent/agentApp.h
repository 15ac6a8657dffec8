// The agent from start to end: keys, token login, listener, serving until
// SIGTERM or SIGINT (SIGHUP reopens the audit log, SIGUSR1 logs the counts),
// summary.
#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>
#include <sys/types.h>

#include "agentOptions.h"
#include "auditLog.h"
#include "keyStore.h"
#include "pkcs11Token.h"

namespace agent {

class AgentApp {
public:
    // The exit status: 0 after a clean stop (or a good --check), 1 when the
    // agent cannot start, with the reason on standard error.
    int Run(const AgentOptions& options);

private:
    bool LoadKeys(const AgentOptions& options, std::string& error);
    // What the first line of each audit log file names: when the agent
    // started and the keys it serves.
    nlohmann::ordered_json StartFields() const;
    static int VerifyAudit(const std::vector<std::string>& files);
    int Check() const;
    int Serve(const AgentOptions& options);
    void Control(int controlFd, int stopFd, const class AgentServer& server);
    static bool ResolveUsers(const std::vector<std::string>& names, std::set<uid_t>& uids, std::string& error);
    // --allow-key-user KEY:USER, each KEY one the agent serves.
    bool ResolveKeyUsers(const std::vector<std::string>& pairs, std::map<std::string, std::set<uid_t>>& keyUsers,
                         std::string& error) const;
    static int Fail(const std::string& reason);

    AuditLog _log;
    std::string _started = AuditLog::Now();
    std::vector<std::string> _skipped;  // key folder files that name no key
    // Declared before the store: the token's keys must go first.
    std::unique_ptr<Pkcs11Token> _token;
    KeyStore _keys;
};

}  // namespace agent
