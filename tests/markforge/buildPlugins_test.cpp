// `markforge build` with key-name plug-ins: the installed key-directory
// plug-in, a plug-in of the tests returning three names, and every way a
// plug-in can fail to load.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "containerFixture.h"
#include "keyCache.h"

namespace {

using testsupport::ContainerTest;
using testsupport::FolderSnapshot;
using testsupport::ProcessResult;

std::string TestPlugin(const std::string& name)
{
    return std::string(TEST_PLUGIN_DIR) + "/" + name + ".so";
}

class BuildPluginsTest : public ContainerTest {
protected:
    void SetUp() override { component = "a=" + MakeComponent("a.bin", 100, 1); }

    ProcessResult BuildWithPlugin(const std::string& plugin, const std::vector<std::string>& pluginArg = {},
                                  const std::string& key = "dev")
    {
        std::vector<std::string> args{"build", "-o", dir.file("out.img"), "--key", key, "--mode", "development",
                                      "--plugin", plugin};
        args.insert(args.end(), pluginArg.begin(), pluginArg.end());
        args.push_back(component);
        return testsupport::RunMarkforge(args);
    }

    // The build fails with status 4, one line naming the plug-in, and
    // leaves the folder as it was.
    void ExpectPluginFailure(const std::string& plugin, const std::string& why)
    {
        const auto before = FolderSnapshot(dir.path());
        const ProcessResult built = BuildWithPlugin(plugin, {"--plugin-arg", privateKey()});
        EXPECT_EQ(built.status, 4) << built.err;
        EXPECT_EQ(built.out, "");
        EXPECT_EQ(built.err.rfind("markforge: plug-in " + plugin + ": " + why, 0), 0u) << built.err;
        EXPECT_EQ(std::count(built.err.begin(), built.err.end(), '\n'), 1) << built.err;
        EXPECT_EQ(FolderSnapshot(dir.path()), before);
    }

    std::string component;
};

TEST_F(BuildPluginsTest, KeyDirIsTheInstalledKeydirPlugin)
{
    const std::string plugin = KEYDIR_PLUGIN;
    const ProcessResult longForm = BuildWithPlugin(plugin, {"--plugin-arg", keyDir()});
    ASSERT_EQ(longForm.status, 0) << longForm.err;
    const std::string first = testsupport::ReadFile(dir.file("out.img"));
    ASSERT_EQ(BuildDevelopment(dir.file("out.img"), {component}).status, 0);
    EXPECT_EQ(testsupport::ReadFile(dir.file("out.img")), first);
}

TEST_F(BuildPluginsTest, TheFirstOfSeveralNamesIsTheKeyFile)
{
    const ProcessResult built = BuildWithPlugin(TestPlugin("threeNames"), {"--plugin-arg", privateKey()});
    ASSERT_EQ(built.status, 0) << built.err;
    std::string detail;
    const std::string bytes = testsupport::ReadFile(dir.file("out.img"));
    EXPECT_TRUE(OpensslVerifiesContent(publicPem(), "sha256", bytes.substr(4096),
                                       testsupport::ParseContainer(bytes).signature, detail))
        << detail;
}

TEST_F(BuildPluginsTest, MissingFile)
{
    ExpectPluginFailure(dir.file("missing.so"), "No such file or directory");
}

TEST_F(BuildPluginsTest, NotASharedObject)
{
    const std::string text = dir.file("text.so");
    testsupport::WriteFile(text, "not an ELF file\n");
    ExpectPluginFailure(text, "not a loadable shared object");
}

TEST_F(BuildPluginsTest, MissingEntryPoint)
{
    ExpectPluginFailure(TestPlugin("noEntry"), "no entry point markforge_plugin_init");
}

TEST_F(BuildPluginsTest, EntryPointRefuses)
{
    ExpectPluginFailure(TestPlugin("refuses"), "markforge_plugin_init refused with 7");
}

TEST_F(BuildPluginsTest, EntryPointLeavesTheGeneratorEmpty)
{
    ExpectPluginFailure(TestPlugin("emptyField"), "markforge_plugin_init left the key-name generator empty");
}

TEST_F(BuildPluginsTest, KeyDirRefusesNamesThatLeaveTheFolder)
{
    for (const std::string& key : std::vector<std::string>{"../dev", "sub/dev", "..", ".dev", std::string(32, 'k')}) {
        SCOPED_TRACE(key);
        const auto before = FolderSnapshot(dir.path());
        const ProcessResult built = BuildDevelopment(dir.file("out.img"), {component}, {}, key);
        EXPECT_EQ(built.status, 5);
        EXPECT_NE(built.err.find("markforge: key '" + key + "' is refused by the key folder " + keyDir()),
                  std::string::npos)
            << built.err;
        EXPECT_EQ(FolderSnapshot(dir.path()), before);
    }
}

TEST_F(BuildPluginsTest, KeyDirNamesAnUnknownKeyAndTheFolder)
{
    const ProcessResult built = BuildDevelopment(dir.file("out.img"), {component}, {}, "nokey");
    EXPECT_EQ(built.status, 5);
    EXPECT_NE(built.err.find("markforge: key 'nokey' (key folder " + keyDir() + "): cannot read key file " + keyDir() +
                             "/nokey.markforge"),
              std::string::npos)
        << built.err;
}

TEST_F(BuildPluginsTest, APublicKeyFileCannotSign)
{
    const ProcessResult converted = testsupport::RunRecaster(
        {"--convertkey", "-i", publicPem(), "-o", dir.file("pub.markforge"), "-I", "pem", "-O", "markforge"});
    ASSERT_EQ(converted.status, 0) << converted.err;
    const auto before = FolderSnapshot(dir.path());
    const ProcessResult built = testsupport::RunMarkforge({"build", "-o", dir.file("out.img"), "--key", "pub", "--mode",
                                                           "development", "--key-dir", dir.path(), component});
    EXPECT_EQ(built.status, 5);
    EXPECT_EQ(built.err, "markforge: key 'pub' (key folder " + dir.path() + "): " + dir.file("pub.markforge") +
                             " holds a public key only\n");
    EXPECT_EQ(FolderSnapshot(dir.path()), before);
}

TEST_F(BuildPluginsTest, ThirtyOneCharacterNamesAreResolved)
{
    const std::string key(31, 'k');
    std::string error;
    ASSERT_TRUE(testsupport::CopyCachedKey("dev", 2048, dir.file(key + ".markforge"), "", error)) << error;
    const ProcessResult built = testsupport::RunMarkforge({"build", "-o", dir.file("out.img"), "--key", key, "--mode",
                                                           "development", "--key-dir", dir.path(), component});
    EXPECT_EQ(built.status, 0) << built.err;
}

}  // namespace
