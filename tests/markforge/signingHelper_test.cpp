// `markforge build --signing-helper`: a command of the user's own signs each
// value. A good helper gives the container a key file gives; a helper that
// fails, hangs, answers garbage, a short answer or another key's signature,
// or floods its standard error, ends the build with status 5, its exit status
// and the end of its standard error in the message, and nothing written.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "signingOutsideFixture.h"

namespace {

using testsupport::ProcessResult;
using testsupport::ReadFile;
using testsupport::SigningOutsideTest;

class SigningHelperTest : public SigningOutsideTest {
protected:
    void SetUp() override
    {
        components = {"boot=" + MakeComponent("boot.bin", 1000, 1), "app=" + MakeComponent("app.bin", 70000, 2)};
        out = dir.file("out.img");
        testsupport::WriteFile(out, "the previous container");
    }

    // A helper around openssl pkeyutl with `keyPem`.
    std::string OpensslHelper(const std::string& keyPem)
    {
        return Script("sign.sh", "exec openssl pkeyutl -sign -inkey '" + keyPem +
                                     "' -pkeyopt \"digest:$MARKFORGE_HASH\"");
    }

    ProcessResult BuildWith(const std::string& helper, const std::vector<std::string>& extra = {})
    {
        std::vector<std::string> args{"build",        "-o",        out, "--key", "dev", "--signing-helper", helper,
                                      "--public-key", publicPem()};
        args.insert(args.end(), extra.begin(), extra.end());
        args.insert(args.end(), components.begin(), components.end());
        return testsupport::RunMarkforge(args);
    }

    // Status 5, `message` on standard error, the output as it was and no
    // temporary file.
    void ExpectFailed(const ProcessResult& built, const std::string& message)
    {
        EXPECT_EQ(built.status, 5) << built.err;
        EXPECT_FALSE(built.signaled);
        EXPECT_EQ(built.out, "");
        EXPECT_NE(built.err.find(message), std::string::npos) << built.err;
        EXPECT_EQ(ReadFile(out), "the previous container");
        for (const std::string& name : FolderNames()) EXPECT_EQ(name.find("out.img."), std::string::npos) << name;
    }

