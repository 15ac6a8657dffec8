// Keys in a PKCS#11 token (SoftHSM2): the library's signer against the agent
// on 127.0.0.1:8001 for all three digest lengths, the health check, and the
// PIN rules: one login, a PIN file others may read is refused, the PIN is
// never shown.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <memory>

#include "agentClient.h"
#include "agentProcess.h"
#include "librarySigner.h"
#include "signAgentPeer.h"
#include "softHsmToken.h"
#include "testKeys.h"
#include "testSupport.h"

using agenttest::Bytes;
using agenttest::Pattern;

namespace {

const std::string PIN = "73195";
const std::string TOKEN = "markforge-test";

class AgentPkcs11 : public testsupport::FrameworkTest {
protected:
    static void SetUpTestSuite()
    {
        folder = std::make_unique<testsupport::TempDir>();
        std::string error;
        ASSERT_TRUE(testsupport::MakeRsaKey(folder->path(), "hsm", 2048, key, error)) << error;
        ASSERT_TRUE(token.Create(folder->path(), TOKEN, PIN, error)) << error;
        ASSERT_TRUE(token.Import(key.privatePem, "release-hsm", "a1", error)) << error;
        pinFile = folder->file("pin");
        testsupport::WriteFile(pinFile, PIN + "\n");
        ASSERT_EQ(::chmod(pinFile.c_str(), 0600), 0);
    }
    static void TearDownTestSuite() { folder.reset(); }

    static std::vector<std::string> TokenArgs(const std::string& pin)
    {
        return {"--pkcs11-module", agenttest::SOFTHSM_MODULE, "--token", TOKEN, "--pin-file", pin};
    }

    static testsupport::ProcessResult RunAgent(std::vector<std::string> args, const std::string* input = nullptr)
    {
        args.insert(args.begin(), agenttest::AgentPath());
        return testsupport::Run(args, input);
    }

    static void ExpectPinNotShown(const testsupport::ProcessResult& result)
    {
        EXPECT_EQ(result.out.find(PIN), std::string::npos);
        EXPECT_EQ(result.err.find(PIN), std::string::npos);
    }

    static inline std::unique_ptr<testsupport::TempDir> folder;
    static inline testsupport::TestRsaKey key;
    static inline agenttest::SoftHsmToken token;
    static inline std::string pinFile;
    testsupport::TempDir dir;
};

TEST_F(AgentPkcs11, LibrarySignsAllDigestLengths)
{
    testsupport::SignAgentPeer port;
    std::string error;
    agenttest::AgentProcess agent(dir.path());
    ASSERT_TRUE(agent.StartOnSignAgentPort(port, TokenArgs(pinFile), error)) << error;

    for (const auto& kind : agenttest::DigestKinds()) {
        const Bytes digest = Pattern(kind.length, 0x40);
        Bytes signature;
        std::string err, detail;
        ASSERT_EQ(agenttest::SignThroughLibrary(digest, "release-hsm", signature, err), 0) << err;
        EXPECT_TRUE(testsupport::OpensslVerifies(dir.path(), key.publicPem, kind.name, digest, signature, detail))
            << kind.name << ": " << detail;
    }
    EXPECT_EQ(agent.Stop(), 0);
    EXPECT_EQ(agent.Errors().find(PIN), std::string::npos);
}

TEST_F(AgentPkcs11, CheckPrintsNameAndFingerprint)
{
    std::vector<std::string> args = TokenArgs(pinFile);
    args.push_back("--check");
    const testsupport::ProcessResult result = RunAgent(args);
    EXPECT_EQ(result.status, 0) << result.err;
    // The fingerprint is the SHA-256 of the DER public key, as openssl makes it.
    const std::string der = dir.file("public.der");
    testsupport::Openssl({"pkey", "-pubin", "-in", key.publicPem, "-outform", "DER", "-out", der});
    const std::string hash = testsupport::Openssl({"dgst", "-sha256", "-r", der}).out.substr(0, 64);
    EXPECT_EQ(result.out, "release-hsm SHA256:" + hash + " pkcs11:serial=" + token.Serial() + ";token=" + TOKEN +
                              ";id=%A1;object=release-hsm;type=private\n");
    EXPECT_EQ(result.err, "");
}

TEST_F(AgentPkcs11, PinFromStandardInput)
{
    const std::string input = PIN + "\n";
    const testsupport::ProcessResult result = RunAgent(
        {"--pkcs11-module", agenttest::SOFTHSM_MODULE, "--token", TOKEN, "--pin-file", "-", "--check"}, &input);
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out.rfind("release-hsm SHA256:", 0), 0u) << result.out;
}

TEST_F(AgentPkcs11, WrongPinEndsTheAgentAtOnce)
{
    const std::string wrong = dir.file("wrong-pin");
    testsupport::WriteFile(wrong, "11111\n");
    ASSERT_EQ(::chmod(wrong.c_str(), 0600), 0);
    // Served, not checked: a refused login must end the agent before it listens.
    const testsupport::ProcessResult result = RunAgent({"--pkcs11-module", agenttest::SOFTHSM_MODULE, "--token",
                                                        TOKEN, "--pin-file", wrong, "--port", "0"});
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.err.find("login to token " + TOKEN + " refused"), std::string::npos) << result.err;
    EXPECT_NE(result.err.find("PIN incorrect"), std::string::npos) << result.err;
    EXPECT_EQ(result.err.find("11111"), std::string::npos);
    EXPECT_EQ(result.out, "");
}

TEST_F(AgentPkcs11, PinFileReadableByOthersIsRefused)
{
    const std::string open = dir.file("open-pin");
    testsupport::WriteFile(open, PIN + "\n");
    ASSERT_EQ(::chmod(open.c_str(), 0644), 0);
    const testsupport::ProcessResult result = RunAgent(TokenArgs(open));
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "markforge-agent: PIN file " + open + " is open to other users (mode 0644); chmod o-rwx it\n");
    ExpectPinNotShown(result);
}

TEST_F(AgentPkcs11, UnknownTokenLabel)
{
    const testsupport::ProcessResult result = RunAgent(
        {"--pkcs11-module", agenttest::SOFTHSM_MODULE, "--token", "no-such-token", "--pin-file", pinFile, "--check"});
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.err.find("pkcs11:token=no-such-token matches no token of "), std::string::npos) << result.err;
    ExpectPinNotShown(result);
}

TEST_F(AgentPkcs11, PinOnTheCommandLineIsNoOption)
{
    const testsupport::ProcessResult result = RunAgent(
        {"--pkcs11-module", agenttest::SOFTHSM_MODULE, "--token", TOKEN, "--pin", PIN, "--check"});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "");
}

}  // namespace
