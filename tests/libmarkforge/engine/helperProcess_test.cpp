// markforge::helperProcess: a helper's run with its input, its bounded
// output, the end of its standard error, its exit, and the deadline that
// kills its whole process group.
#include <gtest/gtest.h>

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <fstream>

#include "helperProcess.h"
#include "testSupport.h"

namespace {

using markforge::helperCall;
using markforge::helperProcess;
using markforge::helperRun;

helperRun RunShell(const std::string& script, const std::vector<uint8_t>& input = {}, size_t limit = 1024,
                   double timeout = 30)
{
    helperCall call;
    call.words = {"sh", "-c", script};
    call.environment = {"MARKFORGE_TEST_VALUE=given", "HOME=/nowhere"};
    call.input = input;
    call.outputLimit = limit;
    call.timeoutSeconds = timeout;
    return helperProcess::Run(call);
}

std::string Text(const std::vector<uint8_t>& bytes)
{
    return std::string(bytes.begin(), bytes.end());
}

TEST(HelperProcess, InputInOutputOut)
{
    const helperRun run = RunShell("tr a-z A-Z", {'a', 'b', 'c'});
    EXPECT_TRUE(run.started);
    EXPECT_FALSE(run.timedOut);
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_EQ(Text(run.output), "ABC");
    EXPECT_EQ(run.EndText(), "exited with status 0");
}

TEST(HelperProcess, TheEnvironmentIsOursWithTheSettingsOnTop)
{
    ::setenv("MARKFORGE_TEST_INHERITED", "kept", 1);
    const helperRun run = RunShell("printf '%s %s %s' \"$MARKFORGE_TEST_VALUE\" \"$HOME\" \"$MARKFORGE_TEST_INHERITED\"");
    EXPECT_EQ(Text(run.output), "given /nowhere kept");
    const helperRun count = RunShell("env | grep -c '^HOME='");
    EXPECT_EQ(Text(count.output), "1\n");
}

TEST(HelperProcess, ExitStatusAndSignal)
{
    EXPECT_EQ(RunShell("exit 3").exitCode, 3);
    EXPECT_EQ(RunShell("exit 3").EndText(), "exited with status 3");
    const helperRun killed = RunShell("kill -TERM $$");
    EXPECT_EQ(killed.signal, SIGTERM);
    EXPECT_EQ(killed.EndText(), "was killed by signal 15");
}

TEST(HelperProcess, OutputBeyondTheBoundIsDrainedButNotKept)
{
    const helperRun run = RunShell("head -c 5000000 /dev/zero", {}, 256);
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_EQ(run.output.size(), 256u);
    EXPECT_TRUE(run.outputTooLong);
    const helperRun exact = RunShell("head -c 256 /dev/zero", {}, 256);
    EXPECT_FALSE(exact.outputTooLong);
}

TEST(HelperProcess, TheLastLinesOfStandardError)
{
    const helperRun run = RunShell("for i in 1 2 3 4 5 6 7; do echo line $i >&2; done; printf 'bell\\a\\n\\n' >&2");
    EXPECT_EQ(run.LastErrorLines(3), "line 6 | line 7 | bell ");
    EXPECT_EQ(run.LastErrorLines(1), "bell ");
    const helperRun flood = RunShell("head -c 10000000 /dev/zero | tr '\\0' x >&2; echo >&2; echo last >&2");
    EXPECT_LE(flood.errorTail.size(), 2 * helperProcess::ERROR_TAIL_BYTES);
    EXPECT_EQ(flood.LastErrorLines(1), "last");
    EXPECT_EQ(flood.LastErrorLines(2).substr(0, 3), "...");
    EXPECT_EQ(RunShell("true").LastErrorLines(5), "");
}

TEST(HelperProcess, TheDeadlineKillsTheWholeGroup)
{
    testsupport::TempDir dir;
    const std::string pids = dir.file("pids");
    const auto start = std::chrono::steady_clock::now();
    const helperRun run = RunShell("sleep 300 & echo $! > " + pids + "; sleep 300 & wait", {}, 16, 0.5);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
    EXPECT_TRUE(run.timedOut);
    EXPECT_EQ(run.EndText(), "did not finish within its time-out and was killed with its process group");
    const pid_t child = static_cast<pid_t>(std::stol(testsupport::ReadFile(pids)));
    bool gone = false;
    for (int i = 0; i < 500 && !gone; ++i) {
        gone = ::kill(child, 0) != 0 ||
               testsupport::ReadFile("/proc/" + std::to_string(child) + "/stat").find(") Z") != std::string::npos;
        if (!gone) ::usleep(10000);
    }
    EXPECT_TRUE(gone);
}

TEST(HelperProcess, ALeaderThatExitsWhileAChildHoldsItsOutputTimesOut)
{
    // The child keeps standard output open: the run ends at the deadline,
    // with the child killed, not when the child chooses.
    const auto start = std::chrono::steady_clock::now();
    const helperRun run = RunShell("(sleep 300) & exit 0", {}, 16, 0.5);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
    EXPECT_TRUE(run.timedOut);
}

TEST(HelperProcess, ACommandThatCannotStart)
{
    helperCall call;
    call.words = {"/nonexistent/helper"};
    const helperRun run = helperProcess::Run(call);
    EXPECT_FALSE(run.started);
    EXPECT_EQ(run.EndText(), "could not be started: /nonexistent/helper: No such file or directory");
    call.words.clear();
    EXPECT_FALSE(helperProcess::Run(call).started);
}

TEST(HelperProcess, AHelperThatClosesItsInputEarly)
{
    // A large input to a helper that reads none of it: the write sees a
    // broken pipe, the process goes on.
    const helperRun run = RunShell("exec 0<&-; exit 4", std::vector<uint8_t>(1 << 20, 'x'));
    EXPECT_EQ(run.exitCode, 4);
}

TEST(HelperProcess, AHelperThatNeitherReadsNorEndsMeetsTheDeadline)
{
    // More input than a pipe holds: the feeding must not block past it.
    const auto start = std::chrono::steady_clock::now();
    const helperRun run = RunShell("sleep 300", std::vector<uint8_t>(4 << 20, 'x'), 16, 0.5);
    EXPECT_TRUE(run.timedOut);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
}

}  // namespace
