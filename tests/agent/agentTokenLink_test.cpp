// A token the agent reaches through p11-kit's client module, served by
// `p11-kit server` with SoftHSM2 behind it, the link forwarded by socat:
// while the link is down the agent signs nothing (each request is refused
// and the loss logged), and once it is back the agent signs again without
// a restart. The fleet: two build hosts, each a network namespace of this
// test's own, reach the HSM host's namespace over TCP only, and each builds
// a production container that verifies with the token key's public half.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <memory>
#include <thread>

#include "agentClient.h"
#include "agentProcess.h"
#include "softHsmToken.h"
#include "testKeys.h"
#include "testSupport.h"
#include "tokenLink.h"

using agenttest::BackgroundProcess;
using agenttest::Bytes;
using agenttest::Pattern;

namespace {

const std::string PIN = "60813";
const std::string TOKEN = "hsm-host";
const std::string KEY = "release";
constexpr double SOCKET_WAIT = 20;
// How long the agent may take to find the token again once the link is back
// (it tries every second).
constexpr auto BACK_WITHIN = std::chrono::seconds(20);

class TokenLink : public testsupport::FrameworkTest {
protected:
    static void SetUpTestSuite()
    {
        folder = std::make_unique<testsupport::TempDir>();
        std::string error;
        ASSERT_TRUE(testsupport::MakeRsaKey(folder->path(), "hsm", 2048, key, error)) << error;
        ASSERT_TRUE(testsupport::MakeRsaKey(folder->path(), "other", 2048, otherKey, error)) << error;
    }
    static void TearDownTestSuite() { folder.reset(); }

    // Each test has a token of its own: some change theirs.
    void SetUp() override
    {
        testsupport::FrameworkTest::SetUp();
        if (std::string(agenttest::P11KIT_CLIENT_MODULE).empty())
            GTEST_SKIP() << "no p11-kit client module for the agent's architecture in this build";
        for (const char* tool : {"/usr/bin/p11-kit", "/usr/bin/socat"})
            if (::access(tool, X_OK) != 0) GTEST_SKIP() << tool << " is not installed";
        std::string error;
        ASSERT_TRUE(token.Create(dir.path(), TOKEN, PIN, error)) << error;
        ASSERT_TRUE(token.Import(key.privatePem, KEY, "42", error)) << error;
        pinFile = dir.file("pin");
        testsupport::WriteFile(pinFile, PIN + "\n");
        ASSERT_EQ(::chmod(pinFile.c_str(), 0600), 0);
    }

    // `p11-kit server` offering the test token on `socket`, run through
    // `inside` (a namespace's prefix, or nothing).
    void StartHsm(BackgroundProcess& server, const std::string& socket, std::vector<std::string> inside = {})
    {
        inside.insert(inside.end(), {"p11-kit", "server", "-f", "--provider", agenttest::SOFTHSM_MODULE, "-n", socket,
                                     "pkcs11:token=" + TOKEN});
        std::string error;
        ASSERT_TRUE(server.Start(inside, dir.file("p11-kit-server.log"), error)) << error;
        ASSERT_TRUE(agenttest::WaitForPath(socket, SOCKET_WAIT)) << testsupport::ReadFile(dir.file("p11-kit-server.log"));
    }

    // socat forwarding the unix socket `listen` to `target` (a socat
    // address).
    void StartForwarder(BackgroundProcess& forwarder, const std::string& listen, const std::string& target,
                        std::vector<std::string> inside = {})
    {
        ::unlink(listen.c_str());
        inside.insert(inside.end(), {"socat", "UNIX-LISTEN:" + listen + ",fork,unlink-early", target});
        std::string error;
        ASSERT_TRUE(forwarder.Start(inside, dir.file("socat.log"), error)) << error;
        ASSERT_TRUE(agenttest::WaitForPath(listen, SOCKET_WAIT)) << testsupport::ReadFile(dir.file("socat.log"));
    }

    std::string Uri() const
    {
        return "pkcs11:token=" + TOKEN + ";object=" + KEY + "?module-path=" + agenttest::P11KIT_CLIENT_MODULE +
               "&pin-source=file:" + pinFile;
    }

    // The client module's address, and, for a sanitizer build, the leak
    // suppressions for what libp11 keeps or loses of a lost link's contexts
    // (see the file).
    static std::vector<std::string> ClientEnvironment(const std::string& socket)
    {
        const char* leakOptions = std::getenv("LSAN_OPTIONS");
        return {"env", "P11_KIT_SERVER_ADDRESS=unix:path=" + socket,
                "LSAN_OPTIONS=" + std::string(leakOptions ? leakOptions : "") +
                    ":suppressions=" LOST_LINK_SUPPRESSIONS};
    }

