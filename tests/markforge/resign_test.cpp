// `markforge resign`: a container signed anew with another key. The result
// is byte for byte what `build` makes from the extracted components with
// that key; a container whose records do not tile its payload, or whose
// table does not hold, is refused with nothing written.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "signingOutsideFixture.h"

namespace {

using testsupport::ProcessResult;
using testsupport::ReadFile;
using testsupport::SigningOutsideTest;

class ResignTest : public SigningOutsideTest {
protected:
    void SetUp() override
    {
        components = {"boot=" + MakeComponent("boot.bin", 1000, 1), "app=" + MakeComponent("app.bin", 70000, 2),
                      "empty=" + MakeComponent("empty.bin", 0, 3)};
        original = dir.file("other.img");
        out = dir.file("out.img");
    }

    // The container signed by the other key, as a development build makes it.
    void BuildWithOtherKey(const std::vector<std::string>& extra = {})
    {
        const ProcessResult built = BuildDevelopment(original, components, extra, "other");
        ASSERT_EQ(built.status, 0) << built.err;
    }

    ProcessResult Resign(const std::string& input, const std::vector<std::string>& signer)
    {
        std::vector<std::string> args{"resign", input, "-o", out, "--key", "dev"};
        args.insert(args.end(), signer.begin(), signer.end());
        return testsupport::RunMarkforge(args);
    }

    // The components extracted from `container` by `markforge extract`,
    // as NAME=FILE words.
    std::vector<std::string> Extracted(const std::string& container)
    {
        std::vector<std::string> words;
        for (const std::string& word : components) {
            const std::string name = word.substr(0, word.find('='));
            const std::string file = dir.file("extracted-" + name);
            const ProcessResult got =
                testsupport::RunMarkforge({"extract", container, "--component", name, "-o", file});
            EXPECT_EQ(got.status, 0) << got.err;
            words.push_back(name + "=" + file);
        }
        return words;
    }

    void ExpectRefused(const ProcessResult& resigned, int status, const std::string& message)
    {
        EXPECT_EQ(resigned.status, status) << resigned.err;
        EXPECT_EQ(resigned.out, "");
        EXPECT_NE(resigned.err.find(message), std::string::npos) << resigned.err;
        EXPECT_FALSE(testsupport::FileExists(out));
        for (const std::string& name : FolderNames()) EXPECT_EQ(name.find("out.img."), std::string::npos) << name;
    }

