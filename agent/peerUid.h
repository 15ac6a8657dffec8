// Who owns the other end of a loopback TCP connection, asked of the kernel's
// socket diagnostics (NETLINK_SOCK_DIAG, inet_diag).
#pragma once

#include <netinet/in.h>
#include <sys/types.h>

#include <string>

namespace agent {

// One netlink socket, opened at the first lookup and kept; for one thread.
class PeerUid {
public:
    PeerUid() = default;
    ~PeerUid();
    PeerUid(const PeerUid&) = delete;
    PeerUid& operator=(const PeerUid&) = delete;

    // The uid owning the TCP socket whose local address is `client` and
    // whose remote address is `server` (both as accept/getsockname give
    // them). False with the reason in `error` when the kernel does not name
    // a live, connected socket held by a process: a client that has already
    // closed its end has no owner, and is never taken for root.
    bool Lookup(const sockaddr_in& client, const sockaddr_in& server, uid_t& uid, std::string& error);

    // Whether lookups work on this system: connects to `listener` (bound to
    // `server`, not yet served), takes that connection off its queue again,
    // and asks who owns it, which must be this process's user. False with
    // the reason in `error` (a kernel without socket diagnostics, an
    // emulator that refuses them).
    static bool Works(int listener, const sockaddr_in& server, std::string& error);

private:
    int _fd = -1;
};

}  // namespace agent
