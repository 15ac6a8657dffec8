// The library's signer in production mode against the running agent on
// 127.0.0.1:8001: both key sources of a key folder and all three digest
// lengths, each signature checked by openssl; and a refusal as the signer
// reports it.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <memory>

#include "agentClient.h"
#include "agentProcess.h"
#include "lbBytes.h"
#include "lbRsa.h"
#include "librarySigner.h"
#include "openedObject.h"
#include "signAgentPeer.h"
#include "testKeys.h"
#include "testSupport.h"

using agenttest::Bytes;
using agenttest::Pattern;

namespace {

class AgentLibrarySign : public testsupport::FrameworkTest {
protected:
    static void SetUpTestSuite()
    {
        keys = std::make_unique<testsupport::TempDir>();
        std::string error;
        ASSERT_TRUE(testsupport::MakeRsaKey(keys->path(), "mf", 2048, markforgeKey, error)) << error;
        ASSERT_TRUE(testsupport::MakeRsaKey(keys->path(), "pem", 3072, pemKey, error)) << error;
        ASSERT_EQ(::mkdir(keys->file("folder").c_str(), 0700), 0);
        testsupport::WriteFile(keys->file("folder/release-mf.markforge"), testsupport::ReadFile(markforgeKey.keyFile));
        testsupport::WriteFile(keys->file("folder/release-pem.pem"), testsupport::ReadFile(pemKey.privatePem));
    }
    static void TearDownTestSuite() { keys.reset(); }

    void SetUp() override
    {
        FrameworkTest::SetUp();
        std::string error;
        ASSERT_TRUE(agent.StartOnSignAgentPort(port, {"--key-dir", keys->file("folder")}, error)) << error;
        ASSERT_EQ(agent.Port(), 8001);
    }

    void ExpectVerifies(const std::string& keyName, const testsupport::TestRsaKey& key)
    {
        for (const auto& kind : agenttest::DigestKinds()) {
            const Bytes digest = Pattern(kind.length, static_cast<uint8_t>(kind.length));
            Bytes signature;
            std::string err, detail;
            ASSERT_EQ(agenttest::SignThroughLibrary(digest, keyName, signature, err), 0) << err;
            EXPECT_TRUE(testsupport::OpensslVerifies(dir.path(), key.publicPem, kind.name, digest, signature, detail))
                << keyName << " " << kind.name << ": " << detail;
        }
    }

    static inline std::unique_ptr<testsupport::TempDir> keys;
    static inline testsupport::TestRsaKey markforgeKey, pemKey;
    testsupport::SignAgentPeer port;
    testsupport::TempDir dir;
    agenttest::AgentProcess agent{dir.path()};
};

TEST_F(AgentLibrarySign, MarkforgeKeyFileAllDigestLengths)
{
    ExpectVerifies("release-mf", markforgeKey);
}

TEST_F(AgentLibrarySign, PemKeyAllDigestLengths)
{
    ExpectVerifies("release-pem", pemKey);
}

TEST_F(AgentLibrarySign, SameSignatureAsDevelopmentMode)
{
    const Bytes digest = Pattern(32);
    Bytes fromAgent;
    std::string err;
    ASSERT_EQ(agenttest::SignThroughLibrary(digest, "release-mf", fromAgent, err), 0) << err;

    testsupport::Opened<lbRsa> rsa;
    ASSERT_TRUE(rsa->ReadKeyFromDisk(markforgeKey.keyFile));
    lbBytes input, local;
    input.ImportFromV(digest);
    ASSERT_TRUE(rsa->Sign(input, local));
    EXPECT_EQ(fromAgent, local.buffer);
}

TEST_F(AgentLibrarySign, RefusalIsABlankAnswer)
{
    Bytes signature;
    std::string err;
    EXPECT_EQ(agenttest::SignThroughLibrary(Pattern(32), "nosuch", signature, err), -1);
    EXPECT_EQ(err, "Got blank string from sign_agent\n");
    ASSERT_TRUE(agent.WaitForRequests(1));
    EXPECT_EQ(agent.Events("request").back()["reason"], "unknown key");
}

}  // namespace
