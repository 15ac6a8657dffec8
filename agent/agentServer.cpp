// The listener and the serving loops' threads.
#include "agentServer.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "peerUid.h"
#include "servingLoop.h"

namespace agent {

size_t ServerShared::UserShare() const
{
    if (settings.maxConnectionsPerUser > 0) return settings.maxConnectionsPerUser;
    return std::max<size_t>(1, settings.maxConnections / 2);
}

bool ServerShared::TakeUserSlot(uid_t uid)
{
    std::lock_guard<std::mutex> lock(_usersMutex);
    size_t& held = _perUser[uid];
    if (held >= UserShare()) return false;
    ++held;
    return true;
}

void ServerShared::ReleaseUserSlot(uid_t uid)
{
    std::lock_guard<std::mutex> lock(_usersMutex);
    const auto found = _perUser.find(uid);
    if (found == _perUser.end()) return;
    if (--found->second == 0) _perUser.erase(found);
}

AgentServer::AgentServer(ServerSettings settings, const KeyStore& keys, const KeyPolicy& policy, AuditLog& log)
    : _shared(std::move(settings), keys, policy, log)
{
}

AgentServer::~AgentServer()
{
    if (_shared.listener >= 0) ::close(_shared.listener);
}

bool AgentServer::Listen(std::string& error)
{
    _shared.listener = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (_shared.listener < 0) {
        error = std::string("socket: ") + std::strerror(errno);
        return false;
    }
    const int on = 1;
    ::setsockopt(_shared.listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in& address = _shared.address;
    address.sin_family = AF_INET;
    address.sin_port = htons(_shared.settings.port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (::bind(_shared.listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(_shared.listener, SOMAXCONN) != 0 ||
        ::getsockname(_shared.listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        error = "cannot listen on 127.0.0.1:" + std::to_string(_shared.settings.port) + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

bool AgentServer::OwnerLookupWorks(std::string& error)
{
    _shared.ownersKnown = PeerUid::Works(_shared.listener, _shared.address, error);
    return _shared.ownersKnown;
}

// Each loop is a thread that does all of a request's work, so no request
// is handed from one thread to another: on a machine whose cores are all
// busy signing, every hand-over would cost two thread switches.
bool AgentServer::Run(int stopFd, std::string& error)
{
    std::vector<std::unique_ptr<ServingLoop>> loops;
    for (size_t i = 0; i < std::max<size_t>(_shared.settings.workers, 1); ++i) {
        loops.push_back(std::make_unique<ServingLoop>(_shared));
        if (!loops.back()->Watch(stopFd, error)) return false;
    }
    std::vector<std::thread> threads;
    for (auto& loop : loops) threads.emplace_back([&loop] { loop->Run(); });
    for (auto& thread : threads) thread.join();
    return true;
}

}  // namespace agent
