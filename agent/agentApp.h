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
#include "keySources.h"

namespace agent {

class AgentApp {
public:
    // The exit status: 0 after a clean stop (or a good --check), 1 when the
    // agent cannot start, with the reason on standard error.
    int Run(const AgentOptions& options);

private:
    // What the first line of each audit log file names: when the agent
    // started and the keys it serves.
    nlohmann::ordered_json StartFields() const;
    static int VerifyAudit(const std::vector<std::string>& files);
    int Check() const;
    int Serve(const AgentOptions& options);
    void Control(int controlFd, int stopFd, const class AgentServer& server);
    void WriteMetrics(const class AgentServer& server);
    static int Fail(const std::string& reason);

    AuditLog _log;
    std::string _metricsFile;
    double _metricsInterval = 5;
    std::string _metricsError;  // the last failure logged
    std::string _started = AuditLog::Now();
    // Declared before the store: the tokens' keys must go before their
    // modules.
    KeySources _sources;
    KeyStore _keys;
};

}  // namespace agent
