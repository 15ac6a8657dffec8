// markforge::pluginHost: loading the key-directory plug-in and the ways a
// plug-in load fails, with markforgeRegistry installed only on success.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "keyname.h"
#include "openedObject.h"
#include "pluginHost.h"
#include "testSupport.h"

namespace {

using markforge::pluginHost;

std::string TestPlugin(const std::string& name)
{
    return std::string(TEST_PLUGIN_DIR) + "/" + name + ".so";
}

// The names the installed generator gives for `name`, released as the
// registry's contract asks; empty for a refusal.
std::vector<std::string> Resolve(const std::string& name)
{
    std::vector<std::string> out;
    char** names = markforgeRegistry->mfPluginKeynameGenerator(name.c_str(), true);
    if (!names) return out;
    for (char** entry = names; *entry; ++entry) {
        out.emplace_back(*entry);
        delete[] *entry;
    }
    delete[] names;
    return out;
}

class PluginHostTest : public ::testing::Test {
protected:
    void TearDown() override { markforgeRegistry = nullptr; }
};

TEST_F(PluginHostTest, KeydirResolvesNamesInsideItsFolder)
{
    pluginHost host;
    std::string reason;
    ASSERT_TRUE(host.Load(KEYDIR_PLUGIN, "/keys/", reason)) << reason;
    ASSERT_NE(markforgeRegistry, nullptr);
    EXPECT_EQ(Resolve("release"), std::vector<std::string>{"/keys/release.markforge"});
    EXPECT_EQ(Resolve(std::string(31, 'k')), std::vector<std::string>{"/keys/" + std::string(31, 'k') + ".markforge"});
    EXPECT_EQ(Resolve("a.b-c_d"), std::vector<std::string>{"/keys/a.b-c_d.markforge"});
    for (const std::string& refused : {std::string(), std::string(32, 'k'), std::string("a/b"), std::string("/abs"),
                                       std::string(".."), std::string("../up"), std::string(".hidden"),
                                       std::string("tab\there"), std::string("bell\a")}) {
        SCOPED_TRACE(refused);
        EXPECT_TRUE(Resolve(refused).empty());
    }
}

TEST_F(PluginHostTest, KeydirNeedsAFolderArgument)
{
    pluginHost host;
    std::string reason;
    EXPECT_FALSE(host.Load(KEYDIR_PLUGIN, nullptr, reason));
    EXPECT_EQ(reason, std::string("plug-in ") + KEYDIR_PLUGIN + ": markforge_plugin_init refused with 2");
    EXPECT_FALSE(host.Load(KEYDIR_PLUGIN, "", reason));
    EXPECT_EQ(markforgeRegistry, nullptr);
}

TEST_F(PluginHostTest, EachFailureNamesThePathAndInstallsNothing)
{
    testsupport::TempDir dir;
    testsupport::WriteFile(dir.file("text.so"), "text");
    const std::vector<std::pair<std::string, std::string>> rows = {
        {dir.file("missing.so"), ": No such file or directory"},
        {dir.path(), ": not a regular file"},
        {dir.file("text.so"), ": not a loadable shared object ("},
        {TestPlugin("noEntry"), ": no entry point markforge_plugin_init"},
        {TestPlugin("refuses"), ": markforge_plugin_init refused with 7"},
        {TestPlugin("emptyField"), ": markforge_plugin_init left the key-name generator empty"},
    };
    for (const auto& [path, why] : rows) {
        SCOPED_TRACE(path);
        pluginHost host;
        std::string reason;
        EXPECT_FALSE(host.Load(path, "x", reason));
        EXPECT_EQ(reason.rfind("plug-in " + path + why, 0), 0u) << reason;
        EXPECT_FALSE(host.Loaded());
        EXPECT_EQ(markforgeRegistry, nullptr);
    }
}

TEST_F(PluginHostTest, TheRecordGoesWithTheHost)
{
    {
        pluginHost host;
        std::string reason;
        ASSERT_TRUE(host.Load(TestPlugin("threeNames"), "first", reason)) << reason;
        EXPECT_EQ(Resolve("any"), (std::vector<std::string>{"first", "second", "third"}));
        EXPECT_EQ(host.Path(), TestPlugin("threeNames"));
    }
    EXPECT_EQ(markforgeRegistry, nullptr);
}

TEST_F(PluginHostTest, TheLibraryResolvesThroughTheInstalledRecord)
{
    pluginHost host;
    std::string reason;
    ASSERT_TRUE(host.Load(TestPlugin("threeNames"), "/k/first.markforge", reason)) << reason;
    lbGlobal.Reset();
    testsupport::Opened<markforge::keyname> names([](markforge::keyname& k) { return k.Open("key", true); });
    ASSERT_TRUE(names.opened);
    std::string first;
    EXPECT_TRUE(names->GetKeyName(first));
    EXPECT_EQ(first, "/k/first.markforge");
}

}  // namespace
