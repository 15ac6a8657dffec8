// Whole writes: loops over short writes and EINTR.
#include "writeAll.h"

#include <unistd.h>

#include <cerrno>

namespace markforge {

bool WriteAll(int fd, const uint8_t* data, size_t length)
{
    while (length > 0) {
        const ssize_t n = ::write(fd, data, length);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        data += n;
        length -= static_cast<size_t>(n);
    }
    return true;
}

bool WriteAllAt(int fd, const uint8_t* data, size_t length, uint64_t offset)
{
    while (length > 0) {
        const ssize_t n = ::pwrite(fd, data, length, static_cast<off_t>(offset));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        data += n;
        length -= static_cast<size_t>(n);
        offset += static_cast<uint64_t>(n);
    }
    return true;
}

}  // namespace markforge