    bool SignsGood(unsigned short port, uint8_t seed)
    {
        const Bytes digest = Pattern(32, seed);
        const Bytes signature =
            agenttest::Exchange(port, agenttest::MakeRequest(KEY, digest, agenttest::Arguments(digest.size())));
        std::string detail;
        return !signature.empty() &&
               testsupport::OpensslVerifies(dir.path(), key.publicPem, "sha256", digest, signature, detail);
    }

    static std::vector<std::string> TokenStates(const agenttest::AgentProcess& agent)
    {
        std::vector<std::string> states;
        for (const auto& event : agent.Events("token")) states.push_back(event.value("state", ""));
        return states;
    }

    // Serves the token to `agent` through a link, loses the link (a
    // request finds the token gone), then, with the token's server down
    // too, lets `change` alter the token before both come back.
    void LoseTheTokenWhile(agenttest::AgentProcess& agent, const std::function<void()>& change)
    {
        const std::string hsmSocket = dir.file("hsm.sock"), linkSocket = dir.file("link.sock");
        StartHsm(hsm, hsmSocket);
        StartForwarder(link, linkSocket, "UNIX-CONNECT:" + hsmSocket);
        agent.RunThrough(ClientEnvironment(linkSocket));
        std::string error;
        ASSERT_TRUE(agent.Start({"--pkcs11-uri", Uri()}, error)) << error;
        ASSERT_TRUE(SignsGood(agent.Port(), 1));
        link.Stop();
        hsm.Stop();
        EXPECT_FALSE(SignsGood(agent.Port(), 2));
        ASSERT_TRUE(agent.WaitForEvents("token", 1));
        change();
        ::unlink(hsmSocket.c_str());  // so that the wait below is for the new server's
        StartHsm(hsm, hsmSocket);
        StartForwarder(link, linkSocket, "UNIX-CONNECT:" + hsmSocket);
    }

