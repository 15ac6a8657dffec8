// One serving loop of the agent, run by one thread: it accepts connections
// from the shared listener, reads every connection it holds at once through
// its own epoll set (each with its own deadline, so a slow or silent client
// never holds it), and signs, checks and answers a complete request itself.
#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "agentServer.h"
#include "peerUid.h"
#include "signRequest.h"

namespace agent {

class ServingLoop {
public:
    explicit ServingLoop(ServerShared& shared);
    ~ServingLoop();
    ServingLoop(const ServingLoop&) = delete;
    ServingLoop& operator=(const ServingLoop&) = delete;

    // Makes the loop's epoll set and adds `stopFd` to it; false with the
    // reason in `error` when that fails.
    bool Watch(int stopFd, std::string& error);
    // Serves until the stop descriptor is readable and every connection
    // this loop holds is finished.
    void Run();

private:
    struct Connection {
        int fd = -1;
        bool holdsUserSlot = false;  // one of its owner's slots is taken
        RequestRecord record;
        std::chrono::steady_clock::time_point start, deadline;
        std::vector<uint8_t> bytes;
    };

    // What a connection needs after a read.
    enum class Next { Wait, Sign, Refuse };

    void AcceptOne();
    // Who owns the connection, asked before a byte of it is read: the
    // reason to refuse it, or empty when it may be served.
    std::string Admit(Connection& connection, const sockaddr_in& client);
    void ReadFrom(int fd);
    // Reads what has arrived; true when the client has hung up.
    static bool Receive(Connection& connection);
    Next Judge(Connection& connection, bool ended, ParseResult& parsed);
    void Conclude(std::unique_ptr<Connection> connection, Next next, ParseResult parsed);
    void DropExpired();
    std::chrono::milliseconds UntilNextDeadline() const;
    void WatchListener(bool on);
    void Serve(Connection& connection, const SignRequest& request);
    // Signs and answers; `reason` says why not.
    void SignAndSend(Connection& connection, const AgentKey& key, const std::vector<uint8_t>& digest,
                     std::string& reason);
    void Finish(Connection& connection, const std::string& reason);
    // Logs a refusal made before anything was read and closes at once.
    void Turn(Connection& connection, const std::string& reason);
    void Record(Connection& connection, const std::string& reason);
    std::unique_ptr<Connection> Release(int fd);

    ServerShared& _shared;
    int _epoll = -1;
    int _stopFd = -1;
    bool _listening = false;
    bool _stopping = false;
    PeerUid _peers;
    std::map<int, std::unique_ptr<Connection>> _reading;
};

}  // namespace agent
