// The agent under faulty and hostile clients: each fault is refused without
// an answer and logged, while other clients go on being served.
#include <gtest/gtest.h>

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <thread>

#include "agentClient.h"
#include "keyFolderTest.h"

using agenttest::AgentConnection;
using agenttest::Bytes;
using agenttest::Exchange;
using agenttest::MakeRequest;
using agenttest::Pattern;

namespace {

Bytes WithExtraByte(Bytes request)
{
    request.push_back(0);
    return request;
}

class AgentFaults : public agenttest::KeyFolderTest {
protected:
    void StartAgent(std::vector<std::string> extra = {})
    {
        std::vector<std::string> args{"--key-dir", Folder(), "--read-timeout", "3", "--workers", "2"};
        args.insert(args.end(), extra.begin(), extra.end());
        std::string error;
        ASSERT_TRUE(agent.Start(args, error)) << error;
    }

    Bytes GoodRequest() const { return MakeRequest("dev", Pattern(32), agenttest::Arguments(32)); }

    // A good request is answered with a signature that openssl verifies.
    void ExpectServed()
    {
        const Bytes signature = Exchange(agent.Port(), GoodRequest());
        ASSERT_EQ(signature.size(), 256u);
        std::string detail;
        EXPECT_TRUE(testsupport::OpensslVerifies(dir.path(), key.publicPem, "sha256", Pattern(32), signature, detail))
            << detail;
    }

    // `request` on its own connection gets no answer, and the log names `reason`.
    void ExpectRefused(const Bytes& request, const std::string& reason)
    {
        bool closed = false;
        EXPECT_TRUE(Exchange(agent.Port(), request, &closed).empty());
        EXPECT_TRUE(closed) << "the agent did not close the connection";
        ExpectLastReason(reason);
    }

    void ExpectLastReason(const std::string& reason)
    {
        const auto refused = RefusedEvents();
        ASSERT_FALSE(refused.empty());
        EXPECT_NE(refused.back()["reason"].get<std::string>().find(reason), std::string::npos)
            << refused.back().dump();
    }

