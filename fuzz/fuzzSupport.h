// Helpers shared by the fuzz targets: a scratch file per target for the
// parsers that read from a path, a silenced standard output, and the
// lifecycle steps without trail bookkeeping.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "lbBase.h"
#include "lbGlobal.h"
#include "lbScoped.h"

namespace fuzzsupport {

// A file in memory-backed /dev/shm (or /tmp), unique to this process.
inline std::string ScratchPath(const char* name)
{
    const char* dir = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
    return std::string(dir) + "/markforge-fuzz-" + std::to_string(getpid()) + "-" + name;
}

// Replaces the file's content with the input; aborts when it cannot, since a
// stale file would make every later run test the wrong bytes.
inline void WriteInput(const std::string& path, const uint8_t* data, size_t size)
{
    FILE* file = std::fopen(path.c_str(), "wb");
    if (!file || (size && std::fwrite(data, 1, size, file) != size) || std::fclose(file) != 0) {
        std::perror(path.c_str());
        std::abort();
    }
}

// Some parsers trace what they read on standard output; libFuzzer reports on
// standard error, so standard output goes to /dev/null once per process.
inline void SilenceStdout()
{
    static const bool silenced = [] {
        std::fflush(stdout);
        const int null = open("/dev/null", O_WRONLY);
        return null >= 0 && dup2(null, STDOUT_FILENO) >= 0 && close(null) == 0;
    }();
    (void)silenced;
}

// The three opening steps (PreOpen and PostOpen must name the same line);
// false when one fails.
inline bool OpenObject(lbBase& object)
{
    return lbScoped::Open(object, __FILE__, __LINE__, [&] { return object.Open(); });
}

// The three closing steps, whatever the state, so the destructor finds the
// object closed.
inline void CloseObject(lbBase& object)
{
    lbScoped::Close(object);
}

}  // namespace fuzzsupport
