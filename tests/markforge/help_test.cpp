// What markforge says about itself: with no subcommand, that one is needed
// and the short usage; each subcommand's --help lists the exit statuses that
// subcommand can end with, and build's the defaults it uses.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "testSupport.h"

namespace {

using testsupport::ProcessResult;
using testsupport::RunMarkforge;

// The "Exit status:" lines of a help screen, numbers only.
std::string StatusesOf(const std::string& help)
{
    const size_t table = help.find("Exit status:\n");
    if (table == std::string::npos) return "none";
    std::string numbers;
    size_t at = table + 13;
    while (at + 3 < help.size() && help.compare(at, 2, "  ") == 0) {
        numbers += help[at + 2];
        at = help.find('\n', at) + 1;
    }
    return numbers;
}

TEST(MarkforgeHelp, NoSubcommandSaysOneIsNeeded)
{
    const ProcessResult run = RunMarkforge({});
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err.rfind("markforge: a subcommand is needed\nUsage: markforge SUBCOMMAND [OPTIONS]...", 0), 0u)
        << run.err;
    EXPECT_NE(run.err.find("'markforge SUBCOMMAND --help'"), std::string::npos);
    // The short usage, not the whole help screen.
    EXPECT_EQ(run.err.find("Exit status:"), std::string::npos);
}

TEST(MarkforgeHelp, EachSubcommandListsTheStatusesItCanEndWith)
{
    const std::vector<std::pair<std::string, std::string>> expected{
        {"build", "02345"},   {"resign", "02345"}, {"attach", "023456789"}, {"keygen", "0245"},
        {"info", "0234"},     {"verify", "01234"}, {"extract", "0234"}};
    for (const auto& [command, statuses] : expected) {
        SCOPED_TRACE(command);
        const ProcessResult help = RunMarkforge({command, "--help"});
        EXPECT_EQ(help.status, 0);
        EXPECT_EQ(StatusesOf(help.out), statuses) << help.out;
    }
    EXPECT_EQ(StatusesOf(RunMarkforge({"keygen", "--help"}).out).find('1'), std::string::npos);
    EXPECT_EQ(RunMarkforge({"keygen", "--help"}).out.find("verify found"), std::string::npos);
    EXPECT_EQ(StatusesOf(RunMarkforge({"--help"}).out), "0123456789");
}

TEST(MarkforgeHelp, BuildShowsItsDefaults)
{
    const std::string help = RunMarkforge({"build", "--help"}).out;
    EXPECT_NE(help.find("the signing agent at 127.0.0.1:8001"), std::string::npos) << help;
    for (const char* option : {"--agent-timeout", "--helper-timeout", "--hash"}) {
        SCOPED_TRACE(option);
        const size_t at = help.find(std::string("  ") + option);
        ASSERT_NE(at, std::string::npos);
        const std::string line = help.substr(at, help.find('\n', at) - at);
        EXPECT_NE(line.find(std::string(option) == "--hash" ? "=sha256" : "=60"), std::string::npos) << line;
    }
}

}  // namespace
