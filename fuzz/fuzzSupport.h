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
#include <vector>

#include "lbBase.h"
#include "lbGlobal.h"
#include "lbScoped.h"

namespace fuzzsupport {

// The scratch files of this process, removed when it exits: libFuzzer ends
// a timed run with exit(), and a run that found a crash keeps its input in
// the artifact, not here.
inline std::vector<std::string>& ScratchFiles()
{
    static std::vector<std::string>* files = new std::vector<std::string>;
    return *files;
}

inline void RemoveScratchFiles()
{
    for (const std::string& path : ScratchFiles()) unlink(path.c_str());
}

// A file in memory-backed /dev/shm (or /tmp), unique to this process and
// removed at its exit.
inline std::string ScratchPath(const char* name)
{
    static const bool registered = std::atexit(RemoveScratchFiles) == 0;
    (void)registered;
    const char* dir = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
    const std::string path = std::string(dir) + "/markforge-fuzz-" + std::to_string(getpid()) + "-" + name;
    ScratchFiles().push_back(path);
    return path;
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