    std::vector<std::string> components;
    std::string original, out;
};

TEST_F(ResignTest, TheResultIsWhatBuildMakesFromTheExtractedComponents)
{
    for (const char* hash : {"sha256", "sha384", "sha512"}) {
        for (bool table : {false, true}) {
            SCOPED_TRACE(std::string(hash) + (table ? " table" : ""));
            std::vector<std::string> extra{"--hash", hash};
            if (table) extra.push_back("--table");
            BuildWithOtherKey(extra);
            const ProcessResult resigned = Resign(original, {"--mode", "development", "--key-dir", keyDir()});
            ASSERT_EQ(resigned.status, 0) << resigned.err;
            const std::string rebuilt = dir.file("rebuilt.img");
            ASSERT_EQ(BuildDevelopment(rebuilt, Extracted(original), extra).status, 0);
            EXPECT_EQ(ReadFile(out), ReadFile(rebuilt));
            const ProcessResult verified = testsupport::RunMarkforge(
                {"verify", out, "--key", publicPem(), table ? "--require-table" : "--json"});
            EXPECT_EQ(verified.status, 0) << verified.out;
        }
    }
}

TEST_F(ResignTest, OneComponentAndNoneAtAll)
{
    components = {"boot=" + dir.file("boot.bin")};
    BuildWithOtherKey();
    ASSERT_EQ(Resign(original, {"--mode", "development", "--key-dir", keyDir()}).status, 0);
    const std::string rebuilt = dir.file("rebuilt.img");
    ASSERT_EQ(BuildDevelopment(rebuilt, components).status, 0);
    EXPECT_EQ(ReadFile(out), ReadFile(rebuilt));

    components.clear();
    BuildWithOtherKey({"--allow-empty"});
    ASSERT_EQ(Resign(original, {"--mode", "development", "--key-dir", keyDir()}).status, 0);
    ASSERT_EQ(BuildDevelopment(rebuilt, components, {"--allow-empty"}).status, 0);
    EXPECT_EQ(ReadFile(out), ReadFile(rebuilt));
}

TEST_F(ResignTest, OfflineResignWritesRequestsThatAttach)
{
    BuildWithOtherKey({"--table"});
    const std::string requests = dir.file("req.json");
    const std::string unsignedOut = out;
    ASSERT_EQ(Resign(original, {"--mode", "offline", "--public-key", publicPem(), "--requests", requests}).status,
              0);
    SignRequests(requests, dir.file("sigs"), privatePem());
    const std::string signedOut = dir.file("signed.img");
    const ProcessResult attached = testsupport::RunMarkforge(
        {"attach", unsignedOut, "--requests", requests, "--signatures", dir.file("sigs"), "-o", signedOut});
    ASSERT_EQ(attached.status, 0) << attached.err;
    const std::string rebuilt = dir.file("rebuilt.img");
    ASSERT_EQ(BuildDevelopment(rebuilt, components, {"--table"}).status, 0);
    EXPECT_EQ(ReadFile(signedOut), ReadFile(rebuilt));
}

TEST_F(ResignTest, InPlace)
{
    BuildWithOtherKey();
    out = original;
    ASSERT_EQ(Resign(original, {"--mode", "development", "--key-dir", keyDir()}).status, 0);
    EXPECT_EQ(testsupport::RunMarkforge({"verify", original, "--key", publicPem()}).status, 0);
}

TEST_F(ResignTest, OldSignaturesAreNeitherNeededNorTrusted)
{
    // Every signature byte zeroed: resign does not look at them.
    BuildWithOtherKey();
    std::string bytes = ReadFile(original);
    const testsupport::ContainerHeader header = testsupport::ParseContainer(bytes);
    for (size_t i = 0; i < bytes.size() && i < 4096; ++i)
        if (bytes.compare(i, header.signature.size(), header.signature) == 0)
            std::fill(bytes.begin() + static_cast<long>(i), bytes.begin() + static_cast<long>(i + header.signature.size()), '\0');
    testsupport::WriteFile(original, bytes);
    ASSERT_EQ(Resign(original, {"--mode", "development", "--key-dir", keyDir()}).status, 0);
    EXPECT_EQ(testsupport::RunMarkforge({"verify", out, "--key", publicPem()}).status, 0);
}

TEST_F(ResignTest, AContainerWhoseRecordsDoNotTileItsPayloadIsRefused)
{
    BuildWithOtherKey();
    testsupport::WriteFile(original, ReadFile(original) + "appended");
    ExpectRefused(Resign(original, {"--mode", "development", "--key-dir", keyDir()}), 3,
                  "the records do not cover the payload exactly (trailing-bytes");
}

TEST_F(ResignTest, AContainerWhoseTableDoesNotHoldIsRefused)
{
    // The payload changed under the table: its digest of app no longer
    // holds, and a new table would not be the one kept.
    BuildWithOtherKey({"--table"});
    std::string bytes = ReadFile(original);
    bytes[4096 + 1000 + 5] ^= 1;
    testsupport::WriteFile(original, bytes);
    ExpectRefused(Resign(original, {"--mode", "development", "--key-dir", keyDir()}), 3,
                  "its table of contents lists other digests than its components' bytes have");
}

TEST_F(ResignTest, NotAContainerIsRefused)
{
    testsupport::WriteFile(original, std::string(10000, 'x'));
    ExpectRefused(Resign(original, {"--mode", "development", "--key-dir", keyDir()}), 3, original);
}

TEST_F(ResignTest, AFailingSignerWritesNothing)
{
    BuildWithOtherKey();
    ExpectRefused(Resign(original, {"--signing-helper", "false", "--public-key", publicPem()}), 5,
                  "the signing helper false exited with status 1");
}

}  // namespace