    std::vector<std::string> components;
    std::string out;
};

TEST_F(SigningHelperTest, AnOpensslHelperGivesTheKeyFilesContainer)
{
    const std::string helper = OpensslHelper(privatePem());
    for (const char* hash : {"sha256", "sha384", "sha512"}) {
        SCOPED_TRACE(hash);
        const ProcessResult built = BuildWith(helper, {"--hash", hash, "--table"});
        ASSERT_EQ(built.status, 0) << built.err;
        const std::string onePhase = dir.file("one.img");
        ASSERT_EQ(BuildDevelopment(onePhase, components, {"--hash", hash, "--table"}).status, 0);
        EXPECT_EQ(ReadFile(out), ReadFile(onePhase));
    }
}

TEST_F(SigningHelperTest, TheHelperGetsTheKeyTheHashTheFieldAndTheValue)
{
    // The helper logs what it was given, then signs.
    const std::string log = dir.file("calls.log");
    const std::string helper = Script(
        "logging.sh", "value=$(od -An -tx1 -v | tr -d ' \\n')\n"
                      "echo \"$MARKFORGE_KEY_NAME $MARKFORGE_HASH $MARKFORGE_FIELD_F $value\" >> '" + log + "'\n"
                      "printf '%s' \"$value\" | xxd -r -p | openssl pkeyutl -sign -inkey '" + privatePem() +
                      "' -pkeyopt \"digest:$MARKFORGE_HASH\"");
    const std::string requests = dir.file("req.json");
    ASSERT_EQ(BuildOffline(dir.file("offline.img"), requests, components, {"--hash", "sha512"}).status, 0);
    const ProcessResult built = BuildWith(helper, {"--hash", "sha512"});
    ASSERT_EQ(built.status, 0) << built.err;
    std::string expected;
    std::vector<std::string> lines;
    const nlohmann::json document = ReadRequests(requests);
    for (const auto& request : document["requests"])
        lines.push_back("dev sha512 " + request["field_f"].get<std::string>() + " " +
                        request["to_sign"].get<std::string>());
    std::string logged = ReadFile(log);
    for (const std::string& line : lines) EXPECT_NE(logged.find(line + "\n"), std::string::npos) << line;
    EXPECT_EQ(std::count(logged.begin(), logged.end(), '\n'), 3);
}

TEST_F(SigningHelperTest, WordsAreSplitWithoutAShell)
{
    // A quoted argument with a blank and a $ reaches the helper as one word.
    const std::string helper = Script("args.sh", "[ \"$1\" = 'two words $HOME' ] || exit 9\nshift\nexec \"$@\"");
    const ProcessResult built =
        BuildWith(helper + " 'two words $HOME' openssl pkeyutl -sign -inkey " + privatePem() + " -pkeyopt digest:sha256");
    EXPECT_EQ(built.status, 0) << built.err;
    const ProcessResult unterminated = BuildWith(helper + " 'open");
    EXPECT_EQ(unterminated.status, 2);
    EXPECT_NE(unterminated.err.find("--signing-helper: the command has a ' without its closing '"),
              std::string::npos);
}

TEST_F(SigningHelperTest, ANonZeroExitIsAFailureWithItsStatusAndStandardError)
{
    const std::string helper = Script("exit3.sh", "cat > /dev/null\necho 'token not present' >&2\nexit 3");
    ExpectFailed(BuildWith(helper), "the signing helper " + helper +
                                        " exited with status 3; its standard error ended with: token not present");
}

TEST_F(SigningHelperTest, AHelperThatHangsIsKilledWithItsProcessGroup)
{
    // The helper's child would outlive it; both go at the time-out.
    const std::string pidFile = dir.file("child.pid");
    const std::string helper =
        Script("hang.sh", "sleep 300 &\necho $! > '" + pidFile + "'\necho 'waiting for the HSM' >&2\nwait");
    const auto start = std::chrono::steady_clock::now();
    ExpectFailed(BuildWith(helper, {"--helper-timeout", "1"}),
                 "did not finish within its time-out and was killed with its process group; its standard error "
                 "ended with: waiting for the HSM");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(60));
    const pid_t child = static_cast<pid_t>(std::stol(ReadFile(pidFile)));
    // Killed, and reaped by init once its parent went.
    bool gone = false;
    for (int i = 0; i < 500 && !gone; ++i) {
        gone = ::kill(child, 0) != 0 || ReadFile("/proc/" + std::to_string(child) + "/stat").find(") Z") !=
                                                std::string::npos;
        if (!gone) ::usleep(10000);
    }
    EXPECT_TRUE(gone);
}

TEST_F(SigningHelperTest, AHelperDoesNotOutliveABuildThatIsStopped)
{
    // The helper sits in its own process group, out of reach of a
    // terminal's Ctrl-C; a build ended by a signal takes it along.
    const std::string pidFile = dir.file("helper.pid");
    const std::string helper = Script("waits.sh", "echo $$ > '" + pidFile + "'\nexec sleep 300");
    std::vector<std::string> argv = testsupport::WithEmulator(
        {testsupport::MarkforgePath(), "build", "-o", out, "--key", "dev", "--signing-helper", helper,
         "--public-key", publicPem(), components[0]});
    std::vector<char*> args;
    for (std::string& word : argv) args.push_back(&word[0]);
    args.push_back(nullptr);
    const pid_t build = ::fork();
    ASSERT_GE(build, 0);
    if (build == 0) {
        const int null = ::open("/dev/null", O_WRONLY);
        ::dup2(null, 1);
        ::dup2(null, 2);
        ::execvp(args[0], args.data());
        ::_exit(127);
    }
    std::string helperPid;
    for (int i = 0; i < 3000 && helperPid.empty(); ++i) {
        ::usleep(10000);
        const std::string text = ReadFile(pidFile);
        if (!text.empty() && text.back() == '\n') helperPid = text;
    }
    ASSERT_FALSE(helperPid.empty()) << "the helper never started";
    ::kill(build, SIGTERM);
    int status = 0;
    ASSERT_EQ(::waitpid(build, &status, 0), build);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
    const pid_t waiting = static_cast<pid_t>(std::stol(helperPid));
    bool gone = false;
    for (int i = 0; i < 1000 && !gone; ++i) {
        gone = ::kill(waiting, 0) != 0 ||
               ReadFile("/proc/" + std::to_string(waiting) + "/stat").find(") Z") != std::string::npos;
        if (!gone) ::usleep(10000);
    }
    EXPECT_TRUE(gone) << "helper " << waiting << " outlived the build";
    if (!gone) ::kill(waiting, SIGKILL);
    EXPECT_EQ(ReadFile(out), "the previous container");
}

