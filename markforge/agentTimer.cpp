// markforge::agentTimer: a watching thread that shuts the agent's
// connection down at the deadline.
#include "agentTimer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include "sign.h"

namespace markforge {
namespace {

// Descriptors are small numbers in this program; the agent's socket is
// among the first.
constexpr int HIGHEST_FD = 1024;
constexpr auto REPEAT = std::chrono::milliseconds(100);

bool IsAgentConnection(int fd)
{
    struct stat info;
    if (fstat(fd, &info) != 0 || !S_ISSOCK(info.st_mode)) return false;
    sockaddr_in peer{};
    socklen_t length = sizeof peer;
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length) != 0 || peer.sin_family != AF_INET) return false;
    return peer.sin_addr.s_addr == htonl(INADDR_LOOPBACK) && peer.sin_port == htons(SIGN_AGENT_PORT);
}

// The signer then reads end-of-file and gives up on this exchange.
void ShutDownAgentConnections()
{
    for (int fd = 3; fd < HIGHEST_FD; ++fd)
        if (IsAgentConnection(fd)) shutdown(fd, SHUT_RDWR);
}

}  // namespace

agentTimer::agentTimer(double seconds) : _seconds(seconds), _thread([this] { Watch(); }) {}

agentTimer::~agentTimer()
{
    {
        std::lock_guard<std::mutex> lock(_mutex);
        _stopping = true;
    }
    _changed.notify_all();
    _thread.join();
}

void agentTimer::Arm()
{
    {
        std::lock_guard<std::mutex> lock(_mutex);
        _armed = true;
        _deadline = std::chrono::steady_clock::now() +
                    std::chrono::duration_cast<std::chrono::steady_clock::duration>(std::chrono::duration<double>(_seconds));
    }
    _changed.notify_all();
}

void agentTimer::Disarm()
{
    {
        std::lock_guard<std::mutex> lock(_mutex);
        _armed = false;
    }
    _changed.notify_all();
}

bool agentTimer::Expired() const
{
    std::lock_guard<std::mutex> lock(_mutex);
    return _expired;
}

void agentTimer::Watch()
{
    std::unique_lock<std::mutex> lock(_mutex);
    while (!_stopping) {
        if (!_armed) {
            _changed.wait(lock);
            continue;
        }
        if (_changed.wait_until(lock, _deadline) == std::cv_status::no_timeout) continue;
        if (!_armed || _stopping) continue;
        _expired = true;
        _deadline = std::chrono::steady_clock::now() + REPEAT;
        ShutDownAgentConnections();
    }
}

}  // namespace markforge
