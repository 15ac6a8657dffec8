// Whole-file replacement of the metrics file.
#include "metricsFile.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "writeAll.h"

namespace agent {

bool ReplaceMetricsFile(const std::string& path, const std::string& text, std::string& error)
{
    // A name the collector skips (it reads *.prom only), made with O_EXCL.
    std::vector<char> temporary(path.begin(), path.end());
    const char suffix[] = ".XXXXXX";
    temporary.insert(temporary.end(), suffix, suffix + sizeof suffix);
    const int fd = ::mkstemp(temporary.data());
    if (fd < 0) {
        error = "cannot write the metrics file " + path + ": " + std::strerror(errno);
        return false;
    }
    const bool written = ::fchmod(fd, 0644) == 0 &&
                         markforge::WriteAll(fd, reinterpret_cast<const uint8_t*>(text.data()), text.size());
    const int saved = errno;
    const bool closed = ::close(fd) == 0;
    if (!written || !closed || std::rename(temporary.data(), path.c_str()) != 0) {
        error = "cannot write the metrics file " + path + ": " + std::strerror(written && closed ? errno : saved);
        ::unlink(temporary.data());
        return false;
    }
    return true;
}

}  // namespace agent
