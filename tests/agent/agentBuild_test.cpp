// End to end: `markforge build --mode production` signs through the running
// markforge-agent on 127.0.0.1:8001, self-verifies with --verify-key, and the
// container verifies with openssl alone.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <map>
#include <memory>
#include <string>

#include "agentProcess.h"
#include "keyCache.h"
#include "signAgentPeer.h"
#include "testSupport.h"

namespace {

using testsupport::ProcessResult;

class AgentBuild : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        keys = std::make_unique<testsupport::TempDir>();
        ASSERT_EQ(::mkdir(keys->file("folder").c_str(), 0700), 0);
        std::string error;
        ASSERT_TRUE(testsupport::CopyCachedKey("release", 3072, keys->file("folder/release.markforge"),
                                               keys->file("release.pem"), error))
            << error;
    }
    static void TearDownTestSuite() { keys.reset(); }

    void SetUp() override
    {
        std::string error;
        ASSERT_TRUE(agent.StartOnSignAgentPort(port, {"--key-dir", keys->file("folder")}, error)) << error;
        testsupport::WriteFile(dir.file("boot.bin"), std::string(1000, 'b'));
        testsupport::WriteFile(dir.file("app.bin"), std::string(70000, 'a'));
    }
    void TearDown() override
    {
        agent.Stop();
        port.Stop();
    }

    static inline std::unique_ptr<testsupport::TempDir> keys;
    testsupport::TempDir dir;
    testsupport::SignAgentPeer port;  // holds the port lock only
    agenttest::AgentProcess agent{dir.path()};
};

TEST_F(AgentBuild, ProductionContainersVerify)
{
    for (const char* hash : {"sha256", "sha384", "sha512"}) {
        SCOPED_TRACE(hash);
        const std::string out = dir.file(std::string("container-") + hash + ".img");
        const ProcessResult built = testsupport::RunMarkforge(
            {"build", "-o", out, "--key", "release", "--mode", "production", "--hash", hash, "--verify-key",
             keys->file("release.pem"), "boot=" + dir.file("boot.bin"), "app=" + dir.file("app.bin")});
        ASSERT_EQ(built.status, 0) << built.err;
        EXPECT_EQ(built.err, "");
        const ProcessResult checked = testsupport::Run({"sh", OPENSSL_CHECK_SCRIPT, out, keys->file("release.pem")});
        EXPECT_EQ(checked.status, 0) << checked.out << checked.err;
        EXPECT_EQ(checked.out, "component boot: ok\ncomponent app: ok\narchive: ok\n");
    }
    // Two components and the archive per build, each named by its F field.
    // The signer takes each answer before the agent's thread has logged it,
    // so the next request's line may come first: the lines are counted, not
    // ordered.
    ASSERT_TRUE(agent.WaitForRequests(9));
    std::map<std::string, int> perField;
    for (const auto& request : agent.Events("request")) {
        EXPECT_EQ(request["key"], "release");
        EXPECT_EQ(request["result"], "signed");
        ++perField[request["F"].get<std::string>()];
    }
    EXPECT_EQ(perField, (std::map<std::string, int>{{"app", 3}, {"archive", 3}, {"boot", 3}}));
}

TEST_F(AgentBuild, AnUnknownKeyIsRefusedAndNothingIsWritten)
{
    const std::string out = dir.file("container.img");
    const ProcessResult built =
        testsupport::RunMarkforge({"build", "-o", out, "--key", "nosuchkey", "--mode", "production", "--verify-key",
                                   keys->file("release.pem"), "boot=" + dir.file("boot.bin")});
    EXPECT_EQ(built.status, 5);
    EXPECT_NE(built.err.find("Got blank string from sign_agent"), std::string::npos) << built.err;
    EXPECT_FALSE(testsupport::FileExists(out));
}

TEST_F(AgentBuild, ResignMovesADevelopmentContainerToTheReleaseKey)
{
    // A container of the development key, re-signed through the agent, is
    // the container a production build of the same components makes.
    const std::string devKeys = dir.file("dev-keys");
    ASSERT_EQ(::mkdir(devKeys.c_str(), 0700), 0);
    std::string error;
    ASSERT_TRUE(testsupport::CopyCachedKey("dev", 2048, devKeys + "/dev.markforge", "", error)) << error;
    const std::vector<std::string> components{"boot=" + dir.file("boot.bin"), "app=" + dir.file("app.bin")};
    for (const char* hash : {"sha256", "sha512"}) {
        SCOPED_TRACE(hash);
        const std::string development = dir.file("dev.img");
        std::vector<std::string> build{"build", "-o", development, "--key", "dev", "--mode", "development",
                                       "--key-dir", devKeys, "--hash", hash, "--table"};
        build.insert(build.end(), components.begin(), components.end());
        ASSERT_EQ(testsupport::RunMarkforge(build).status, 0);

        const std::string released = dir.file("released.img");
        const ProcessResult resigned =
            testsupport::RunMarkforge({"resign", development, "-o", released, "--key", "release", "--mode",
                                       "production", "--verify-key", keys->file("release.pem")});
        ASSERT_EQ(resigned.status, 0) << resigned.err;

        const std::string direct = dir.file("direct.img");
        std::vector<std::string> production{"build", "-o", direct, "--key", "release", "--mode", "production",
                                            "--verify-key", keys->file("release.pem"), "--hash", hash, "--table"};
        production.insert(production.end(), components.begin(), components.end());
        ASSERT_EQ(testsupport::RunMarkforge(production).status, 0);
        EXPECT_EQ(testsupport::ReadFile(released), testsupport::ReadFile(direct));
        const ProcessResult checked =
            testsupport::Run({"sh", OPENSSL_CHECK_SCRIPT, released, keys->file("release.pem")});
        EXPECT_EQ(checked.status, 0) << checked.out << checked.err;
    }
}

}  // namespace
