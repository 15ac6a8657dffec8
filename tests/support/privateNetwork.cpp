// unshare(CLONE_NEWNET) and the loopback brought up with SIOCSIFFLAGS.
#include "privateNetwork.h"

#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

namespace testsupport {
namespace {

bool LoopbackUp()
{
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    ifreq request{};
    std::strncpy(request.ifr_name, "lo", IFNAMSIZ - 1);
    bool up = ::ioctl(fd, SIOCGIFFLAGS, &request) == 0;
    request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP | IFF_RUNNING);
    up = up && ::ioctl(fd, SIOCSIFFLAGS, &request) == 0;
    ::close(fd);
    return up;
}

}  // namespace

bool EnterPrivateNetwork()
{
    static const bool entered = [] {
        if (::geteuid() != 0) return false;
        const int original = ::open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
        if (original < 0 || ::unshare(CLONE_NEWNET) != 0) {
            if (original >= 0) ::close(original);
            return false;
        }
        // A namespace without a working loopback would break every test
        // that uses it: then back to the machine's.
        const bool up = LoopbackUp();
        if (!up) ::setns(original, CLONE_NEWNET);
        ::close(original);
        return up;
    }();
    return entered;
}

}  // namespace testsupport
