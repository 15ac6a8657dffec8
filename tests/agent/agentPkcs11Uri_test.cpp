// Keys named by PKCS#11 URI: --check shows each key's exact URI and
// fingerprint, a URI that matches no key or token (or more than one) stops
// the start with that said, several URIs serve several keys of one token, and
// signatures from several serving threads at once all hold.
#include <gtest/gtest.h>

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <sys/stat.h>

#include <atomic>
#include <cstdio>
#include <memory>
#include <thread>

#include "agentClient.h"
#include "agentProcess.h"
#include "softHsmToken.h"
#include "testKeys.h"
#include "testSupport.h"

using agenttest::Bytes;
using agenttest::Pattern;

namespace {

const std::string PIN = "52418";
const std::string TOKEN = "markforge-uri";
const std::string OTHER_TOKEN = "other-token";

class AgentPkcs11Uri : public testsupport::FrameworkTest {
protected:
    static void SetUpTestSuite()
    {
        folder = std::make_unique<testsupport::TempDir>();
        std::string error;
        for (auto* key : {&firmware, &firstDuplicate, &secondDuplicate})
            ASSERT_TRUE(testsupport::MakeRsaKey(folder->path(), "k" + std::to_string(key - &firmware), 2048, *key,
                                                error))
                << error;
        ASSERT_TRUE(token.Create(folder->path(), TOKEN, PIN, error)) << error;
        ASSERT_TRUE(token.Import(firmware.privatePem, "fw-key", "01", error)) << error;
        ASSERT_TRUE(token.Import(firstDuplicate.privatePem, "dup", "02", error)) << error;
        ASSERT_TRUE(token.Import(secondDuplicate.privatePem, "dup", "03", error)) << error;
        ASSERT_TRUE(token.AddToken(OTHER_TOKEN, error)) << error;
        ASSERT_TRUE(token.ImportInto(OTHER_TOKEN, firstDuplicate.privatePem, "fw-key", "01", error)) << error;
        pinFile = folder->file("pin");
        testsupport::WriteFile(pinFile, PIN + "\n");
        ASSERT_EQ(::chmod(pinFile.c_str(), 0600), 0);
    }
    static void TearDownTestSuite() { folder.reset(); }

    // A URI for the test token's module and PIN file.
    static std::string Uri(const std::string& path)
    {
        return "pkcs11:" + path + "?module-path=" + agenttest::SOFTHSM_MODULE + "&pin-source=file:" + pinFile;
    }

    static testsupport::ProcessResult RunAgent(std::vector<std::string> args)
    {
        args.insert(args.begin(), agenttest::AgentPath());
        return testsupport::Run(args);
    }

    static testsupport::ProcessResult Check(const std::vector<std::string>& uris)
    {
        std::vector<std::string> args;
        for (const auto& uri : uris) args.insert(args.end(), {"--pkcs11-uri", uri});
        args.push_back("--check");
        return RunAgent(args);
    }

    // "SHA256:" and the hex SHA-256 of the public key's DER, by openssl.
    std::string Fingerprint(const testsupport::TestRsaKey& key)
    {
        const std::string der = dir.file("public.der");
        testsupport::Openssl({"pkey", "-pubin", "-in", key.publicPem, "-outform", "DER", "-out", der});
        return "SHA256:" + testsupport::Openssl({"dgst", "-sha256", "-r", der}).out.substr(0, 64);
    }

    static inline std::unique_ptr<testsupport::TempDir> folder;
    static inline testsupport::TestRsaKey firmware, firstDuplicate, secondDuplicate;
    static inline agenttest::SoftHsmToken token;
    static inline std::string pinFile;
    testsupport::TempDir dir;
};

// PKCS#1 v1.5 over a SHA-256 digest, checked in this process.
bool Verifies(const std::string& publicPem, const Bytes& digest, const Bytes& signature)
{
    FILE* file = std::fopen(publicPem.c_str(), "r");
    if (!file) return false;
    EVP_PKEY* key = PEM_read_PUBKEY(file, nullptr, nullptr, nullptr);
    std::fclose(file);
    EVP_PKEY_CTX* ctx = key ? EVP_PKEY_CTX_new(key, nullptr) : nullptr;
    const bool good = ctx && EVP_PKEY_verify_init(ctx) == 1 &&
                      EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_PKCS1_PADDING) == 1 &&
                      EVP_PKEY_CTX_set_signature_md(ctx, EVP_sha256()) == 1 &&
                      EVP_PKEY_verify(ctx, signature.data(), signature.size(), digest.data(), digest.size()) == 1;
    EVP_PKEY_CTX_free(ctx);
    EVP_PKEY_free(key);
    return good;
}

Bytes Sign(unsigned short port, const std::string& key, const Bytes& digest)
{
    return agenttest::Exchange(port, agenttest::MakeRequest(key, digest, agenttest::Arguments(digest.size())));
}

TEST_F(AgentPkcs11Uri, CheckPrintsTheKeysExactUriAndFingerprint)
{
    const auto result = Check({Uri("token=" + TOKEN + ";object=fw-key;type=private")});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "fw-key " + Fingerprint(firmware) + " pkcs11:serial=" + token.Serial() + ";token=" + TOKEN +
                              ";id=%01;object=fw-key;type=private\n");
    EXPECT_EQ(result.err, "");
}

TEST_F(AgentPkcs11Uri, ModuleAndPinMayComeFromTheOptions)
{
    const auto result = RunAgent({"--pkcs11-module", agenttest::SOFTHSM_MODULE, "--pin-file", pinFile, "--pkcs11-uri",
                                  "pkcs11:token=" + TOKEN + ";object=dup;id=%03", "--check"});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out.rfind("dup " + Fingerprint(secondDuplicate) + " pkcs11:", 0), 0u) << result.out;
}

