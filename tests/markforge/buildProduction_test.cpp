// `markforge build --mode production` against a stand-in signing agent on
// 127.0.0.1:8001: good answers give a verified container; every bad answer,
// a hang-up or silence ends with status 5 and the output untouched.
#include <gtest/gtest.h>

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "containerFixture.h"
#include "signAgentPeer.h"
#include "testKeys.h"

namespace {

using testsupport::ContainerTest;
using testsupport::ParseContainer;
using testsupport::ProcessResult;
using testsupport::ReadFile;

class BuildProductionTest : public ContainerTest {
protected:
    void SetUp() override
    {
        // The suite's key as PEM, for openssl to sign the agent's answers.
        privatePem = dir.file("dev-private.pem");
        const ProcessResult converted = testsupport::RunRecaster(
            {"--convertkey", "-i", privateKey(), "-o", privatePem, "-I", "markforge", "-O", "pem"});
        ASSERT_EQ(converted.status, 0) << converted.err;
        out = dir.file("out.img");
        testsupport::WriteFile(out, "the previous container");
        components = {"boot=" + MakeComponent("boot.bin", 1000, 1), "app=" + MakeComponent("app.bin", 3000, 2)};
    }
    void TearDown() override { peer.Stop(); }

    void StartPeer()
    {
        std::string error;
        ASSERT_TRUE(peer.Start(error)) << error;
    }

    // A real signature by the suite's key over the request's digest.
    std::vector<uint8_t> SignRequest(const std::vector<uint8_t>& request, size_t digestLength,
                                     const std::string& digestName)
    {
        return SignRequestWith(privatePem, request, digestLength, digestName);
    }

    // The same by the key in `keyPem`.
    std::vector<uint8_t> SignRequestWith(const std::string& keyPem, const std::vector<uint8_t>& request,
                                         size_t digestLength, const std::string& digestName)
    {
        if (request.size() < 32 + digestLength) return {};
        // Files of their own: a concurrent stand-in signs on several threads.
        const std::string call = std::to_string(++signings);
        const std::string digest = dir.file("request-digest-" + call + ".bin");
        const std::string signature = dir.file("answer-" + call + ".bin");
        testsupport::WriteFile(digest, std::string(request.begin() + 32, request.begin() + 32 + digestLength));
        const ProcessResult signedIt = testsupport::Run({"openssl", "pkeyutl", "-sign", "-inkey", keyPem,
                                                         "-pkeyopt", "digest:" + digestName, "-in", digest, "-out",
                                                         signature});
        return signedIt.status == 0 ? testsupport::ReadBytes(signature) : std::vector<uint8_t>{};
    }

    ProcessResult BuildProduction(const std::vector<std::string>& extra)
    {
        std::vector<std::string> args{"build", "-o", out, "--key", "release", "--mode", "production"};
        args.insert(args.end(), extra.begin(), extra.end());
        args.insert(args.end(), components.begin(), components.end());
        return testsupport::RunMarkforge(args);
    }

    void ExpectOutputUntouched() { EXPECT_EQ(ReadFile(out), "the previous container"); }

    // The stand-in answers with good signatures that `edit` then changes.
    void AnswerSignaturesEdited(const std::function<void(std::vector<uint8_t>&)>& edit)
    {
        peer.AnswerBy([this, edit](const std::vector<uint8_t>& request) {
            std::vector<uint8_t> signature = SignRequest(request, 32, "sha256");
            if (!signature.empty()) edit(signature);
            return signature;
        });
        StartPeer();
    }

    // The first answer, of `length`, is refused for its length alone.
    void ExpectAnswerLengthRefused(const std::string& length)
    {
        ExpectSigningFailure(BuildProduction({"--verify-key", publicPem()}),
                             "markforge: the signing agent at 127.0.0.1:8001 gave " + length +
                                 " for the component boot, where a signature by the key is 256 bytes; nothing was "
                                 "written\n");
    }

    // The build failed with status 5, said `message` on standard error, and
    // left the output as it was.
    void ExpectSigningFailure(const ProcessResult& built, const std::string& message)
    {
        EXPECT_EQ(built.status, 5);
        EXPECT_FALSE(built.signaled);
        EXPECT_EQ(built.out, "");
        EXPECT_NE(built.err.find(message), std::string::npos) << built.err;
        ExpectOutputUntouched();
    }