TEST_F(SigningHelperTest, GarbageShortAndForeignAnswersAreRefused)
{
    ExpectFailed(BuildWith(Script("garbage.sh", "cat > /dev/null\nhead -c 256 /dev/zero | tr '\\0' 'x'")),
                 "exited with status 0 but its answer is not a signature by the key over the value");
    ExpectFailed(BuildWith(Script("short.sh", "cat > /dev/null\nhead -c 100 /dev/zero")),
                 "exited with status 0 but answered 100 bytes, where a signature by the key is 256 bytes");
    ExpectFailed(BuildWith(Script("long.sh", "cat > /dev/null\nhead -c 100000 /dev/zero")),
                 "exited with status 0 but answered more than 256 bytes");
    ExpectFailed(BuildWith(OpensslHelper(otherPrivatePem())),
                 "exited with status 0 but its answer is not a signature by the key over the value");
}

TEST_F(SigningHelperTest, MegabytesOnStandardErrorEndInItsLastLines)
{
    const std::string helper =
        Script("noisy.sh", "cat > /dev/null\n{ head -c 8000000 /dev/zero | tr '\\0' '.' | fold -w 100; echo; } >&2\n"
                           "echo 'the last line' >&2\nexit 4");
    const ProcessResult built = BuildWith(helper);
    ExpectFailed(built, "exited with status 4; its standard error ended with: ");
    EXPECT_NE(built.err.find(" | the last line"), std::string::npos);
    EXPECT_LT(built.err.size(), 2000u);
    // One endless line is cut to its end.
    const ProcessResult oneLine = BuildWith(
        Script("oneline.sh", "cat > /dev/null\nhead -c 3000000 /dev/zero | tr '\\0' '.' >&2\necho end >&2\nexit 4"));
    ExpectFailed(oneLine, "exited with status 4; its standard error ended with: ...");
    EXPECT_NE(oneLine.err.find("....end; nothing was written"), std::string::npos);
    EXPECT_LT(oneLine.err.size(), 2000u);
}

TEST_F(SigningHelperTest, AHelperThatCannotBeStartedIsAFailure)
{
    ExpectFailed(BuildWith(dir.file("no-such-helper")),
                 "could not be started: " + dir.file("no-such-helper") + ": No such file or directory");
}

TEST_F(SigningHelperTest, AHelperThatDoesNotReadItsInputDoesNotEndTheBuild)
{
    // It closes its input at once: the write gets EPIPE, not a signal.
    const std::string helper = Script("closed.sh", "exec 0<&-\nexit 7");
    ExpectFailed(BuildWith(helper), "exited with status 7");
}

TEST_F(SigningHelperTest, UsageErrors)
{
    const ProcessResult withMode = testsupport::RunMarkforge(
        {"build", "-o", out, "--key", "dev", "--mode", "development", "--key-dir", keyDir(), "--signing-helper",
         "true", "--public-key", publicPem(), components[0]});
    EXPECT_EQ(withMode.status, 2);
    const ProcessResult noKey = testsupport::RunMarkforge({"build", "-o", out, "--key", "dev", "--signing-helper",
                                                           "true", components[0]});
    EXPECT_EQ(noKey.status, 2);
    EXPECT_NE(noKey.err.find("--signing-helper needs --public-key PUB"), std::string::npos);
    const ProcessResult noTime = BuildWith("true", {"--helper-timeout", "0"});
    EXPECT_EQ(noTime.status, 2);
    EXPECT_NE(noTime.err.find("--helper-timeout must be above 0 seconds"), std::string::npos);
    const ProcessResult neither =
        testsupport::RunMarkforge({"build", "-o", out, "--key", "dev", components[0]});
    EXPECT_EQ(neither.status, 2);
    EXPECT_NE(neither.err.find("say how to sign: --mode development|production|offline, or --signing-helper CMD"),
              std::string::npos);
    EXPECT_EQ(ReadFile(out), "the previous container");
}

}  // namespace