    std::vector<nlohmann::json> RefusedEvents() const
    {
        std::vector<nlohmann::json> refused;
        for (const auto& event : agent.Events("request"))
            if (event["result"] == "refused") refused.push_back(event);
        return refused;
    }

};

TEST_F(AgentFaults, SilentClientDoesNotDelayOthers)
{
    StartAgent();
    AgentConnection silent(agent.Port()), silent2(agent.Port());
    ASSERT_TRUE(silent.Connected());
    ExpectServed();
    ExpectServed();
    ExpectServed();
    // Both workers would be taken if silent clients held them.
    EXPECT_TRUE(silent.StillOpen());
    Bytes answer;
    EXPECT_TRUE(silent.ReadToEnd(answer));
    EXPECT_TRUE(answer.empty());
    ExpectLastReason("no complete request within 3000 ms (0 bytes)");
    ExpectServed();
}

TEST_F(AgentFaults, HalfRequestIsDroppedAtTheDeadline)
{
    StartAgent();
    AgentConnection half(agent.Port());
    const Bytes good = GoodRequest();
    ASSERT_TRUE(half.Send(Bytes(good.begin(), good.begin() + 64)));
    ExpectServed();
    EXPECT_TRUE(half.StillOpen());
    Bytes answer;
    EXPECT_TRUE(half.ReadToEnd(answer));
    EXPECT_TRUE(answer.empty());
    ExpectLastReason("(64 bytes)");
}

TEST_F(AgentFaults, HangUpMidRequest)
{
    StartAgent();
    {
        AgentConnection quitter(agent.Port());
        const Bytes good = GoodRequest();
        ASSERT_TRUE(quitter.Send(Bytes(good.begin(), good.begin() + 100)));
    }
    ASSERT_TRUE(agent.WaitForRequests(1));
    // Taken before the hang-up, it is read to its end; taken after, its
    // socket has no owner any more and nothing of it is read.
    const std::string reason = RefusedEvents().back()["reason"];
    EXPECT_TRUE(reason == "closed after 100 bytes of a request" || reason.rfind("owner unknown: ", 0) == 0)
        << reason;
    ExpectServed();
}

TEST_F(AgentFaults, WrongSizedRequests)
{
    StartAgent();
    const Bytes good = GoodRequest();
    ExpectRefused(WithExtraByte(good), "129 bytes received for a 128-byte request");
    ExpectRefused(WithExtraByte(MakeRequest("dev", Pattern(64), "S=64;")), "161 bytes received");
    ExpectRefused(Bytes(4096, 'A'), "");
    // Too short: the client waits, the agent gives up at the deadline.
    ExpectRefused(Bytes(1, 'd'), "(1 bytes)");
    ExpectRefused(Bytes(good.begin(), good.end() - 1), "(127 bytes)");
    ExpectServed();
    EXPECT_EQ(RefusedEvents().size(), 5u);
}

TEST_F(AgentFaults, SizeThatDoesNotMatchTheLayout)
{
    StartAgent();
    ExpectRefused(MakeRequest("dev", Pattern(32), "S=48;"), "does not match a 128-byte request");
    ExpectRefused(MakeRequest("dev", Pattern(64), "S=32;"), "does not match a 160-byte request");
    ExpectServed();
}

TEST_F(AgentFaults, UnknownKey)
{
    StartAgent();
    ExpectRefused(MakeRequest("nosuch", Pattern(32), "S=32;"), "unknown key");
    ExpectRefused(MakeRequest("../dev", Pattern(32), "S=32;"), "malformed key name");
    ExpectServed();
}

TEST_F(AgentFaults, DisallowedKey)
{
    StartAgent({"--allow-key", "other"});
    ExpectRefused(GoodRequest(), "key not allowed");
    agent.Stop();
    StartAgent({"--allow-key", "other", "--allow-key", "dev"});
    ExpectServed();
}

TEST_F(AgentFaults, TwoHundredConnectionsAtOnce)
{
    // One user may be given every slot.
    StartAgent({"--max-connections", "64", "--max-connections-per-user", "64"});
    std::vector<std::unique_ptr<AgentConnection>> clients;
    for (int i = 0; i < 200; ++i) {
        clients.push_back(std::make_unique<AgentConnection>(agent.Port()));
        ASSERT_TRUE(clients.back()->Connected()) << i;
    }
    for (auto& client : clients) ASSERT_TRUE(client->Send(GoodRequest()));
    // PKCS#1 v1.5 signatures are deterministic: every answer is the same.
    Bytes first;
    for (auto& client : clients) {
        Bytes answer;
        ASSERT_TRUE(client->ReadToEnd(answer, 120));
        if (first.empty()) first = answer;
        EXPECT_EQ(answer, first);
    }
    std::string detail;
    EXPECT_TRUE(testsupport::OpensslVerifies(dir.path(), key.publicPem, "sha256", Pattern(32), first, detail)) << detail;
    EXPECT_TRUE(RefusedEvents().empty());
}

TEST_F(AgentFaults, AuditLineForASignature)
{
    StartAgent();
    ExpectServed();
    ASSERT_TRUE(agent.WaitForRequests(1));
    const nlohmann::json line = agent.Events("request").front();
    EXPECT_EQ(line["key"], "dev");
    EXPECT_EQ(line["F"], "image.bin");
    EXPECT_EQ(line["digest_length"], 32);
    EXPECT_EQ(line["digest"], "0102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f20");
    EXPECT_EQ(line["result"], "signed");
    std::string why;
    if (agenttest::OwnerLookupWorks(why)) {
        EXPECT_EQ(line["uid"], ::getuid());
    } else {
        EXPECT_TRUE(line["uid"].is_null()) << why;
    }
    EXPECT_FALSE(line.contains("reason"));
    EXPECT_TRUE(line["microseconds"].is_number_integer());
    EXPECT_TRUE(line["client_port"].is_number_integer());
    EXPECT_TRUE(line["time"].is_string());
}

TEST_F(AgentFaults, StopFinishesAndSummarises)
{
    StartAgent();
    ExpectServed();
    ExpectRefused(MakeRequest("nosuch", Pattern(32), "S=32;"), "unknown key");
    EXPECT_EQ(agent.Stop(), 0);
    const auto stops = agent.Events("stop");
    ASSERT_EQ(stops.size(), 1u);
    EXPECT_EQ(stops[0]["signed"], 1);
    EXPECT_EQ(stops[0]["refused"], 1);
}

}  // namespace

namespace {

TEST_F(AgentFaults, UsrOneLogsTheCountsAndServesOn)
{
    StartAgent({});
    agent.Signal(SIGUSR1);
    ASSERT_TRUE(agent.WaitForEvents("status", 1));
    const nlohmann::json status = agent.Events("status").front();
    EXPECT_EQ(status["signal"], "SIGUSR1");
    EXPECT_EQ(status["signed"], 0);
    EXPECT_EQ(agenttest::Exchange(agent.Port(), GoodRequest()).size(), 256u);
    EXPECT_EQ(agent.Stop(), 0);
}

TEST_F(AgentFaults, HupReopensTheAuditLogAfterRotation)
{
    const std::string log = dir.file("audit.log");
    StartAgent({"--audit-log", log});
    ASSERT_EQ(std::rename(log.c_str(), (log + ".1").c_str()), 0);
    agent.Signal(SIGHUP);
    for (int i = 0; i < 200 && !testsupport::FileExists(log); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(agenttest::Exchange(agent.Port(), GoodRequest()).size(), 256u);
    EXPECT_EQ(agent.Stop(), 0);
    const std::string rotated = testsupport::ReadFile(log + ".1");
    const std::string fresh = testsupport::ReadFile(log);
    EXPECT_NE(rotated.find("\"event\":\"start\""), std::string::npos) << rotated;
    EXPECT_NE(fresh.find("\"event\":\"reopen\",\"signal\":\"SIGHUP\",\"result\":\"reopened\""), std::string::npos)
        << fresh;
    EXPECT_NE(fresh.find("\"result\":\"signed\""), std::string::npos) << fresh;
    EXPECT_NE(fresh.find("\"event\":\"stop\""), std::string::npos) << fresh;
}

}  // namespace