    // The reason of the first "away" event that `accept` takes, waiting for
    // it as long as the agent may take to find the token; empty if none.
    static std::string AwayReason(const agenttest::AgentProcess& agent,
                                  const std::function<bool(const std::string&)>& accept)
    {
        const auto deadline = std::chrono::steady_clock::now() + BACK_WITHIN;
        do {
            for (const auto& event : agent.Events("token")) {
                const std::string reason = event.value("reason", "");
                if (event.value("state", "") == "away" && accept(reason)) return reason;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
        } while (std::chrono::steady_clock::now() < deadline);
        return "";
    }

    // The agent signs nothing, yet keeps running and stops cleanly.
    void ExpectRefusingButRunning(agenttest::AgentProcess& agent)
    {
        EXPECT_FALSE(SignsGood(agent.Port(), 3));
        EXPECT_TRUE(agent.Running());
        EXPECT_EQ(agent.Stop(), 0);
    }

    static bool EndsWith(const std::string& text, const std::string& suffix)
    {
        return text.size() > suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
    }

    static inline std::unique_ptr<testsupport::TempDir> folder;
    static inline testsupport::TestRsaKey key, otherKey;
    testsupport::TempDir dir;
    agenttest::SoftHsmToken token;
    std::string pinFile;
    BackgroundProcess hsm, link;
};

TEST_F(TokenLink, ALostLinkIsRefusedAndTheTokenIsServedAgainWithoutARestart)
{
    const std::string hsmSocket = dir.file("hsm.sock"), linkSocket = dir.file("link.sock");
    StartHsm(hsm, hsmSocket);
    StartForwarder(link, linkSocket, "UNIX-CONNECT:" + hsmSocket);

    agenttest::AgentProcess agent(dir.path());
    agent.RunThrough(ClientEnvironment(linkSocket));
    std::string error;
    const std::string metrics = dir.file("agent.prom");
    ASSERT_TRUE(agent.Start({"--pkcs11-uri", Uri(), "--metrics-file", metrics}, error)) << error;
    EXPECT_TRUE(SignsGood(agent.Port(), 1));

    link.Stop();
    // Refused, never a wrong signature, for as long as the link is down.
    for (uint8_t seed = 2; seed < 5; ++seed)
        EXPECT_TRUE(agenttest::Exchange(agent.Port(), agenttest::MakeRequest(KEY, Pattern(32, seed),
                                                                             agenttest::Arguments(32)))
                        .empty());
    ASSERT_TRUE(agent.WaitForEvents("token", 1));
    EXPECT_EQ(TokenStates(agent).front(), "lost");

    StartForwarder(link, linkSocket, "UNIX-CONNECT:" + hsmSocket);
    const auto deadline = std::chrono::steady_clock::now() + BACK_WITHIN;
    bool back = false;
    while (!back && std::chrono::steady_clock::now() < deadline) {
        back = SignsGood(agent.Port(), 9);
        if (!back) std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    EXPECT_TRUE(back) << agent.Errors();
    EXPECT_TRUE(agent.Running());
    EXPECT_EQ(TokenStates(agent).back(), "back");

    const auto requests = agent.Events("request");
    size_t refused = 0;
    for (const auto& request : requests)
        if (request.value("result", "") == "refused") {
            ++refused;
            const std::string reason = request.value("reason", "");
            EXPECT_TRUE(reason.rfind("token error: ", 0) == 0 || reason == "token unavailable") << reason;
        }
    EXPECT_GE(refused, 3u);
    EXPECT_EQ(agent.Stop(), 0);
    // The file written at the stop counts the failure the token had, and the
    // refusals.
    const std::string counts = testsupport::ReadFile(metrics);
    EXPECT_NE(counts.find("\nmarkforge_agent_token_errors_total 1\n"), std::string::npos) << counts;
    EXPECT_NE(counts.find("\nmarkforge_agent_refusals_total{reason=\"signing-failed\",key=\"" + KEY + "\"} " +
                          std::to_string(refused) + "\n"),
              std::string::npos)
        << counts;
}

TEST_F(TokenLink, AnotherKeyUnderTheServedNameEndsTheRecovery)
{
    agenttest::AgentProcess agent(dir.path());
    LoseTheTokenWhile(agent, [this] {
        std::string error;
        ASSERT_TRUE(token.ReplaceKey(otherKey.privatePem, KEY, "42", error)) << error;
    });
    const std::string expected = "key " + KEY + " is not the key it was before the token was lost; the agent stops trying";
    EXPECT_EQ(AwayReason(agent, [&](const std::string& reason) { return reason == expected; }), expected)
        << agent.Errors();
    // It has stopped trying: even the old key, back on the token, is not
    // served again until the agent is restarted.
    std::string error;
    ASSERT_TRUE(token.ReplaceKey(key.privatePem, KEY, "42", error)) << error;
    std::this_thread::sleep_for(std::chrono::seconds(3));
    for (const std::string& state : TokenStates(agent)) EXPECT_NE(state, "back");
    ExpectRefusingButRunning(agent);
}

TEST_F(TokenLink, APinTheTokenNoLongerTakesEndsTheRecovery)
{
    agenttest::AgentProcess agent(dir.path());
    LoseTheTokenWhile(agent, [this] {
        std::string error;
        ASSERT_TRUE(token.ChangePin("24680", error)) << error;
    });
    const std::string suffix = "; the agent stops trying (restart it once the token takes the PIN again)";
    EXPECT_FALSE(AwayReason(agent, [&](const std::string& text) { return EndsWith(text, suffix); }).empty())
        << agent.Errors();
    ExpectRefusingButRunning(agent);
}

TEST_F(TokenLink, TwoKeysUnderTheServedNameAreSaidAtOnceAndRefused)
{
    agenttest::AgentProcess agent(dir.path());
    LoseTheTokenWhile(agent, [this] {
        std::string error;
        ASSERT_TRUE(token.ImportDuplicate(otherKey.privatePem, KEY, "42", error)) << error;
    });
    // Said as soon as it is the reason, not a minute later; the key's exact
    // URI names the token by its serial number.
    const std::string suffix = ";object=" + KEY + ";type=private matches 2 private keys now";
    const std::string prefix = "pkcs11:serial=" + token.Serial() + ";";
    EXPECT_FALSE(AwayReason(agent, [&](const std::string& text) {
                     return text.rfind(prefix, 0) == 0 && EndsWith(text, suffix);
                 }).empty())
        << agent.Errors();
    ExpectRefusingButRunning(agent);
}

TEST_F(TokenLink, TwoBuildHostsSignThroughOneTokenOverTcp)
{
    const std::string unavailable = agenttest::NamespacesUnavailable();
    if (!unavailable.empty()) GTEST_SKIP() << unavailable;
    agenttest::Namespaces hosts;
    std::string error;
    ASSERT_TRUE(hosts.Add("hsm", error)) << error;
    const std::vector<std::string> builders{"b1", "b2"};
    for (size_t i = 0; i < builders.size(); ++i) {
        ASSERT_TRUE(hosts.Add(builders[i], error)) << error;
        ASSERT_TRUE(hosts.Link("hsm", builders[i], static_cast<int>(i + 1), error)) << error;
    }
    // The HSM host: the token behind p11-kit's server, its socket offered on
    // TCP port 5577 of the HSM host's links.
    const std::string hsmSocket = dir.file("hsm.sock");
    BackgroundProcess hsmListener;
    StartHsm(hsm, hsmSocket, hosts.Inside("hsm", {}));
    ASSERT_TRUE(hsmListener.Start(hosts.Inside("hsm", {"socat", "TCP-LISTEN:5577,fork,reuseaddr",
                                                       "UNIX-CONNECT:" + hsmSocket}),
                                  dir.file("hsm-socat.log"), error))
        << error;

    BackgroundProcess tunnels[2];
    std::unique_ptr<agenttest::AgentProcess> agents[2];
    const std::string payload = dir.file("app.bin");
    testsupport::WriteBytes(payload, testsupport::SeededBytes(70000, 5));
    const std::string publicKey = key.publicPem;
    for (size_t i = 0; i < builders.size(); ++i) {
        const std::string host = builders[i];
        const std::string socket = dir.file(host + ".sock");
        // The build host's end of the link: its only way to the token.
        StartForwarder(tunnels[i], socket, "TCP:10.77." + std::to_string(i + 1) + ".1:5577", hosts.Inside(host, {}));
        agents[i] = std::make_unique<agenttest::AgentProcess>(dir.path() + "/" + host);
        ASSERT_EQ(::mkdir((dir.path() + "/" + host).c_str(), 0700), 0);
        std::vector<std::string> prefix = hosts.Inside(host, ClientEnvironment(socket));
        agents[i]->RunThrough(prefix);
        ASSERT_TRUE(agents[i]->Start({"--port", "8001", "--pkcs11-uri", Uri()}, error)) << error;

        const std::string image = dir.file(host + ".img");
        const auto built = testsupport::Run(hosts.Inside(
            host, {testsupport::MarkforgePath(), "build", "--mode", "production", "--key", KEY, "--verify-key",
                   publicKey, "-o", image, "app=" + payload}));
        ASSERT_EQ(built.status, 0) << built.err << agents[i]->Errors();
        const auto verified = testsupport::RunMarkforge({"verify", image, "--key", publicKey});
        EXPECT_EQ(verified.status, 0) << verified.out << verified.err;
    }

    // Build host 1's link dropped: its build fails and writes nothing, the
    // other host builds on; back, and host 1 builds again, same agent.
    tunnels[0].Stop();
    const std::string refusedImage = dir.file("refused.img");
    const auto refused = testsupport::Run(hosts.Inside(
        "b1", {testsupport::MarkforgePath(), "build", "--mode", "production", "--key", KEY, "--verify-key",
               publicKey, "-o", refusedImage, "app=" + payload}));
    EXPECT_EQ(refused.status, 5) << refused.err;
    EXPECT_FALSE(testsupport::FileExists(refusedImage));
    const auto other = testsupport::Run(hosts.Inside(
        "b2", {testsupport::MarkforgePath(), "build", "--mode", "production", "--key", KEY, "--verify-key",
               publicKey, "-o", dir.file("other.img"), "app=" + payload}));
    EXPECT_EQ(other.status, 0) << other.err;

    StartForwarder(tunnels[0], dir.file("b1.sock"), "TCP:10.77.1.1:5577", hosts.Inside("b1", {}));
    const auto deadline = std::chrono::steady_clock::now() + BACK_WITHIN;
    int status = -1;
    const std::string again = dir.file("again.img");
    while (status != 0 && std::chrono::steady_clock::now() < deadline) {
        status = testsupport::Run(hosts.Inside("b1", {testsupport::MarkforgePath(), "build", "--mode", "production",
                                                      "--key", KEY, "--verify-key", publicKey, "-o", again,
                                                      "app=" + payload}))
                     .status;
        if (status != 0) std::this_thread::sleep_for(std::chrono::milliseconds(300));
    }
    EXPECT_EQ(status, 0) << agents[0]->Errors();
    EXPECT_TRUE(agents[0]->Running());
    EXPECT_EQ(testsupport::RunMarkforge({"verify", again, "--key", publicKey}).status, 0);
    for (auto& agent : agents) EXPECT_EQ(agent->Stop(), 0);
}

}  // namespace
