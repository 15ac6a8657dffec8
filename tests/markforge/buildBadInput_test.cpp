// `markforge build` refuses bad command lines and inputs: each row's exit
// status and message, no signal, and no file of the folder changed.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <string>
#include <vector>

#include "containerFixture.h"

namespace {

using testsupport::ContainerTest;
using testsupport::FolderSnapshot;
using testsupport::ProcessResult;

struct BadInput {
    const char* title;
    std::vector<std::string> words;  // after "build"; {D} is the test folder, {K} the key folder
    int status;
    const char* message;  // the start of standard error, {D} and {K} replaced
};

// Short test names in ctest's listing.
void PrintTo(const BadInput& row, std::ostream* out)
{
    *out << row.title;
}

std::string Expand(std::string text, const std::string& folder, const std::string& keys)
{
    for (size_t at; (at = text.find("{D}")) != std::string::npos;) text.replace(at, 3, folder);
    for (size_t at; (at = text.find("{K}")) != std::string::npos;) text.replace(at, 3, keys);
    return text;
}

const std::vector<std::string> DEV = {"--key", "dev", "--mode", "development", "--key-dir", "{K}"};

std::vector<std::string> Dev(std::vector<std::string> words)
{
    words.insert(words.begin(), DEV.begin(), DEV.end());
    return words;
}

class BuildBadInput : public ContainerTest, public ::testing::WithParamInterface<BadInput> {
protected:
    void SetUp() override
    {
        MakeComponent("a.bin", 100, 1);
        MakeComponent("short.bin", 10, 2);
        const std::string label("markforge-table\0", 16);
        testsupport::WriteFile(dir.file("labelled.bin"), label + "a table's label and then anything");
        mkdir(dir.file("folder").c_str(), 0755);
    }
};

TEST_P(BuildBadInput, IsRefusedWithNothingChanged)
{
    const BadInput& row = GetParam();
    std::vector<std::string> args{"build"};
    for (const std::string& word : row.words) args.push_back(Expand(word, dir.path(), keyDir()));
    const auto before = FolderSnapshot(dir.path());
    const auto keysBefore = FolderSnapshot(keyDir());
    const ProcessResult result = testsupport::RunMarkforge(args);
    EXPECT_FALSE(result.signaled);
    EXPECT_EQ(result.status, row.status) << result.err;
    EXPECT_EQ(result.out, "");
    const std::string expected = Expand(row.message, dir.path(), keyDir());
    EXPECT_EQ(result.err.substr(0, expected.size()), expected) << result.err;
    EXPECT_EQ(FolderSnapshot(dir.path()), before);
    EXPECT_EQ(FolderSnapshot(keyDir()), keysBefore);
}

const BadInput ROWS[] = {
    {"MissingComponent", Dev({"-o", "{D}/out.img", "a={D}/missing.bin"}), 3,
     "markforge: cannot read component a: {D}/missing.bin: No such file or directory\n"},
    {"ComponentIsAFolder", Dev({"-o", "{D}/out.img", "a={D}/folder"}), 3,
     "markforge: component a: {D}/folder is not a regular file\n"},
    {"WordWithoutEquals", Dev({"-o", "{D}/out.img", "{D}/a.bin"}), 2, "markforge: '{D}/a.bin' is not NAME=FILE\n"},
    {"EmptyName", Dev({"-o", "{D}/out.img", "={D}/a.bin"}), 2,
     "markforge: '={D}/a.bin' has no component name before '='\n"},
    {"EmptyFile", Dev({"-o", "{D}/out.img", "a="}), 2, "markforge: 'a=' has no file after '='\n"},
    {"NameOf15Characters", Dev({"-o", "{D}/out.img", "abcdefghijklmno={D}/a.bin"}), 2,
     "markforge: component name 'abcdefghijklmno' has 15 characters; at most 14 fit\n"},
    {"NameWithABlank", Dev({"-o", "{D}/out.img", "a b={D}/a.bin"}), 2,
     "markforge: component name 'a b' may hold only printable ASCII characters without blanks\n"},
    {"NameTwice", Dev({"-o", "{D}/out.img", "a={D}/a.bin", "a={D}/a.bin"}), 2,
     "markforge: component name 'a' is given twice\n"},
    {"UnknownHashWord", Dev({"-o", "{D}/out.img", "--hash", "md5", "a={D}/a.bin"}), 2, "markforge: --hash: md5 not in"},
    {"UnknownMode", {"-o", "{D}/out.img", "--key", "dev", "--mode", "Production", "a={D}/a.bin"}, 2,
     "markforge: --mode: Production not in"},
    {"MissingKey", {"-o", "{D}/out.img", "--mode", "production", "a={D}/a.bin"}, 2, "markforge: --key is required"},
    {"UnwritableOutputFolder", Dev({"-o", "/proc/markforge-out.img", "a={D}/a.bin"}), 4,
     "markforge: cannot create a file in /proc: "},
    {"MissingOutputFolder", Dev({"-o", "{D}/no/such/out.img", "a={D}/a.bin"}), 4,
     "markforge: cannot create a file in {D}/no/such: No such file or directory\n"},
    {"OutputIsAFolder", Dev({"-o", "{D}/folder", "a={D}/a.bin"}), 4,
     "markforge: {D}/folder is a folder; only a regular file is written or replaced\n"},
    {"ReservedTableName", Dev({"-o", "{D}/out.img", ".markforge-toc={D}/a.bin"}), 2,
     "markforge: component name '.markforge-toc' is kept for the table of contents that --table adds\n"},
    {"ComponentWithTheTableLabel", Dev({"-o", "{D}/out.img", "a={D}/a.bin", "fake={D}/labelled.bin"}), 3,
     "markforge: component fake starts with the label of a table of contents, which no other component may; "
     "nothing was written\n"},
    {"ProductionWithoutVerifyKey", {"-o", "{D}/out.img", "--key", "k", "--mode", "production", "a={D}/a.bin"}, 2,
     "markforge: production mode needs --verify-key PUBKEY: any program can answer on 127.0.0.1:8001"},
    {"OutputIsAComponent", Dev({"-o", "{D}/a.bin", "a={D}/a.bin"}), 2,
     "markforge: the output {D}/a.bin is the file of component a\n"},
    {"OutputIsTheKey", Dev({"-o", "{K}/dev.markforge", "a={D}/a.bin"}), 2,
     "markforge: the output {K}/dev.markforge is the key file {K}/dev.markforge\n"},
    {"NoComponents", Dev({"-o", "{D}/out.img"}), 2,
     "markforge: no components given (NAME=FILE...); --allow-empty builds a container without any\n"},
    {"DevelopmentWithoutKeySource", {"-o", "{D}/out.img", "--key", "dev", "--mode", "development", "a={D}/a.bin"}, 2,
     "markforge: development mode needs --key-dir DIR or --plugin FILE.so to find the key\n"},
    {"KeyDirAndPlugin", Dev({"-o", "{D}/out.img", "--plugin", "{D}/p.so", "a={D}/a.bin"}), 2,
     "markforge: --key-dir excludes --plugin"},
    {"PluginArgWithoutPlugin", Dev({"-o", "{D}/out.img", "--plugin-arg", "x", "a={D}/a.bin"}), 2,
     "markforge: --plugin-arg requires --plugin"},
    {"ProductionWithKeyDir", {"-o", "{D}/out.img", "--key", "dev", "--mode", "production", "--key-dir", "{K}",
                              "a={D}/a.bin"},
     2, "markforge: --key-dir and --plugin name development keys; production mode signs through the agent\n"},
    {"ProductionKeyNameOf31", {"-o", "{D}/out.img", "--key", std::string(31, 'k'), "--mode", "production",
                               "--verify-key", "{D}/short.bin", "a={D}/a.bin"},
     2, "markforge: key name 'kkkkkkkkkkkkkkkkkkkkkkkkkkkkkkk' is longer than the 30 characters the signing agent"},
    {"ZeroAgentTimeout", {"-o", "{D}/out.img", "--key", "k", "--mode", "production", "--agent-timeout", "0",
                          "a={D}/a.bin"},
     2, "markforge: --agent-timeout must be above 0 seconds\n"},
    {"MissingKeyFolder", {"-o", "{D}/out.img", "--key", "dev", "--mode", "development", "--key-dir", "{D}/nokeys",
                          "a={D}/a.bin"},
     4, "markforge: key folder {D}/nokeys is not a readable folder\n"},
    {"UnreadableVerifyKey", {"-o", "{D}/out.img", "--key", "k", "--mode", "production", "--verify-key",
                             "{D}/short.bin", "a={D}/a.bin"},
     5, "markforge: --verify-key {D}/short.bin: neither PEM, a markforge key file nor a raw modulus"},
    {"UnknownOption", Dev({"-o", "{D}/out.img", "--frobnicate", "a={D}/a.bin"}), 2, "markforge: "},
};

INSTANTIATE_TEST_SUITE_P(Rows, BuildBadInput, ::testing::ValuesIn(ROWS),
                         [](const ::testing::TestParamInfo<BadInput>& info) { return info.param.title; });

}  // namespace
