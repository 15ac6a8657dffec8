// markforge extract through the built program: component bytes, the header
// signature (checked with openssl) and the payload, and the failures that
// leave the output untouched.
#include <gtest/gtest.h>

#include <dirent.h>

#include <cctype>

#include "readingFixture.h"

namespace {

using namespace readingtest;
using testsupport::ReadBytes;
using testsupport::ReadFile;
using testsupport::RunMarkforge;

constexpr size_t BLOCK = 4096;

std::vector<std::string> FolderEntries(const std::string& path)
{
    std::vector<std::string> names;
    DIR* dir = opendir(path.c_str());
    if (!dir) return names;
    while (const dirent* entry = readdir(dir))
        if (entry->d_name[0] != '.') names.push_back(entry->d_name);
    closedir(dir);
    std::sort(names.begin(), names.end());
    return names;
}

std::string UpperHex(const std::string& lowerHex)
{
    std::string text = lowerHex;
    for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return text;
}

// openssl's verdict on `signature` over the upper-case hex text of the
// SHA-256 digest of `content`: what markforge signs.
std::string OpensslVerifies(const TempDir& dir, const std::string& signature, const std::string& content)
{
    const std::string digest = testsupport::Openssl({"dgst", "-sha256", "-r"}, &content).out.substr(0, 64);
    testsupport::WriteFile(dir.file("signed.txt"), UpperHex(digest));
    return testsupport::Openssl({"dgst", "-sha256", "-verify", PublicKey("k"), "-signature", signature,
                                 dir.file("signed.txt")})
        .out;
}

TEST(Extract, EachComponentsBytes)
{
    TempDir dir;
    const Components parts = SomeComponents(3);
    const std::string container = Build(dir, parts);
    for (const auto& part : parts) {
        const std::string out = dir.file("out-" + part.first);
        const ProcessResult r = RunMarkforge({"extract", container, "--component", part.first, "-o", out});
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.err, "");
        EXPECT_EQ(ReadBytes(out), part.second) << part.first;
    }
}

TEST(Extract, HeaderSignatureVerifiesWithOpensslOverThePayload)
{
    TempDir dir;
    const std::string container = Build(dir, SomeComponents(2));
    const std::string signature = dir.file("header.sig");
    const ProcessResult r = RunMarkforge({"extract", container, "--header-signature", "-o", signature});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(ReadFile(signature), ReadFile(container).substr(12, 256));
    EXPECT_EQ(OpensslVerifies(dir, signature, ReadFile(container).substr(BLOCK)), "Verified OK\n");
}

TEST(Extract, HeaderSignatureOfOneComponentIsItsOwn)
{
    TempDir dir;
    const Components parts = SomeComponents(1);
    const std::string container = Build(dir, parts);
    const std::string signature = dir.file("header.sig");
    ASSERT_EQ(RunMarkforge({"extract", container, "--header-signature", "-o", signature}).status, 0);
    const std::string component(parts[0].second.begin(), parts[0].second.end());
    EXPECT_EQ(OpensslVerifies(dir, signature, component), "Verified OK\n");
}

TEST(Extract, PayloadIsEverythingAfterTheHeaderBlock)
{
    TempDir dir;
    const std::string built = Build(dir, SomeComponents(3));
    const std::string moved = dir.file("moved.bin");
    testsupport::WriteFile(moved, std::string(10000, '\0') + ReadFile(built));
    for (const std::string& container : {built, moved}) {
        const std::string out = dir.file("payload");
        const ProcessResult r = RunMarkforge({"extract", container, "--payload", "-o", out});
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(ReadFile(out), ReadFile(built).substr(BLOCK));
    }
}

TEST(Extract, ReplacesAnExistingOutput)
{
    TempDir dir;
    const Components parts = SomeComponents(1);
    const std::string container = Build(dir, parts);
    const std::string out = dir.file("out");
    testsupport::WriteFile(out, "old");
    ASSERT_EQ(RunMarkforge({"extract", container, "--component", "part0", "-o", out}).status, 0);
    EXPECT_EQ(ReadBytes(out), parts[0].second);
}

