// The agent's network side: a listener on 127.0.0.1 and a fixed number of
// serving loops, each a thread that accepts, reads, signs and answers on
// its own (see servingLoop.h).
#pragma once

#include <netinet/in.h>
#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <utility>

#include "agentMetrics.h"
#include "auditLog.h"
#include "keyStore.h"

#include "keyPolicy.h"
#include "rateLimit.h"
#include "signAgentProtocol.h"

namespace agent {

struct ServerSettings {
    unsigned short port = markforge::SIGN_AGENT_PORT;
    size_t workers = 1;
    size_t maxConnections = 256;
    // Open connections one user may hold, so that no user can starve the
    // others of the slots; 0: half of maxConnections.
    size_t maxConnectionsPerUser = 0;
    std::chrono::milliseconds readTimeout{5000};
    std::set<uid_t> allowedUsers;  // empty: every user
    size_t rateLimit = 0;          // signatures per minute per user; 0: no limit
};

// What every serving loop shares: the settings, the keys and the log, the
// listener, and the counts that hold across loops.
struct ServerShared {
    ServerShared(ServerSettings settings, const KeyStore& keys, const KeyPolicy& policy, AuditLog& log)
        : settings(std::move(settings)), keys(keys), policy(policy), log(log), rate(this->settings.rateLimit)
    {
    }

    const ServerSettings settings;
    const KeyStore& keys;
    const KeyPolicy& policy;
    AuditLog& log;
    RateLimit rate;
    AgentMetrics metrics;
    int listener = -1;
    sockaddr_in address{};
    // Whether the kernel names connection owners here at all (checked at
    // start); where it does, a connection whose owner it cannot name is
    // refused.
    bool ownersKnown = true;
    std::atomic<size_t> open{0};
    std::atomic<size_t> signedCount{0};
    std::atomic<size_t> refusedCount{0};

    // The per-user share of the connection slots.
    size_t UserShare() const;
    // Takes one of `uid`'s slots; false when it holds its share already.
    bool TakeUserSlot(uid_t uid);
    void ReleaseUserSlot(uid_t uid);

private:
    std::mutex _usersMutex;
    std::map<uid_t, size_t> _perUser;
};

class AgentServer {
public:
    AgentServer(ServerSettings settings, const KeyStore& keys, const KeyPolicy& policy, AuditLog& log);
    ~AgentServer();
    AgentServer(const AgentServer&) = delete;
    AgentServer& operator=(const AgentServer&) = delete;

    // Binds and listens on 127.0.0.1 at the set port (0: any free one).
    bool Listen(std::string& error);
    // Whether the owner of a connection can be looked up here (see
    // PeerUid::Works); call after Listen, before Run.
    bool OwnerLookupWorks(std::string& error);
    // The port listened on.
    unsigned short Port() const { return ntohs(_shared.address.sin_port); }
    // Serves until `stopFd` becomes readable (it is never read, so every
    // loop sees it); then stops accepting, finishes the requests in flight
    // and returns true. False with the reason in `error` when the loops
    // cannot be set up.
    bool Run(int stopFd, std::string& error);

    size_t Signed() const { return _shared.signedCount; }
    size_t OpenConnections() const { return _shared.open; }
    size_t Refused() const { return _shared.refusedCount; }
    const AgentMetrics& Metrics() const { return _shared.metrics; }

private:
    ServerShared _shared;
};

}  // namespace agent
