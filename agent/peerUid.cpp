// One exact inet_diag lookup per connection: the request names the client's
// socket by its four address parts, the answer carries its owner.
#include "peerUid.h"

#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace agent {
namespace {

constexpr int REPLY_TIMEOUT_MS = 1000;

struct DiagRequest {
    nlmsghdr header;
    inet_diag_req_v2 body;
};

DiagRequest MakeRequest(const sockaddr_in& client, const sockaddr_in& server)
{
    DiagRequest request{};
    request.header.nlmsg_len = sizeof request;
    request.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    request.header.nlmsg_flags = NLM_F_REQUEST;
    request.body.sdiag_family = AF_INET;
    request.body.sdiag_protocol = IPPROTO_TCP;
    // Only a socket some process still holds: one its owner closed (or in
    // TIME_WAIT) is an orphan that the kernel reports as uid 0.
    request.body.idiag_states = (1U << TCP_ESTABLISHED) | (1U << TCP_FIN_WAIT1) | (1U << TCP_FIN_WAIT2);
    request.body.id.idiag_sport = client.sin_port;
    request.body.id.idiag_dport = server.sin_port;
    request.body.id.idiag_src[0] = client.sin_addr.s_addr;
    request.body.id.idiag_dst[0] = server.sin_addr.s_addr;
    request.body.id.idiag_cookie[0] = INET_DIAG_NOCOOKIE;
    request.body.id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
    return request;
}

// Reads the answer to the request: the uid, or the kernel's error.
bool ReadReply(int fd, uid_t& uid, std::string& error)
{
    pollfd ready{fd, POLLIN, 0};
    if (::poll(&ready, 1, REPLY_TIMEOUT_MS) != 1) {
        error = "no answer from sock_diag";
        return false;
    }
    uint8_t buffer[8192];
    const ssize_t got = ::recv(fd, buffer, sizeof buffer, 0);
    if (got < 0) {
        error = std::string("sock_diag: ") + std::strerror(errno);
        return false;
    }
    // Messages are copied out rather than cast in place: the buffer makes
    // no alignment promise.
    const size_t size = static_cast<size_t>(got);
    for (size_t at = 0; at + sizeof(nlmsghdr) <= size;) {
        nlmsghdr header;
        std::memcpy(&header, buffer + at, sizeof header);
        if (header.nlmsg_len < sizeof header || header.nlmsg_len > size - at) break;
        const uint8_t* payload = buffer + at + NLMSG_HDRLEN;
        if (header.nlmsg_type == NLMSG_ERROR && header.nlmsg_len >= NLMSG_LENGTH(sizeof(nlmsgerr))) {
            nlmsgerr failure;
            std::memcpy(&failure, payload, sizeof failure);
            error = std::string("sock_diag: ") + std::strerror(-failure.error);
            return false;
        }
        if (header.nlmsg_type == SOCK_DIAG_BY_FAMILY && header.nlmsg_len >= NLMSG_LENGTH(sizeof(inet_diag_msg))) {
            inet_diag_msg message;
            std::memcpy(&message, payload, sizeof message);
            if (message.idiag_inode == 0) {
                error = "the client's socket has no owner any more (closed)";
                return false;
            }
            uid = message.idiag_uid;
            return true;
        }
        at += NLMSG_ALIGN(header.nlmsg_len);
    }
    error = "no live client socket (closed, or not a connection from this machine)";
    return false;
}

}  // namespace

PeerUid::~PeerUid()
{
    if (_fd >= 0) ::close(_fd);
}

bool PeerUid::Lookup(const sockaddr_in& client, const sockaddr_in& server, uid_t& uid, std::string& error)
{
    if (_fd < 0) _fd = ::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);
    if (_fd < 0) {
        error = std::string("sock_diag socket: ") + std::strerror(errno);
        return false;
    }
    DiagRequest request = MakeRequest(client, server);
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    if (::sendto(_fd, &request, sizeof request, 0, reinterpret_cast<sockaddr*>(&kernel), sizeof kernel) < 0) {
        error = std::string("sock_diag send: ") + std::strerror(errno);
        return false;
    }
    if (ReadReply(_fd, uid, error)) return true;
    // A late or stray answer must not be taken for the next connection's.
    ::close(_fd);
    _fd = -1;
    return false;
}

bool PeerUid::Works(int listener, const sockaddr_in& server, std::string& error)
{
    const int client = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (client < 0) {
        error = std::string("socket: ") + std::strerror(errno);
        return false;
    }
    sockaddr_in local{};
    socklen_t length = sizeof local;
    bool works = ::connect(client, reinterpret_cast<const sockaddr*>(&server), sizeof server) == 0 &&
                 ::getsockname(client, reinterpret_cast<sockaddr*>(&local), &length) == 0;
    if (!works) error = std::string("cannot connect to the agent's own port: ") + std::strerror(errno);
    uid_t uid = 0;
    if (works) works = PeerUid().Lookup(local, server, uid, error);
    if (works && uid != ::geteuid()) {
        error = "sock_diag names uid " + std::to_string(uid) + " as the owner of the agent's own connection";
        works = false;
    }
    // A loopback connect is complete when it returns, so the connection is
    // queued already; taken off here, no serving loop ever sees it.
    const int accepted = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (accepted >= 0) ::close(accepted);
    ::close(client);
    return works;
}

}  // namespace agent
