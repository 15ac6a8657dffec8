// Who owns the other end of a loopback TCP connection, asked of the kernel's
// socket diagnostics (NETLINK_SOCK_DIAG, inet_diag).
#pragma once

#include <netinet/in.h>
#include <sys/types.h>

#include <string>

namespace agent {

class PeerUid {
public:
    // The uid owning the TCP socket whose local address is `client` and
    // whose remote address is `server` (both as accept/getsockname give
    // them). False with the reason in `error` when the kernel does not say.
    static bool Lookup(const sockaddr_in& client, const sockaddr_in& server, uid_t& uid, std::string& error);
};

}  // namespace agent
