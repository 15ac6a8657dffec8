// The audit log's hash chain against the real agent: every line names the
// SHA-256 of the line before it, and `markforge-agent --verify-audit` finds
// the first line that a removal, a change, a reordering or an insertion
// breaks, follows the chain across a rotation (SIGHUP) and a restart, and
// counts the lines and signatures of an intact log.
#include <gtest/gtest.h>

#include <signal.h>

#include <chrono>
#include <functional>
#include <sstream>
#include <thread>

#include "agentClient.h"
#include "keyFolderTest.h"

namespace {

using agenttest::Bytes;
using testsupport::ProcessResult;

std::vector<std::string> LinesOf(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

std::string Joined(const std::vector<std::string>& lines)
{
    std::string text;
    for (const std::string& line : lines) text += line + "\n";
    return text;
}

class AgentAudit : public agenttest::KeyFolderTest {
protected:
    void SetUp() override { log = dir.file("audit.log"); }

    void RunAgentSigning(int signatures)
    {
        std::string error;
        ASSERT_TRUE(agent.Start({"--key-dir", Folder(), "--workers", "2", "--audit-log", log}, error)) << error;
        for (int i = 0; i < signatures; ++i) ASSERT_EQ(Sign().size(), 256u);
        EXPECT_EQ(agent.Stop(), 0);
    }

    Bytes Sign() const
    {
        return agenttest::Exchange(agent.Port(),
                                   agenttest::MakeRequest("dev", agenttest::Pattern(32), agenttest::Arguments(32)));
    }

    static ProcessResult VerifyAudit(const std::vector<std::string>& files)
    {
        std::vector<std::string> args{agenttest::AgentPath(), "--verify-audit"};
        args.insert(args.end(), files.begin(), files.end());
        return testsupport::Run(testsupport::WithEmulator(args));
    }

    std::string Sha256(const std::string& text) const
    {
        return testsupport::OpensslDigestHex(dir.path(), "sha256", text);
    }

    // The log edited by `edit` is refused at line `line` of `file`.
    void ExpectBrokenAt(const std::function<void(std::vector<std::string>&)>& edit, size_t line,
                        const std::string& reason)
    {
        std::vector<std::string> lines = LinesOf(original);
        edit(lines);
        testsupport::WriteFile(log, Joined(lines));
        const ProcessResult checked = VerifyAudit({log});
        EXPECT_EQ(checked.status, 1) << checked.out;
        EXPECT_EQ(checked.out, log + ": line " + std::to_string(line) + " breaks the chain: " + reason + "\n");
    }

    std::string log;
    std::string original;
};

TEST_F(AgentAudit, EveryLineNamesTheHashOfTheLineBefore)
{
    RunAgentSigning(3);
    const std::vector<std::string> lines = LinesOf(testsupport::ReadFile(log));
    ASSERT_GE(lines.size(), 5u);
    // The first line names the start time and the keys, and starts the chain.
    const nlohmann::json first = nlohmann::json::parse(lines[0]);
    EXPECT_EQ(first["event"], "open");
    EXPECT_TRUE(first["started"].is_string());
    EXPECT_EQ(first["keys"][0]["name"], "dev");
    EXPECT_TRUE(first["prev"].is_null());
    for (size_t i = 1; i < lines.size(); ++i)
        EXPECT_EQ(nlohmann::json::parse(lines[i])["prev"], Sha256(lines[i - 1])) << "line " << i + 1;

    const ProcessResult checked = VerifyAudit({log});
    EXPECT_EQ(checked.status, 0) << checked.out << checked.err;
    EXPECT_EQ(checked.out, std::to_string(lines.size()) + " lines, 3 signatures; the chain holds; last hash " +
                               Sha256(lines.back()) + "\n");
}

TEST_F(AgentAudit, EachKindOfEditBreaksTheChainWhereItIs)
{
    RunAgentSigning(3);
    original = testsupport::ReadFile(log);
    const std::string notTheLineBefore = "its \"prev\" is not the SHA-256 of the line before it";
    ExpectBrokenAt([](std::vector<std::string>& l) { l.erase(l.begin() + 2); }, 3, notTheLineBefore);
    ExpectBrokenAt(
        [](std::vector<std::string>& l) {
            const size_t at = l[1].find("\"time\":\"") + 9;
            l[1][at] = l[1][at] == '1' ? '2' : '1';
        },
        3, notTheLineBefore);
    ExpectBrokenAt([](std::vector<std::string>& l) { std::swap(l[2], l[3]); }, 3, notTheLineBefore);
    ExpectBrokenAt([](std::vector<std::string>& l) { l.insert(l.begin() + 2, l[1]); }, 3, notTheLineBefore);
    ExpectBrokenAt([](std::vector<std::string>& l) { l[2] = "{\"event\":\"request\"}"; }, 3,
                   "it is not a JSON object with a \"prev\" member");
    // A chain started afresh in the middle is not a chain.
    ExpectBrokenAt(
        [](std::vector<std::string>& l) {
            nlohmann::ordered_json line = nlohmann::ordered_json::parse(l[2]);
            line["prev"] = nullptr;
            l[2] = line.dump();
        },
        3, notTheLineBefore);
    // Only the end can go unseen: the last hash, kept elsewhere, shows it.
    std::vector<std::string> lines = LinesOf(original);
    lines.pop_back();
    testsupport::WriteFile(log, Joined(lines));
    const ProcessResult cut = VerifyAudit({log});
    EXPECT_EQ(cut.status, 0);
    EXPECT_EQ(cut.out.find(Sha256(LinesOf(original).back())), std::string::npos);
}

TEST_F(AgentAudit, RotationStartsAFileThatNamesTheLastHashOfTheOneBefore)
{
    std::string error;
    ASSERT_TRUE(agent.Start({"--key-dir", Folder(), "--workers", "2", "--audit-log", log}, error)) << error;
    ASSERT_EQ(Sign().size(), 256u);
    ASSERT_EQ(std::rename(log.c_str(), (log + ".1").c_str()), 0);
    agent.Signal(SIGHUP);
    for (int i = 0; i < 200 && !testsupport::FileExists(log); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    ASSERT_EQ(Sign().size(), 256u);
    EXPECT_EQ(agent.Stop(), 0);

    const std::vector<std::string> before = LinesOf(testsupport::ReadFile(log + ".1"));
    const std::vector<std::string> after = LinesOf(testsupport::ReadFile(log));
    const nlohmann::json first = nlohmann::json::parse(after.front());
    EXPECT_EQ(first["event"], "reopen");
    EXPECT_EQ(first["keys"][0]["name"], "dev");
    EXPECT_EQ(first["prev"], Sha256(before.back()));

    const ProcessResult both = VerifyAudit({log + ".1", log});
    EXPECT_EQ(both.status, 0) << both.out;
    EXPECT_EQ(both.out.rfind(std::to_string(before.size() + after.size()) + " lines, 2 signatures;", 0), 0u);
    const ProcessResult reversed = VerifyAudit({log, log + ".1"});
    EXPECT_EQ(reversed.status, 1);
    EXPECT_EQ(reversed.out, log + ".1: line 1 breaks the chain: its \"prev\" is not the hash of the last line of "
                                  "the file before\n");
}

TEST_F(AgentAudit, ARestartOnTheSameFileGoesOnWithTheChain)
{
    RunAgentSigning(1);
    RunAgentSigning(2);
    const ProcessResult checked = VerifyAudit({log});
    EXPECT_EQ(checked.status, 0) << checked.out;
    EXPECT_NE(checked.out.find(" lines, 3 signatures; the chain holds"), std::string::npos) << checked.out;
}

TEST_F(AgentAudit, ALineCutShortStaysVisible)
{
    RunAgentSigning(1);
    testsupport::WriteFile(log, testsupport::ReadFile(log) + "{\"time\":\"2026-");
    RunAgentSigning(1);
    const std::vector<std::string> lines = LinesOf(testsupport::ReadFile(log));
    const ProcessResult checked = VerifyAudit({log});
    EXPECT_EQ(checked.status, 1);
    EXPECT_NE(checked.out.find("breaks the chain: it is not a JSON object"), std::string::npos) << checked.out;
    // The agent chained on from the cut line as it stands.
    for (size_t i = 0; i + 1 < lines.size(); ++i) {
        if (lines[i] == "{\"time\":\"2026-") {
            EXPECT_EQ(nlohmann::json::parse(lines[i + 1])["prev"], Sha256(lines[i]));
        }
    }
}

TEST_F(AgentAudit, UnreadableFilesAreSaid)
{
    const ProcessResult missing = VerifyAudit({dir.file("nowhere.log")});
    EXPECT_EQ(missing.status, 1);
    EXPECT_NE(missing.err.find("cannot read " + dir.file("nowhere.log")), std::string::npos) << missing.err;
    testsupport::WriteFile(log, "");
    const ProcessResult empty = VerifyAudit({log});
    EXPECT_EQ(empty.status, 0);
    EXPECT_EQ(empty.out, "0 lines, 0 signatures; the chain holds; last hash none\n");
}

}  // namespace