TEST(Extract, UnknownComponentIsAUsageErrorNamingTheOthers)
{
    TempDir dir;
    const std::string container = Build(dir, SomeComponents(2));
    const ProcessResult r = RunMarkforge({"extract", container, "--component", "kernel", "-o", dir.file("out")});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "markforge: " + container + " has no component named 'kernel' (it has: part0, part1)\n");
    EXPECT_FALSE(testsupport::FileExists(dir.file("out")));
}

TEST(Extract, ComponentPastTheEndIsBadInputAndLeavesTheOutputAlone)
{
    TempDir dir;
    const Components parts = SomeComponents(2);
    const std::string container = Build(dir, parts);
    Truncate(container, BLOCK + parts[0].second.size() + 1);
    const std::string out = dir.file("out");
    testsupport::WriteFile(out, "old");
    const std::vector<std::string> before = FolderEntries(dir.path());
    const ProcessResult r = RunMarkforge({"extract", container, "--component", "part1", "-o", out});
    EXPECT_EQ(r.status, 3);
    EXPECT_EQ(r.err, "markforge: component part1 of " + container + " runs past the end of the file\n");
    EXPECT_EQ(ReadFile(out), "old");
    EXPECT_EQ(FolderEntries(dir.path()), before);
    // The part still inside comes out whole.
    EXPECT_EQ(RunMarkforge({"extract", container, "--component", "part0", "-o", out}).status, 0);
    EXPECT_EQ(ReadBytes(out), parts[0].second);
}

TEST(Extract, NotAContainerLeavesTheOutputAlone)
{
    TempDir dir;
    testsupport::WriteFile(dir.file("plain.txt"), "just text\n");
    testsupport::WriteFile(dir.file("out"), "old");
    const ProcessResult r = RunMarkforge({"extract", dir.file("plain.txt"), "--payload", "-o", dir.file("out")});
    EXPECT_EQ(r.status, 3);
    EXPECT_EQ(r.err.rfind("markforge: " + dir.file("plain.txt") + " is not a markforge container\n"
                          "Unknown file format -- canary1 failed. \n",
                          0),
              0u)
        << r.err;
    EXPECT_EQ(ReadFile(dir.file("out")), "old");
    EXPECT_EQ(FolderEntries(dir.path()), (std::vector<std::string>{"out", "plain.txt"}));
}

TEST(Extract, OutputInAMissingFolderIsAFileSystemError)
{
    TempDir dir;
    const std::string container = Build(dir, SomeComponents(1));
    const ProcessResult r = RunMarkforge({"extract", container, "--payload", "-o", dir.file("no/such/out")});
    EXPECT_EQ(r.status, 4);
    EXPECT_EQ(r.out, "");
}

TEST(Extract, OutputThatIsTheContainerIsRefused)
{
    TempDir dir;
    const std::string container = Build(dir, SomeComponents(1));
    const std::string before = ReadFile(container);
    const ProcessResult r = RunMarkforge({"extract", container, "--payload", "-o", container});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err, "markforge: the output " + container + " is the container " + container +
                         " itself; write the extracted bytes elsewhere\n");
    EXPECT_EQ(ReadFile(container), before);
}

TEST(Extract, ExactlyOneSelectorIsRequired)
{
    TempDir dir;
    const std::string container = Build(dir, SomeComponents(1));
    const std::string out = dir.file("out");
    const std::vector<std::vector<std::string>> wrong{
        {"extract", container, "-o", out},
        {"extract", container, "--payload", "--header-signature", "-o", out},
        {"extract", container, "--component", "part0", "--payload", "-o", out},
        {"extract", container, "--payload"},
    };
    for (const auto& args : wrong) {
        const ProcessResult r = RunMarkforge(args);
        EXPECT_EQ(r.status, 2) << args.size();
        EXPECT_EQ(r.out, "");
        EXPECT_FALSE(testsupport::FileExists(out));
    }
}

}  // namespace