TEST_F(AgentPkcs11Uri, AUriWithoutAPinIsRefused)
{
    const auto result = RunAgent({"--pkcs11-module", agenttest::SOFTHSM_MODULE, "--pkcs11-uri",
                                  "pkcs11:token=" + TOKEN + ";object=fw-key", "--check"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "markforge-agent: pkcs11:token=" + TOKEN +
                              ";object=fw-key names no PIN: add pin-source=file:PATH to it, or give --pin-file\n");
}

TEST_F(AgentPkcs11Uri, APinSourceOpenToOthersIsRefused)
{
    const std::string open = dir.file("open-pin");
    testsupport::WriteFile(open, PIN + "\n");
    ASSERT_EQ(::chmod(open.c_str(), 0644), 0);
    const auto result = Check({"pkcs11:token=" + TOKEN + ";object=fw-key?module-path=" +
                               std::string(agenttest::SOFTHSM_MODULE) + "&pin-source=file:" + open});
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.err.find("PIN file " + open + " is open to other users"), std::string::npos) << result.err;
    EXPECT_EQ(result.err.find(PIN), std::string::npos);
}

TEST_F(AgentPkcs11Uri, AUriMatchingNoKeyStopsTheStart)
{
    const std::string uri = Uri("token=" + TOKEN + ";object=absent");
    const auto result = Check({uri});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "markforge-agent: " + uri + " matches no private key on token " + TOKEN + "\n");
    EXPECT_EQ(result.out, "");
}

TEST_F(AgentPkcs11Uri, AUriMatchingTwoKeysStopsTheStart)
{
    const std::string uri = Uri("token=" + TOKEN + ";object=dup");
    const auto result = Check({uri});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "markforge-agent: " + uri + " matches 2 private keys; tell them apart with id= on token " +
                              TOKEN + "\n");
}

TEST_F(AgentPkcs11Uri, AUriMatchingTwoTokensStopsTheStart)
{
    const std::string uri = Uri("object=fw-key");
    const auto result = Check({uri});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "markforge-agent: " + uri + " matches 2 tokens of " + agenttest::SOFTHSM_MODULE + " (" +
                              TOKEN + ", " + OTHER_TOKEN + "); name one with token= or serial=\n");
}

TEST_F(AgentPkcs11Uri, AUriMatchingNoTokenStopsTheStart)
{
    const std::string uri = Uri("token=absent;object=fw-key");
    const auto result = Check({uri});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "markforge-agent: " + uri + " matches no token of " + agenttest::SOFTHSM_MODULE + "\n");
}

TEST_F(AgentPkcs11Uri, AUriThatCannotNameOneKeyIsAUsageError)
{
    for (const std::string& uri : {std::string("pkcs11:token=x;object=fw;type=cert"), std::string("pkcs11:token=x"),
                                   std::string("pkcs11:object=fw;colour=blue"), std::string("file:/etc/key")}) {
        const auto result = RunAgent({"--pkcs11-uri", uri, "--check"});
        EXPECT_EQ(result.status, 2) << uri;
        EXPECT_EQ(result.err.rfind("markforge-agent: --pkcs11-uri " + uri + ": ", 0), 0u) << result.err;
        EXPECT_EQ(result.out, "");
    }
    const auto secret = RunAgent({"--pkcs11-uri", "pkcs11:object=fw?pin-value=" + PIN, "--check"});
    EXPECT_EQ(secret.status, 2);
    EXPECT_EQ(secret.err.find(PIN), std::string::npos) << secret.err;
}

TEST_F(AgentPkcs11Uri, SameNameOnTwoTokensIsRefused)
{
    const auto result =
        Check({Uri("token=" + TOKEN + ";object=fw-key"), Uri("token=" + OTHER_TOKEN + ";object=fw-key")});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "markforge-agent: two keys are named fw-key\n");
}

TEST_F(AgentPkcs11Uri, SeveralUrisServeSeveralKeysFromSeveralThreadsAtOnce)
{
    agenttest::AgentProcess agent(dir.path());
    std::string error;
    ASSERT_TRUE(agent.Start({"--workers", "4", "--pkcs11-uri", Uri("token=" + TOKEN + ";object=fw-key"),
                             "--pkcs11-uri", Uri("token=" + TOKEN + ";object=dup;id=%02")},
                            error))
        << error;
    // The one oracle outside this process: openssl checks one signature.
    const Bytes digest = Pattern(32, 0x11);
    const Bytes signature = Sign(agent.Port(), "fw-key", digest);
    std::string detail;
    EXPECT_TRUE(testsupport::OpensslVerifies(dir.path(), firmware.publicPem, "sha256", digest, signature, detail))
        << detail;

    constexpr int THREADS = 8, EACH = 12;
    std::atomic<int> good{0};
    std::vector<std::thread> clients;
    for (int t = 0; t < THREADS; ++t)
        clients.emplace_back([&, t] {
            for (int i = 0; i < EACH; ++i) {
                const bool firstKey = (t + i) % 2 == 0;
                const Bytes digest = Pattern(32, static_cast<uint8_t>(t * EACH + i));
                const Bytes signature = Sign(agent.Port(), firstKey ? "fw-key" : "dup", digest);
                if (Verifies(firstKey ? firmware.publicPem : firstDuplicate.publicPem, digest, signature)) ++good;
            }
        });
    for (auto& client : clients) client.join();
    EXPECT_EQ(good, THREADS * EACH);
    EXPECT_EQ(agent.Stop(), 0);
    EXPECT_EQ(agent.Events("request").size(), static_cast<size_t>(THREADS * EACH + 1));
}

}  // namespace
