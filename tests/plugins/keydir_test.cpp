// The key-directory plug-in, loaded as the programs load it: names resolve
// to DIR/NAME.markforge and never leave the folder.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "keyname.h"
#include "pluginHost.h"
#include "resolvedNames.h"

namespace {

using markforge::pluginHost;

class KeydirTest : public ::testing::Test {
protected:
    void TearDown() override { markforgeRegistry = nullptr; }
};

TEST_F(KeydirTest, ResolvesNamesInsideItsFolder)
{
    pluginHost host;
    std::string reason;
    ASSERT_TRUE(host.Load(KEYDIR_PLUGIN, "/keys/", reason)) << reason;
    ASSERT_NE(markforgeRegistry, nullptr);
    EXPECT_EQ(testsupport::ResolvedNames("release"), std::vector<std::string>{"/keys/release.markforge"});
    const std::string longest(31, 'k');
    EXPECT_EQ(testsupport::ResolvedNames(longest), std::vector<std::string>{"/keys/" + longest + ".markforge"});
    EXPECT_EQ(testsupport::ResolvedNames("a.b-c_d"), std::vector<std::string>{"/keys/a.b-c_d.markforge"});
    for (const std::string& refused : {std::string(), std::string(32, 'k'), std::string("a/b"), std::string("/abs"),
                                       std::string(".."), std::string("../up"), std::string(".hidden"),
                                       std::string("tab\there"), std::string("bell\a")}) {
        SCOPED_TRACE(refused);
        EXPECT_TRUE(testsupport::ResolvedNames(refused).empty());
    }
}

TEST_F(KeydirTest, NeedsAFolderArgument)
{
    pluginHost host;
    std::string reason;
    EXPECT_FALSE(host.Load(KEYDIR_PLUGIN, nullptr, reason));
    EXPECT_EQ(reason, std::string("plug-in ") + KEYDIR_PLUGIN + ": markforge_plugin_init refused with 2");
    EXPECT_FALSE(host.Load(KEYDIR_PLUGIN, "", reason));
    EXPECT_EQ(markforgeRegistry, nullptr);
}

}  // namespace
