// What markforge says about itself: with no subcommand, that one is needed
// and the short usage; each subcommand's --help lists the exit statuses that
// subcommand can end with, and build's the defaults it uses.
#include <gtest/gtest.h>

#include <dirent.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "keyCache.h"
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

// Whether `folder` or one of its subfolders holds `name`.
bool LibraryFolderHolds(const std::string& folder, const std::string& name)
{
    if (testsupport::FileExists(folder + "/" + name)) return true;
    DIR* listing = ::opendir(folder.c_str());
    if (!listing) return false;
    bool found = false;
    while (const dirent* entry = ::readdir(listing))
        found = found || (entry->d_name[0] != '.' &&
                          testsupport::FileExists(folder + "/" + entry->d_name + "/" + name));
    ::closedir(listing);
    return found;
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

TEST(MarkforgeHelp, VersionNamesEachLibrarysSonameAndPackage)
{
    const ProcessResult run = RunMarkforge({"--version"});
    EXPECT_EQ(run.status, 0);
    const std::string program = std::string("markforge ") + MARKFORGE_PROGRAM_VERSION + "\n";
    EXPECT_EQ(run.out.rfind(program, 0), 0u) << run.out;
    for (const char* library : {"libmarkforge", "liblockbase"}) {
        SCOPED_TRACE(library);
        const std::string soname = std::string(library) + ".so.1";
        EXPECT_NE(run.out.find("(" + soname + ", Debian package " + library + "1 " + MARKFORGE_PROGRAM_VERSION + ")\n"),
                  std::string::npos)
            << run.out;
        // The SONAME named is a file of the build's library folder (lib/, or
        // lib/<multiarch>/ in a build for the system's folders).
        const std::string bin = testsupport::MarkforgePath();
        EXPECT_TRUE(LibraryFolderHolds(bin.substr(0, bin.rfind("/bin/")) + "/lib", soname)) << soname;
    }
}

TEST(MarkforgeMessages, NotAContainerIsOneLineAndTheLibrarysTextTheTrailOnlyWithVerbose)
{
    testsupport::TempDir dir;
    const std::string file = dir.file("notes.txt");
    testsupport::WriteFile(file, std::string(5000, 'x'));
    const std::string expected = "markforge: " + file + " is not a markforge container\n"
                                 "Unknown file format -- canary1 failed. \n";
    const std::vector<std::vector<std::string>> commands{
        {"info", file}, {"verify", file, "--key", file}, {"extract", file, "--payload", "-o", dir.file("out")}};
    for (std::vector<std::string> command : commands) {
        SCOPED_TRACE(command[0]);
        if (command[0] == "verify") {
            // A key first, so that the container is what fails.
            std::string error;
            ASSERT_TRUE(testsupport::CopyCachedKey("dev", 2048, dir.file("k.markforge"), dir.file("k.pem"), error))
                << error;
            command[3] = dir.file("k.pem");
        }
        const ProcessResult plain = RunMarkforge(command);
        EXPECT_EQ(plain.status, 3);
        EXPECT_EQ(plain.err, expected);
        command.push_back("--verbose");
        const ProcessResult verbose = RunMarkforge(command);
        EXPECT_EQ(verbose.status, 3);
        EXPECT_EQ(verbose.err.rfind(expected + "Error trail (innermost failure first):\n", 0), 0u) << verbose.err;
        EXPECT_NE(verbose.err.find("at libmarkforge/header.cpp:"), std::string::npos);
        ::unlink(dir.file("k.markforge").c_str());
        ::unlink(dir.file("k.pem").c_str());
    }
}

}  // namespace
