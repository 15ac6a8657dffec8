// --allow-user: the agent asks the kernel who owns each client's socket and
// serves only the users named. The other user is a forked child that drops
// to `nobody` (so these cases need root, as in CI).
#include <gtest/gtest.h>

#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "agentClient.h"
#include "keyFolderTest.h"

using agenttest::Bytes;
using agenttest::Pattern;

namespace {

constexpr auto CHILD_TIMEOUT = std::chrono::seconds(30);

// The answer size a client running as `uid` gets for `request` (-1 when the
// child failed to drop privileges or to talk to the agent).
long AnswerSizeAs(uid_t uid, gid_t gid, unsigned short port, const Bytes& request)
{
    int result[2];
    if (::pipe(result) != 0) return -1;
    const pid_t child = ::fork();
    if (child == 0) {
        ::close(result[0]);
        long size = -1;
        if (::setgid(gid) == 0 && ::setuid(uid) == 0) {
            agenttest::AgentConnection connection(port);
            Bytes answer;
            if (connection.Send(request) && connection.ReadToEnd(answer)) size = static_cast<long>(answer.size());
        }
        (void)!::write(result[1], &size, sizeof size);
        ::_exit(0);
    }
    ::close(result[1]);
    long size = -1;
    const auto deadline = std::chrono::steady_clock::now() + CHILD_TIMEOUT;
    int status = 0;
    while (::waitpid(child, &status, WNOHANG) != child) {
        if (std::chrono::steady_clock::now() > deadline) {
            ::kill(child, SIGKILL);
            ::waitpid(child, &status, 0);
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (::read(result[0], &size, sizeof size) != sizeof size) size = -1;
    ::close(result[0]);
    return size;
}

// A child running as another user that opens `count` connections to the
// agent (writing `send` on each and closing it at once when `closeAfter`),
// says how many it opened, and holds the rest open until it is ended.
class ConnectionsAs {
public:
    ConnectionsAs(uid_t uid, gid_t gid, unsigned short port, size_t count, const Bytes& send = {},
                  bool closeAfter = false)
    {
        int report[2];
        if (::pipe(report) != 0) return;
        _child = ::fork();
        if (_child == 0) {
            // The test's own connections must not stay open through the
            // child's copies of them.
            for (int fd = 3; fd < 1024; ++fd)
                if (fd != report[1]) ::close(fd);
            long opened = -1;
            std::vector<std::unique_ptr<agenttest::AgentConnection>> held;
            if (::setgid(gid) == 0 && ::setuid(uid) == 0) {
                for (opened = 0; opened < static_cast<long>(count); ++opened) {
                    auto connection = std::make_unique<agenttest::AgentConnection>(port);
                    if (!connection->Connected() || (!send.empty() && !connection->Send(send))) break;
                    if (closeAfter)
                        connection->Close();
                    else
                        held.push_back(std::move(connection));
                }
            }
            (void)!::write(report[1], &opened, sizeof opened);
            ::pause();
            ::_exit(0);
        }
        ::close(report[1]);
        _report = report[0];
    }
    ~ConnectionsAs()
    {
        if (_child > 0) {
            ::kill(_child, SIGKILL);
            ::waitpid(_child, nullptr, 0);
        }
        if (_report >= 0) ::close(_report);
    }

    // How many connections the child opened (-1 when it failed or took more
    // than 30 s).
    long Opened()
    {
        pollfd ready{_report, POLLIN, 0};
        long opened = -1;
        if (::poll(&ready, 1, 30000) == 1 && ::read(_report, &opened, sizeof opened) != sizeof opened) opened = -1;
        return opened;
    }

private:
    pid_t _child = -1;
    int _report = -1;
};

class AgentUsers : public agenttest::KeyFolderTest {
protected:
    void SetUp() override
    {
        if (::getuid() != 0) GTEST_SKIP() << "needs root to run a client as another user";
        std::string why;
        if (!agenttest::OwnerLookupWorks(why)) GTEST_SKIP() << "the kernel does not name socket owners here: " << why;
        const passwd* entry = ::getpwnam("nobody");
        ASSERT_NE(entry, nullptr);
        nobodyUid = entry->pw_uid;
        nobodyGid = entry->pw_gid;
    }

    void StartAgent(const std::vector<std::string>& users, const std::vector<std::string>& extra = {})
    {
        std::vector<std::string> args{"--key-dir", Folder()};
        args.insert(args.end(), extra.begin(), extra.end());
        for (const auto& user : users) args.insert(args.end(), {"--allow-user", user});
        std::string error;
        ASSERT_TRUE(agent.Start(args, error)) << error;
    }

    long AsRoot() { return AnswerSizeAs(0, 0, agent.Port(), request); }
    // Root's answer size and how long it took.
    // While nobody holds 300 connections open, root is answered within a
    // second, and nobody's extra connections are refused with `reason`.
    void ExpectRootServedPast300ConnectionsOfNobody(const std::string& reason)
    {
        ConnectionsAs crowd(nobodyUid, nobodyGid, agent.Port(), 300);
        ASSERT_EQ(crowd.Opened(), 300);
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(AsRoot(), 256);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
        EXPECT_GE(RefusalsFor(reason), 1u);
    }
    size_t RefusalsFor(const std::string& reason) const
    {
        size_t count = 0;
        for (const auto& line : agent.Events("request"))
            if (line.value("reason", "").rfind(reason, 0) == 0) ++count;
        return count;
    }
    long AsNobody() { return AnswerSizeAs(nobodyUid, nobodyGid, agent.Port(), request); }

    nlohmann::json LastRequest() const
    {
        EXPECT_TRUE(agent.WaitForRequests(1));
        const auto lines = agent.Events("request");
        return lines.empty() ? nlohmann::json() : lines.back();
    }

    uid_t nobodyUid = 0;
    gid_t nobodyGid = 0;
    const Bytes request = agenttest::MakeRequest("dev", Pattern(32), agenttest::Arguments(32));
};

// A folder with the suite's key as "dev" and as "release".
std::string TwoKeyFolder(const testsupport::TempDir& dir, const std::string& pem)
{
    const std::string folder = dir.file("two-keys");
    ::mkdir(folder.c_str(), 0700);
    testsupport::WriteFile(folder + "/dev.pem", testsupport::ReadFile(pem));
    testsupport::WriteFile(folder + "/release.pem", testsupport::ReadFile(pem));
    return folder;
}

TEST_F(AgentUsers, AKeyNamedForUsersIsServedToThemAlone)
{
    std::string error;
    ASSERT_TRUE(agent.Start({"--key-dir", TwoKeyFolder(dir, key.privatePem), "--allow-key-user", "release:root"},
                            error))
        << error;
    const Bytes release = agenttest::MakeRequest("release", Pattern(32), agenttest::Arguments(32));
    EXPECT_EQ(AnswerSizeAs(nobodyUid, nobodyGid, agent.Port(), release), 0);
    const nlohmann::json refused = LastRequest();
    EXPECT_EQ(refused["reason"], "key release is not for user " + std::to_string(nobodyUid));
    EXPECT_EQ(refused["uid"], nobodyUid);
    // The development key, named for nobody, stays open to everyone.
    EXPECT_EQ(AsNobody(), 256);
    EXPECT_EQ(AnswerSizeAs(0, 0, agent.Port(), release), 256);
}

TEST_F(AgentUsers, TheRateLimitCountsEachUserApart)
{
    StartAgent({}, {"--rate-limit", "2"});
    EXPECT_EQ(AsRoot(), 256);
    EXPECT_EQ(AsRoot(), 256);
    EXPECT_EQ(AsRoot(), 0);
    EXPECT_EQ(LastRequest()["reason"], "rate limit: more than 2 signatures in a minute for user 0");
    EXPECT_EQ(AsNobody(), 256);
    agent.Stop();
    EXPECT_EQ(RefusalsFor("rate limit:"), 1u);
}

TEST_F(AgentUsers, EveryUserWithoutTheOption)
{
    StartAgent({});
    EXPECT_EQ(AsNobody(), 256);
    EXPECT_EQ(LastRequest()["uid"], nobodyUid);
}

TEST_F(AgentUsers, OtherUserIsRefused)
{
    StartAgent({"root"});
    EXPECT_EQ(AsNobody(), 0);
    const nlohmann::json line = LastRequest();
    EXPECT_EQ(line["result"], "refused");
    EXPECT_EQ(line["reason"], "user not allowed");
    EXPECT_EQ(line["uid"], nobodyUid);
    EXPECT_EQ(AsRoot(), 256);
}

TEST_F(AgentUsers, NamedUserIsServedByNameOrNumber)
{
    StartAgent({"nobody"});
    EXPECT_EQ(AsNobody(), 256);
    EXPECT_EQ(AsRoot(), 0);
    agent.Stop();
    StartAgent({std::to_string(nobodyUid), "root"});
    EXPECT_EQ(AsNobody(), 256);
    EXPECT_EQ(AsRoot(), 256);
}

TEST_F(AgentUsers, AClientThatClosedBeforeItWasAcceptedIsUnknownNotRoot)
{
    // One slot, held by a silent allowed client: the other user's request
    // waits in the queue while that user closes its end. Its socket then
    // has no owner; the kernel would call such an orphan uid 0.
    StartAgent({"root"}, {"--max-connections", "1", "--read-timeout", "30"});
    agenttest::AgentConnection holder(agent.Port());
    ASSERT_TRUE(holder.Connected());
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    ConnectionsAs orphan(nobodyUid, nobodyGid, agent.Port(), 1, request, true);
    ASSERT_EQ(orphan.Opened(), 1);
    holder.Close();
    ASSERT_TRUE(agent.WaitForRequests(2)) << agent.Errors();
    const nlohmann::json line = agent.Events("request").back();
    EXPECT_EQ(line["result"], "refused");
    EXPECT_TRUE(line["uid"].is_null()) << line;
    EXPECT_EQ(line["reason"].get<std::string>().rfind("owner unknown: ", 0), 0u) << line;
    EXPECT_TRUE(line["key"].get<std::string>().empty()) << line;  // nothing of it was read
    EXPECT_EQ(agent.Events("request").front()["reason"], "closed without a request");
}

TEST_F(AgentUsers, ADisallowedUserCannotStarveTheOthers)
{
    StartAgent({"root"}, {"--max-connections", "16"});
    ExpectRootServedPast300ConnectionsOfNobody("user not allowed");
}

TEST_F(AgentUsers, AnAllowedUserKeepsToItsShareOfTheSlots)
{
    StartAgent({"root", "nobody"}, {"--max-connections", "16", "--max-connections-per-user", "8"});
    ExpectRootServedPast300ConnectionsOfNobody("user holds its share of 8 connections");
}

// What the start does with the option's words and with the kernel's
// answer to whether owners can be looked up at all.
using AgentUsersAtStart = agenttest::KeyFolderTest;

TEST_F(AgentUsersAtStart, UnknownUserNameStopsTheStart)
{
    std::string error;
    EXPECT_FALSE(agent.Start({"--key-dir", Folder(), "--allow-user", "no-such-user-x"}, error));
    EXPECT_NE(error.find("unknown user no-such-user-x"), std::string::npos) << error;
}

TEST_F(AgentUsersAtStart, AllowKeyUserNamesAServedKeyAndAUser)
{
    std::string error;
    EXPECT_FALSE(agent.Start({"--key-dir", Folder(), "--allow-key-user", "release:root"}, error));
    EXPECT_NE(error.find("--allow-key-user release:root names key release, which the agent does not serve"),
              std::string::npos)
        << error;
    EXPECT_FALSE(agent.Start({"--key-dir", Folder(), "--allow-key-user", "dev"}, error));
    EXPECT_NE(error.find("--allow-key-user dev is not KEY:USER"), std::string::npos) << error;
    EXPECT_FALSE(agent.Start({"--key-dir", Folder(), "--allow-key-user", "dev:no-such-user-x"}, error));
    EXPECT_NE(error.find("unknown user no-such-user-x"), std::string::npos) << error;
}

TEST_F(AgentUsersAtStart, AllowKeyUserNeedsOwnerLookups)
{
    std::string why, error;
    const bool works = agenttest::OwnerLookupWorks(why);
    EXPECT_EQ(agent.Start({"--key-dir", Folder(), "--allow-key-user", "dev:root"}, error), works) << error;
    if (!works) {
        EXPECT_NE(error.find("--allow-key-user cannot be honoured"), std::string::npos) << error;
    }
}

// Where the kernel does not name owners (qemu's user mode in the ARM stage),
// the option cannot be honoured and the agent does not start; elsewhere it
// starts.
TEST_F(AgentUsersAtStart, AllowUserNeedsOwnerLookups)
{
    std::string why, error;
    const bool works = agenttest::OwnerLookupWorks(why);
    EXPECT_EQ(agent.Start({"--key-dir", Folder(), "--allow-user", "root"}, error), works) << error;
    if (!works) {
        EXPECT_NE(error.find("--allow-user cannot be honoured: the kernel does not name the owner of a connection"),
                  std::string::npos)
            << error;
    }
}

// Without the option the agent serves either way; where owners are unknown
// a notice at start says why every request line has uid null.
TEST_F(AgentUsersAtStart, NoticeWhenOwnersAreUnknown)
{
    std::string why, error;
    const bool works = agenttest::OwnerLookupWorks(why);
    ASSERT_TRUE(agent.Start({"--key-dir", Folder()}, error)) << error;
    const auto notices = agent.Events("notice");
    if (works) {
        EXPECT_TRUE(notices.empty());
        return;
    }
    ASSERT_EQ(notices.size(), 1u);
    const std::string reason = notices.front()["reason"];
    EXPECT_NE(reason.find("every request line has uid null"), std::string::npos) << reason;
}

}  // namespace
