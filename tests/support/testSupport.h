// Helpers shared by the tests: running built programs, temporary folders,
// files as bytes, and a clean framework state per test.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "lbGlobal.h"

namespace testsupport {

// What a finished child process left behind.
struct ProcessResult {
    int status = -1;       // exit status; 128 + signal number when killed
    bool signaled = false; // ended by a signal (a crash)
    std::string out;       // everything written to standard output
    std::string err;       // everything written to standard error
};

// The command line that starts `argv`: in a cross build, target programs go
// through the emulator the build was configured with.
std::vector<std::string> WithEmulator(const std::vector<std::string>& argv);

// Runs `argv` (argv[0] is the program path) with standard input from
// /dev/null, or from `input` when given, and waits for it.
ProcessResult Run(const std::vector<std::string>& argv, const std::string* input = nullptr);

// Runs `argv` with standard error on a pipe whose reader has gone, and
// SIGPIPE at its default action: the first write to standard error ends it.
ProcessResult RunWithBrokenStderr(const std::vector<std::string>& argv);

// Runs the built recaster with these arguments.
ProcessResult RunRecaster(const std::vector<std::string>& args);
// Runs the built markforge with these arguments.
ProcessResult RunMarkforge(const std::vector<std::string>& args);

// Runs `argv` on a new pseudo-terminal, as a user at a terminal would: once
// its output shows `prompt`, `typed` is written to the terminal. Standard
// output and standard error both arrive in `out`. A child still running after
// `seconds` is killed (reported as signaled).
ProcessResult RunOnTerminal(const std::vector<std::string>& argv, const std::string& prompt,
                            const std::string& typed, int seconds = 30);

// Runs the openssl command-line tool with these arguments; fails the test
// when it does not exit with 0.
ProcessResult Openssl(const std::vector<std::string>& args, const std::string* input = nullptr);

// Path of the built recaster executable.
std::string RecasterPath();
// Path of the built markforge executable.
std::string MarkforgePath();
// Path of the repository's tests/data folder.
std::string DataPath(const std::string& name);

// Random-looking but fixed bytes, told apart by `seed`.
std::vector<uint8_t> SeededBytes(size_t size, uint32_t seed);

std::string ReadFile(const std::string& path);
std::vector<uint8_t> ReadBytes(const std::string& path);
void WriteFile(const std::string& path, const std::string& bytes);
void WriteBytes(const std::string& path, const std::vector<uint8_t>& bytes);
bool FileExists(const std::string& path);

// A fresh folder, removed with everything in it when the object goes.
class TempDir {
public:
    // In the system's temporary folder (TMPDIR), or inside `parent`.
    TempDir();
    explicit TempDir(const std::string& parent);
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return _path; }
    // `name` inside the folder.
    std::string file(const std::string& name) const { return _path + "/" + name; }

private:
    std::string _path;
};

// The trail's entries flattened to "function|file|message" lines, one per
// location entry (message empty when none followed), for exact comparisons.
std::vector<std::string> TrailLines();

// Every test starts with a clear flag and an empty trail.
class FrameworkTest : public ::testing::Test {
protected:
    void SetUp() override { lbGlobal.Reset(); }
    void TearDown() override { lbGlobal.Reset(); }
};

}  // namespace testsupport