    testsupport::SignAgentPeer peer;
    std::atomic<int> signings{0};
    std::string privatePem;
    std::string out;
    std::vector<std::string> components;
};

TEST_F(BuildProductionTest, GoodAnswersGiveAVerifiedContainer)
{
    for (const auto& [hash, length] : std::vector<std::pair<std::string, size_t>>{{"sha256", 32}, {"sha512", 64}}) {
        SCOPED_TRACE(hash);
        peer.AnswerBy([this, hash = hash, length = length](const std::vector<uint8_t>& request) {
            return SignRequest(request, length, hash);
        });
        StartPeer();
        const ProcessResult built = BuildProduction({"--hash", hash, "--verify-key", publicPem()});
        peer.Stop();
        ASSERT_EQ(built.status, 0) << built.err;
        EXPECT_EQ(built.err, "");
        const auto header = ParseContainer(ReadFile(out));
        ASSERT_EQ(header.records.size(), 2u);
        std::string detail;
        const std::string payload = ReadFile(out).substr(4096);
        EXPECT_TRUE(OpensslVerifiesContent(publicPem(), hash, payload.substr(0, 1000), header.records[0].signature,
                                           detail))
            << detail;
        EXPECT_TRUE(OpensslVerifiesContent(publicPem(), hash, payload, header.signature, detail)) << detail;
    }
    // Two components and the archive: three requests, named by their F
    // field; they may be in flight together, so their order is open.
    const auto requests = peer.Requests();
    ASSERT_EQ(requests.size(), 6u);
    std::multiset<std::string> arguments;
    for (size_t i = 3; i < 6; ++i) {
        const std::string args(requests[i].begin() + 96, requests[i].end());
        arguments.insert(args.substr(0, args.find('\0')));
    }
    EXPECT_EQ(arguments, (std::multiset<std::string>{"F=app;S=64;", "F=archive;S=64;", "F=boot;S=64;"}));
}

TEST_F(BuildProductionTest, ASlowAgentIsAskedForSeveralSignaturesAtOnce)
{
    // 200 ms an answer, as an HSM under load may take: the component
    // signatures are asked for while the next component is read, so they
    // overlap instead of adding up.
    peer.AnswerBy([this](const std::vector<uint8_t>& request) { return SignRequest(request, 32, "sha256"); });
    peer.AnswerEachAfter(std::chrono::milliseconds(200));
    StartPeer();
    components.clear();
    for (int i = 0; i < 6; ++i)
        components.push_back("c" + std::to_string(i) + "=" + MakeComponent("c" + std::to_string(i), 100, unsigned(i)));
    const ProcessResult built = BuildProduction({"--verify-key", publicPem()});
    ASSERT_EQ(built.status, 0) << built.err;
    EXPECT_EQ(peer.Requests().size(), 7u);
    EXPECT_GE(peer.MostInFlight(), 2u);
}

TEST_F(BuildProductionTest, WithoutVerifyKeyNothingIsAskedOrWritten)
{
    // Whatever listens on the port (here: a stand-in with the right key)
    // is never asked when no public key could check its answers.
    peer.AnswerBy([this](const std::vector<uint8_t>& request) { return SignRequest(request, 32, "sha256"); });
    StartPeer();
    const ProcessResult built = BuildProduction({});
    EXPECT_EQ(built.status, 2);
    EXPECT_EQ(built.out, "");
    EXPECT_EQ(built.err.rfind("markforge: production mode needs --verify-key PUBKEY: any program can answer on "
                              "127.0.0.1:8001",
                              0),
              0u)
        << built.err;
    EXPECT_TRUE(peer.Requests().empty());
    ExpectOutputUntouched();
}

TEST_F(BuildProductionTest, AnImpostorsSignaturesAreNeverWritten)
{
    // A program that took the port while the agent was down signs with a
    // key of its own: good signatures, but not by the release key.
    testsupport::TestRsaKey impostor;
    std::string error;
    ASSERT_TRUE(testsupport::MakeRsaKey(dir.path(), "impostor", 2048, impostor, error)) << error;
    peer.AnswerBy([&impostor, this](const std::vector<uint8_t>& request) {
        return SignRequestWith(impostor.privatePem, request, 32, "sha256");
    });
    StartPeer();
    ExpectSigningFailure(BuildProduction({"--verify-key", publicPem()}),
                         "markforge: the signature of component boot does not verify under the --verify-key key; "
                         "nothing was written");
}

TEST_F(BuildProductionTest, AnAnswerShorterThanTheModulusIsRefused)
{
    // The leading byte dropped: openssl's own check refuses such a number.
    AnswerSignaturesEdited([](std::vector<uint8_t>& signature) { signature.erase(signature.begin()); });
    ExpectAnswerLengthRefused("255 bytes");
}

TEST_F(BuildProductionTest, AOneByteAnswerIsRefused)
{
    peer.AnswerWith({0x01});
    StartPeer();
    ExpectAnswerLengthRefused("1 byte");
}

TEST_F(BuildProductionTest, AnAnswerLongerThanTheModulusIsRefused)
{
    AnswerSignaturesEdited([](std::vector<uint8_t>& signature) { signature.push_back(0); });
    ExpectAnswerLengthRefused("257 bytes");
}

TEST_F(BuildProductionTest, VerboseShowsTheAgentTracesOnStandardErrorOnly)
{
    peer.AnswerBy([this](const std::vector<uint8_t>& request) { return SignRequest(request, 32, "sha256"); });
    StartPeer();
    const ProcessResult built = BuildProduction({"--verify-key", publicPem(), "--verbose"});
    ASSERT_EQ(built.status, 0) << built.err;
    EXPECT_NE(built.err.find("markforge: sign: key release, F=boot;S=32; digest "), std::string::npos) << built.err;
    EXPECT_NE(built.err.find("markforge: sign: key release, F=archive;S=32; digest "), std::string::npos) << built.err;
    EXPECT_NE(built.err.find(": 256 bytes in "), std::string::npos) << built.err;
    EXPECT_EQ(built.out.find("sign:"), std::string::npos) << built.out;
}

TEST_F(BuildProductionTest, AClosedStandardErrorLeavesNoTemporaryFile)
{
    // --verbose writes a line to standard error after each exchange with the
    // agent; a reader that has gone ends the build there by SIGPIPE.
    StartPeer();
    std::vector<std::string> args{testsupport::MarkforgePath(), "build", "-o", out, "--key", "release", "--mode",
                                  "production", "--verify-key", publicPem(), "--verbose"};
    args.insert(args.end(), components.begin(), components.end());
    const ProcessResult built = testsupport::RunWithBrokenStderr(args);
    EXPECT_TRUE(built.signaled);
    EXPECT_EQ(built.status, 128 + SIGPIPE);
    ExpectOutputUntouched();
    const std::vector<std::pair<std::string, std::string>> files = testsupport::FolderSnapshot(dir.path());
    for (const auto& file : files) EXPECT_NE(file.first[0], '.') << file.first;
}

TEST_F(BuildProductionTest, AWrongSignatureIsNeverWritten)
{
    // A real signature by the right key, but over another digest.
    peer.AnswerBy([this](std::vector<uint8_t> request) {
        if (request.size() > 40) request[40] ^= 0xFF;
        return SignRequest(request, 32, "sha256");
    });
    StartPeer();
    ExpectSigningFailure(BuildProduction({"--verify-key", publicPem()}),
                         "markforge: the signature of component boot does not verify under the --verify-key key; "
                         "nothing was written");
}

TEST_F(BuildProductionTest, AnEmptyAnswerFails)
{
    peer.CloseWithoutAnswer();
    StartPeer();
    const ProcessResult built = BuildProduction({"--verify-key", publicPem()});
    ExpectSigningFailure(built, "markforge: signing the component boot through the signing agent at 127.0.0.1:8001 "
                                "failed");
    EXPECT_NE(built.err.find("Got blank string from sign_agent"), std::string::npos) << built.err;
}

TEST_F(BuildProductionTest, AHangUpFails)
{
    peer.ResetWithoutReading();
    StartPeer();
    ExpectSigningFailure(BuildProduction({"--verify-key", publicPem()}),
                         "through the signing agent at 127.0.0.1:8001 failed");
}

TEST_F(BuildProductionTest, AnAgentThatNeverAnswersIsGivenUpAfterTheTimeout)
{
    peer.NeverAnswer();
    StartPeer();
    ExpectSigningFailure(BuildProduction({"--verify-key", publicPem(), "--agent-timeout", "0.5"}),
                         "markforge: signing the component boot through the signing agent at 127.0.0.1:8001 failed: "
                         "the agent did not answer within 0.5 s (--agent-timeout); check that markforge-agent runs");
}

TEST_F(BuildProductionTest, SignaturesTooLongForTheHeaderAreSigningFailures)
{
    // Seven 512-byte answers and their records overrun the block; they are
    // not signatures by the 2048-bit --verify-key key in the first place.
    peer.AnswerWith(std::vector<uint8_t>(512, 0x5A));
    StartPeer();
    components.clear();
    for (int i = 0; i < 7; ++i)
        components.push_back("c" + std::to_string(i) + "=" + MakeComponent("c" + std::to_string(i), 10, unsigned(i)));
    ExpectSigningFailure(BuildProduction({"--verify-key", publicPem()}),
                         "markforge: the signing agent at 127.0.0.1:8001 gave 512 bytes for the component c0, "
                         "where a signature by the key is 256 bytes; nothing was written");
}

TEST_F(BuildProductionTest, TheStandInsPortIsItsOwnWhereANamespaceCanBeMade)
{
    // As root (CI) the stand-in's 127.0.0.1:8001 is in a network namespace
    // of the test's own: an installed agent on the machine's port is never
    // met, nor another test run's stand-in.
    if (::geteuid() != 0) GTEST_SKIP() << "a network namespace needs root; the machine-wide lock is used";
    StartPeer();
    char self[64] = {}, parent[64] = {};
    ASSERT_GT(::readlink("/proc/self/ns/net", self, sizeof self - 1), 0);
    const std::string parentLink = "/proc/" + std::to_string(::getppid()) + "/ns/net";
    ASSERT_GT(::readlink(parentLink.c_str(), parent, sizeof parent - 1), 0);
    EXPECT_STRNE(self, parent);
}

TEST_F(BuildProductionTest, NoAgentListening)
{
    std::string error;
    ASSERT_TRUE(peer.ReservePort(error)) << error;
    ExpectSigningFailure(BuildProduction({"--verify-key", publicPem()}), "Unable to connect to sign_agent");
}

}  // namespace
