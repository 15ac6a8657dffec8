// markforge::pluginHost: loading the key-directory plug-in and the ways a
// plug-in load fails, with markforgeRegistry installed only on success.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "keyname.h"
#include "openedObject.h"
#include "pluginHost.h"
#include "resolvedNames.h"
#include "testSupport.h"

namespace {

using markforge::pluginHost;

std::string TestPlugin(const std::string& name)
{
    return std::string(TEST_PLUGIN_DIR) + "/" + name + ".so";
}

class PluginHostTest : public ::testing::Test {
protected:
    void TearDown() override { markforgeRegistry = nullptr; }
};

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
        EXPECT_EQ(testsupport::ResolvedNames("any"), (std::vector<std::string>{"first", "second", "third"}));
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
