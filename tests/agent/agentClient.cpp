// The raw test client.
#include "agentClient.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "peerUid.h"

namespace agenttest {

Bytes MakeRequest(const std::string& keyName, const Bytes& digest, const std::string& arguments)
{
    const size_t area = digest.size() == 32 ? 32 : 64;
    Bytes request(32 + area + 64, 0);
    std::copy(keyName.begin(), keyName.end(), request.begin());
    std::copy(digest.begin(), digest.end(), request.begin() + 32);
    std::copy(arguments.begin(), arguments.end(), request.begin() + 32 + area);
    return request;
}

std::string Arguments(size_t digestLength)
{
    return "F=image.bin;C=1;S=" + std::to_string(digestLength) + ";";
}

Bytes Pattern(size_t length, uint8_t first)
{
    Bytes bytes(length);
    for (size_t i = 0; i < length; ++i) bytes[i] = static_cast<uint8_t>(first + i);
    return bytes;
}

AgentConnection::AgentConnection(unsigned short port) : _fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (_fd >= 0 && ::connect(_fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) Close();
}

AgentConnection::~AgentConnection()
{
    Close();
}

bool AgentConnection::Send(const Bytes& bytes)
{
    return _fd >= 0 && ::send(_fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

bool AgentConnection::ReadToEnd(Bytes& answer, double seconds)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    uint8_t chunk[4096];
    while (_fd >= 0) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return false;
        pollfd ready{_fd, POLLIN, 0};
        if (::poll(&ready, 1, static_cast<int>(left.count())) <= 0) continue;
        const ssize_t got = ::recv(_fd, chunk, sizeof chunk, 0);
        if (got > 0) {
            answer.insert(answer.end(), chunk, chunk + got);
            continue;
        }
        if (got < 0 && errno == EINTR) continue;
        return true;
    }
    return false;
}

bool AgentConnection::StillOpen()
{
    pollfd ready{_fd, POLLIN, 0};
    return _fd >= 0 && ::poll(&ready, 1, 0) == 0;
}

void AgentConnection::Close()
{
    if (_fd >= 0) ::close(_fd);
    _fd = -1;
}

Bytes Exchange(unsigned short port, const Bytes& request, bool* closed)
{
    AgentConnection connection(port);
    Bytes answer;
    const bool ended = connection.Send(request) && connection.ReadToEnd(answer);
    if (closed) *closed = ended;
    return answer;
}

bool OwnerLookupWorks(std::string& why)
{
    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    const bool listening = listener >= 0 &&
                           ::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
                           ::listen(listener, 4) == 0 &&
                           ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) == 0;
    if (!listening) why = std::string("no test listener: ") + std::strerror(errno);
    const bool works = listening && agent::PeerUid::Works(listener, address, why);
    if (listener >= 0) ::close(listener);
    return works;
}

}  // namespace agenttest
