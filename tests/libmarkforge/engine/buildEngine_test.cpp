// markforge::buildEngine against the container classes' own building
// sequence (archive::Open, InitAddComponentsFromCmdline, AddComponent per
// component, FinishAddComponentsFromCmdline, header::CreateFromArchive,
// WriteOutput): the same bytes for every hash, 0 to 7 components (empty ones
// and one of several MiB among them), in development and production mode.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <unistd.h>

#include <cstdio>

#include "agentSigner.h"
#include "archive.h"
#include "buildEngine.h"
#include "digestPipeline.h"
#include "containerLayout.h"
#include "header.h"
#include "keyFileSigner.h"
#include "lbScoped.h"
#include "signingTest.h"

namespace {

using markforge::buildEngine;
using markforge::engineFailure;
using markforge::engineInput;
using markforge::engineResult;
using markforge::engineSettings;
using testsupport::Run;

using Bytes = std::vector<uint8_t>;

// Sizes that cross the engine's block size and include empty components.
const std::vector<size_t> SIZES = {1000, 0, 3 * markforge::digestPipeline::BLOCK + 7, 4096, 0, 77, markforge::digestPipeline::BLOCK};

class BuildEngineIdentity : public testsupport::SigningTest {
protected:
    void SetUp() override
    {
        SigningTest::SetUp();
        MakeKey("dev");
        FILE* file = std::fopen(key.privatePem.c_str(), "r");
        ASSERT_NE(file, nullptr);
        _pem = PEM_read_PrivateKey(file, nullptr, nullptr, nullptr);
        std::fclose(file);
        ASSERT_NE(_pem, nullptr);
    }
    void TearDown() override
    {
        EVP_PKEY_free(_pem);
        SigningTest::TearDown();
    }

    // The stand-in agent signs the request's digest with the test key, as
    // the real agent would.
    void StartSigningPeer(size_t digestLength)
    {
        peer.AnswerBy([this, digestLength](const Bytes& request) {
            const Bytes digest(request.begin() + 32, request.begin() + 32 + digestLength);
            return SignDigest(digest);
        });
        StartPeer();
    }

    Bytes SignDigest(const Bytes& digest) const
    {
        EVP_PKEY_CTX* context = EVP_PKEY_CTX_new(_pem, nullptr);
        const EVP_MD* md = digest.size() == 64 ? EVP_sha512() : digest.size() == 48 ? EVP_sha384() : EVP_sha256();
        size_t length = 512;
        Bytes signature(length);
        const bool made = context && EVP_PKEY_sign_init(context) == 1 &&
                          EVP_PKEY_CTX_set_rsa_padding(context, RSA_PKCS1_PADDING) == 1 &&
                          EVP_PKEY_CTX_set_signature_md(context, md) == 1 &&
                          EVP_PKEY_sign(context, signature.data(), &length, digest.data(), digest.size()) == 1;
        EVP_PKEY_CTX_free(context);
        signature.resize(made ? length : 0);
        return signature;
    }

    std::vector<std::string> MakeComponents(size_t count)
    {
        std::vector<std::string> paths;
        for (size_t i = 0; i < count; ++i) {
            paths.push_back(dir.file("part" + std::to_string(i)));
            testsupport::WriteBytes(paths.back(), testsupport::SeededBytes(SIZES[i], uint32_t(i + 1)));
        }
        return paths;
    }

    // The header block the classes' own sequence writes.
    Bytes SpecifiedBlock(const std::string& mode, uint32_t hashId, const std::vector<std::string>& paths)
    {
        markforge::archive built;
        const lbScoped closeArchive(built);
        markforge::header block;
        const lbScoped closeHeader(block);
        const std::string out = dir.file("specified.hdr");
        bool made = lbScoped::Open(built, __FILE__, __LINE__, [&] { return built.Open("dev", mode, hashId); }) &&
                    built.InitAddComponentsFromCmdline();
        for (size_t i = 0; i < paths.size(); ++i) made = made && built.AddComponent("part" + std::to_string(i), paths[i]);
        made = made && built.FinishAddComponentsFromCmdline() &&
               lbScoped::Open(block, __FILE__, __LINE__, [&] { return block.Open(); }) && block.CreateFromArchive(built) &&
               block.WriteOutput(out);
        EXPECT_TRUE(made) << ::testing::PrintToString(testsupport::TrailLines());
        return testsupport::ReadBytes(out);
    }

