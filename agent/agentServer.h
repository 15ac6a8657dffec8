// The agent's network side: a listener on 127.0.0.1, one thread that reads
// requests from every open connection at once (each with its own deadline),
// and a pool of workers that sign and answer.
#pragma once

#include <netinet/in.h>
#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "auditLog.h"
#include "keyStore.h"
#include "peerUid.h"
#include "signRequest.h"
#include "workerPool.h"

namespace agent {

struct ServerSettings {
    unsigned short port = 8001;
    size_t workers = 1;
    size_t maxConnections = 256;
    std::chrono::milliseconds readTimeout{5000};
    std::set<uid_t> allowedUsers;  // empty: every user
};

class AgentServer {
public:
    AgentServer(ServerSettings settings, const KeyStore& keys, const KeyPolicy& policy, AuditLog& log);
    ~AgentServer();
    AgentServer(const AgentServer&) = delete;
    AgentServer& operator=(const AgentServer&) = delete;

    // Binds and listens on 127.0.0.1 at the set port (0: any free one).
    bool Listen(std::string& error);
    // The port listened on.
    unsigned short Port() const { return ntohs(_address.sin_port); }
    // Serves until `stopFd` becomes readable; then stops accepting, finishes
    // the requests in flight and returns.
    void Run(int stopFd);

    size_t Signed() const { return _signed; }
    size_t Refused() const { return _refused; }

private:
    struct Connection {
        int fd = -1;
        RequestRecord record;
        std::chrono::steady_clock::time_point start, deadline;
        std::vector<uint8_t> bytes;
    };

    // What a connection needs after a read.
    enum class Next { Wait, Sign, Refuse };

    void Accept();
    void ReadFrom(int fd);
    // Reads what has arrived; true when the client has hung up.
    static bool Receive(Connection& connection);
    Next Judge(Connection& connection, bool ended, ParseResult& parsed);
    void Conclude(std::unique_ptr<Connection> connection, Next next, ParseResult parsed);
    void DropExpired();
    std::chrono::milliseconds UntilNextDeadline() const;
    void WatchListener(bool on);
    void Dispatch(std::unique_ptr<Connection> connection, SignRequest request);
    void Serve(Connection& connection, const SignRequest& request);
    void Refuse(std::unique_ptr<Connection> connection, const std::string& reason);
    void Finish(Connection& connection, const std::string& reason);
    std::unique_ptr<Connection> Release(int fd);

    ServerSettings _settings;
    const KeyStore& _keys;
    const KeyPolicy& _policy;
    AuditLog& _log;
    int _listener = -1;
    int _epoll = -1;
    bool _listening = false;
    sockaddr_in _address{};
    PeerUid _peers;
    std::map<int, std::unique_ptr<Connection>> _reading;
    std::atomic<size_t> _open{0};
    std::atomic<size_t> _signed{0};
    std::atomic<size_t> _refused{0};
    WorkerPool _pool;
};

}  // namespace agent
