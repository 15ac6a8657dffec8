// recaster::Main::Help called directly: message formatting and its length
// limit, which the command line cannot reach with its fixed texts.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <string>

#include "recaster.h"
#include "testSupport.h"

namespace {

const std::string HELP_TABLE_FIRST_RULE =
    "+--------------+-------------------------------------------------------+\n";
const size_t HELP_TABLE_SIZE = 12 * HELP_TABLE_FIRST_RULE.size();

struct HelpOutcome {
    bool exited = false;
    int status = -1;
    std::string out;
};

// Runs `show` on a fresh application object in a child process whose standard
// output goes to a file, since Help ends the process.
template <typename Show>
HelpOutcome RunHelp(Show show)
{
    testsupport::TempDir dir;
    const std::string path = dir.file("stdout");
    std::cout.flush();
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (fd < 0 || dup2(fd, STDOUT_FILENO) < 0) _exit(99);
        close(fd);
        recaster::Main application;
        show(application);
        _exit(98);  // Help returned, which it never may
    }
    HelpOutcome outcome;
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child) return outcome;
    outcome.exited = WIFEXITED(status);
    outcome.status = outcome.exited ? WEXITSTATUS(status) : -1;
    outcome.out = testsupport::ReadFile(path);
    return outcome;
}

// Splits the captured output into the message line and what follows it.
void ExpectHelpScreen(const HelpOutcome& outcome, const std::string& message)
{
    EXPECT_TRUE(outcome.exited);
    EXPECT_EQ(outcome.status, 1);
    const size_t end = outcome.out.find('\n');
    ASSERT_NE(end, std::string::npos);
    EXPECT_EQ(outcome.out.substr(0, end), message);
    const std::string table = outcome.out.substr(end + 1);
    EXPECT_EQ(table.size(), HELP_TABLE_SIZE);
    EXPECT_EQ(table.rfind(HELP_TABLE_FIRST_RULE, 0), 0u);
    EXPECT_NE(table.find("| --oformat    | Output file format:: raw or markforge.                |\n"),
              std::string::npos);
}

TEST(HelpScreen, FormatsTheMessagePrintfStyle)
{
    ExpectHelpScreen(RunHelp([](recaster::Main& m) { m.Help("%s requires %d values%c", "--x", 4, '.'); }),
                     "--x requires 4 values.");
}

TEST(HelpScreen, MessageOfExactly1022CharactersIsKeptWhole)
{
    const std::string message(1022, 'a');
    ExpectHelpScreen(RunHelp([&](recaster::Main& m) { m.Help("%s", message.c_str()); }), message);
}

TEST(HelpScreen, MessageLongerThan1022CharactersIsCut)
{
    std::string message;
    for (int i = 0; message.size() < 3000; ++i) message += std::to_string(i) + " ";
    const HelpOutcome outcome = RunHelp([&](recaster::Main& m) { m.Help("%s", message.c_str()); });
    const std::string firstLine = outcome.out.substr(0, outcome.out.find('\n'));
    EXPECT_EQ(firstLine.size(), 1022u);
    ExpectHelpScreen(outcome, message.substr(0, 1022));
}

TEST(HelpScreen, MessageOf1023CharactersLosesItsLastCharacter)
{
    const std::string message = std::string(1022, 'b') + "c";
    ExpectHelpScreen(RunHelp([&](recaster::Main& m) { m.Help("%s", message.c_str()); }),
                     std::string(1022, 'b'));
}

TEST(HelpScreen, EmptyMessageGivesAnEmptyFirstLine)
{
    const HelpOutcome outcome = RunHelp([](recaster::Main& m) { m.Help("%s", ""); });
    ExpectHelpScreen(outcome, "");
    EXPECT_EQ(outcome.out[0], '\n');
}

TEST(HelpScreen, CatchallMessage)
{
    ExpectHelpScreen(RunHelp([](recaster::Main& m) { m.Help("Unknown error -- at catchall."); }),
                     "Unknown error -- at catchall.");
}

}  // namespace
