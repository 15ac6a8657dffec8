// markforge::helperProcess: one run of a signing helper. The helper gets its
// own process group, the input on its standard input and a deadline; its
// standard output is kept up to a bound, the end of its standard error
// always. At the deadline the whole group is killed, so that a helper that
// hangs, or leaves children behind that hold its output open, cannot hold
// up the build.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace markforge {

struct helperRun {
    bool started = false;
    std::string startFailure;  // why the command could not be run
    bool timedOut = false;
    int exitCode = -1;  // when it exited
    int signal = 0;     // when a signal ended it
    std::vector<uint8_t> output;  // its standard output, at most the bound
    bool outputTooLong = false;   // it wrote more than the bound
    std::string errorTail;        // the last bytes of its standard error

    // "exited with status 3", "was killed by signal 9", ...
    std::string EndText() const;
    // The last `lines` lines of the standard error, joined by " | ".
    std::string LastErrorLines(size_t lines) const;
};

struct helperCall {
    std::vector<std::string> words;        // the command and its arguments; the first is looked up in PATH
    std::vector<std::string> environment;  // NAME=VALUE set on top of this process's environment
    std::vector<uint8_t> input;            // written to its standard input, which is then closed
    size_t outputLimit = 0;                // standard output bytes kept
    double timeoutSeconds = 60;
};

class helperProcess {
public:
    // How much of the end of the standard error is kept.
    static constexpr size_t ERROR_TAIL_BYTES = 16 * 1024;

    static helperRun Run(const helperCall& call);
};

}  // namespace markforge
