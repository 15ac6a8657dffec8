// markforge::fileReader: open, bounds checks and buffered reads.
#include "fileReader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace markforge {
namespace {

// Large reads keep system calls few; the buffer is allocated once per reader.
constexpr size_t CHUNK = 1 << 20;

}  // namespace

fileReader::~fileReader()
{
    if (_fd >= 0) close(_fd);
}

bool fileReader::Open(const std::string& path, std::string& reason)
{
    _path = path;
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat info;
    if (fd < 0 || fstat(fd, &info) != 0) {
        reason = "cannot read " + path + ": " + std::strerror(errno);
        if (fd >= 0) close(fd);
        return false;
    }
    if (!S_ISREG(info.st_mode)) {
        reason = path + " is not a regular file";
        close(fd);
        return false;
    }
    _fd = fd;
    _size = static_cast<uint64_t>(info.st_size);
    posix_fadvise(_fd, 0, 0, POSIX_FADV_SEQUENTIAL);
    return true;
}

bool fileReader::Contains(uint64_t offset, uint64_t length) const
{
    return offset <= _size && length <= _size - offset;
}

bool fileReader::Read(uint64_t offset, uint64_t length, std::vector<uint8_t>& out, std::string& reason) const
{
    out.clear();
    if (!Contains(offset, length)) {
        reason = "the range ends past the end of the file";
        return false;
    }
    out.reserve(static_cast<size_t>(length));
    return Stream(offset, length, [&out](const uint8_t* data, size_t n) { out.insert(out.end(), data, data + n); },
                  reason);
}

bool fileReader::ReadInto(uint64_t offset, size_t length, uint8_t* into, std::string& reason) const
{
    if (!Contains(offset, length)) {
        reason = "the range ends past the end of the file";
        return false;
    }
    while (length > 0) {
        const ssize_t n = pread(_fd, into, length, static_cast<off_t>(offset));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            // The size was taken at Open: a file cut short since reads 0 here.
            reason = "cannot read " + _path + ": " + (n == 0 ? "the file became shorter" : std::strerror(errno));
            return false;
        }
        into += n;
        offset += static_cast<uint64_t>(n);
        length -= static_cast<size_t>(n);
    }
    return true;
}

bool fileReader::Stream(uint64_t offset, uint64_t length, const sink& to, std::string& reason) const
{
    if (!Contains(offset, length)) {
        reason = "the range ends past the end of the file";
        return false;
    }
    if (_buffer.empty()) _buffer.resize(CHUNK);
    while (length > 0) {
        const size_t want = length < CHUNK ? static_cast<size_t>(length) : CHUNK;
        if (!ReadInto(offset, want, _buffer.data(), reason)) return false;
        to(_buffer.data(), want);
        offset += want;
        length -= want;
    }
    return true;
}

}  // namespace markforge