    // The container the engine writes: its header block, then the payload.
    Bytes EngineContainer(markforge::signer& signs, const std::string& mode, uint32_t hashId,
                          const std::vector<std::string>& paths)
    {
        const std::string out = dir.file("engine.img");
        const int output = ::open(out.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        std::vector<engineInput> inputs;
        for (size_t i = 0; i < paths.size(); ++i)
            inputs.push_back({"part" + std::to_string(i), ::open(paths[i].c_str(), O_RDONLY | O_CLOEXEC)});
        engineSettings settings;
        settings.keyName = "dev";
        settings.mode = mode;
        settings.hashId = hashId;
        settings.output = output;
        engineResult result;
        engineFailure failure;
        const bool built = buildEngine(signs, settings).Build(inputs, result, failure);
        EXPECT_TRUE(built) << failure.stage << ": " << failure.message;
        if (built) {
            EXPECT_EQ(::pwrite(output, result.headerBlock.data(), result.headerBlock.size(), 0), 4096);
        }
        for (const auto& input : inputs) ::close(input.fd);
        ::close(output);
        return testsupport::ReadBytes(out);
    }

    void ExpectSameContainer(const Bytes& engine, const Bytes& specifiedBlock, const std::vector<std::string>& paths)
    {
        Bytes expected = specifiedBlock;
        for (const auto& path : paths) {
            const Bytes part = testsupport::ReadBytes(path);
            expected.insert(expected.end(), part.begin(), part.end());
        }
        ASSERT_EQ(specifiedBlock.size(), 4096u);
        EXPECT_EQ(engine.size(), expected.size());
        EXPECT_TRUE(engine == expected) << "the containers differ";
    }

    EVP_PKEY* _pem = nullptr;
};

TEST_F(BuildEngineIdentity, DevelopmentMatchesTheClassesForEveryHashAndCount)
{
    markforge::keyFileSigner signs;
    std::string reason;
    ASSERT_TRUE(signs.Load(key.keyFile, reason)) << reason;
    for (uint32_t hashId : {3u, 5u, 4u}) {
        for (size_t count = 0; count <= 7; ++count) {
            SCOPED_TRACE("hash " + std::to_string(hashId) + ", " + std::to_string(count) + " components");
            const std::vector<std::string> paths = MakeComponents(count);
            const Bytes block = SpecifiedBlock("development", hashId, paths);
            ExpectSameContainer(EngineContainer(signs, "development", hashId, paths), block, paths);
            ASSERT_FALSE(lbGlobal.errorFlag);
        }
    }
}

TEST_F(BuildEngineIdentity, ProductionMatchesTheClassesForEveryHashAndCount)
{
    for (uint32_t hashId : {3u, 5u, 4u}) {
        const size_t digestLength = hashId == 4 ? 64 : hashId == 5 ? 48 : 32;
        StartSigningPeer(digestLength);
        markforge::agentSigner signs("dev", 10);
        for (size_t count = 0; count <= 7; ++count) {
            SCOPED_TRACE("hash " + std::to_string(hashId) + ", " + std::to_string(count) + " components");
            const std::vector<std::string> paths = MakeComponents(count);
            const Bytes block = SpecifiedBlock("production", hashId, paths);
            ExpectSameContainer(EngineContainer(signs, "production", hashId, paths), block, paths);
        }
        peer.Stop();
    }
}

}  // namespace
