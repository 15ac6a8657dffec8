// lbVersions and lbMain: the version registry's screen and the application
// runner that fills it.
#include <gtest/gtest.h>

#include <openssl/crypto.h>

#include <sstream>
#include <string>

#include "lbGlobal.h"
#include "lbMain.h"
#include "lbSteps.h"
#include "lbVersions.h"
#include "testSupport.h"

namespace {

using testsupport::FrameworkTest;

std::string OpensslLine()
{
    return std::string(OpenSSL_version(OPENSSL_VERSION)) + "\n";
}

std::string Display(const lbVersions& versions)
{
    std::ostringstream out;
    versions.Display(out);
    return out.str();
}

// An application whose Run only reports that it ran.
class application : public lbMain {
public:
    explicit application(bool result) : result(result) { LB_CONSTRUCTOR(); }
    virtual ~application() {}

    bool Run(int argc, char** argv) override
    {
        seenArgc = argc;
        seenArgv = argv;
        return result;
    }

    bool result;
    int seenArgc = -1;
    char** seenArgv = nullptr;
};

// Opens and closes a registry like any other object.
class user : public lbBase {
public:
    user() { LB_CONSTRUCTOR(); }
    virtual ~user() { LB_DESTRUCTOR_CHECK("virtual user::~user()"); }
    bool ShowVersions(lbVersions& versions, std::ostream& out)
    {
        LB_FUNCTION("bool user::ShowVersions(lbVersions&, std::ostream&)");
        LB_OPEN(versions);
        LB_CONTINUE_CHECK();
        versions.Display(out);
        LB_CLOSE(versions);
        return true;
    }
};

using LbVersionsTest = FrameworkTest;

TEST_F(LbVersionsTest, EmptyRegistryShowsFrameworkAndOpenssl)
{
    lbVersions versions;
    EXPECT_EQ(Display(versions), "lockbase 1.0.0\n" + OpensslLine());
}

TEST_F(LbVersionsTest, ApplicationComesFirstThenComponentsInOrder)
{
    lbVersions versions;
    versions.Register("markforge", "2.1.0");
    versions.Register("extra", "0.1");
    versions.RegisterApplication("tool", "9.8.7");
    EXPECT_EQ(Display(versions), "tool 9.8.7\nmarkforge 2.1.0\nextra 0.1\nlockbase 1.0.0\n" + OpensslLine());
}

TEST_F(LbVersionsTest, RegisteringAgainReplacesTheVersion)
{
    lbVersions versions;
    versions.Register("markforge", "2.0.0");
    versions.RegisterApplication("tool", "1");
    versions.Register("markforge", "2.1.0");
    versions.RegisterApplication("tool", "2");
    EXPECT_EQ(Display(versions), "tool 2\nmarkforge 2.1.0\nlockbase 1.0.0\n" + OpensslLine());
}

TEST_F(LbVersionsTest, DisplayWritesThroughAConstStream)
{
    lbVersions versions;
    versions.RegisterApplication("tool", "1");
    std::ostringstream out;
    const std::ostream& constOut = out;
    versions.Display(constOut);
    EXPECT_EQ(out.str(), "tool 1\nlockbase 1.0.0\n" + OpensslLine());
}

TEST_F(LbVersionsTest, RegistryFollowsTheLifecycle)
{
    lbVersions versions;
    versions.RegisterApplication("tool", "1");
    user viewer;
    std::ostringstream out;
    EXPECT_TRUE(viewer.ShowVersions(versions, out));
    EXPECT_EQ(out.str(), "tool 1\nlockbase 1.0.0\n" + OpensslLine());
    EXPECT_FALSE(versions.IsOpen());
    EXPECT_TRUE(lbGlobal.trail.empty());
}

TEST_F(LbVersionsTest, GlobalRegistryExists)
{
    ASSERT_NE(lbGlobal.versions, nullptr);
}

TEST_F(LbVersionsTest, InitAndRunRegistersTheApplicationAndReturnsRunsResult)
{
    char program[] = "tool";
    char* argv[] = {program, nullptr};
    application succeeding(true);
    EXPECT_TRUE(succeeding.InitAndRun("tool", "4.5.6", 1, argv));
    EXPECT_EQ(succeeding.seenArgc, 1);
    EXPECT_EQ(succeeding.seenArgv, argv);
    const std::string screen = Display(*lbGlobal.versions);
    EXPECT_EQ(screen.rfind("tool 4.5.6\n", 0), 0u) << screen;

    application failing(false);
    EXPECT_FALSE(failing.InitAndRun("tool", "4.5.6", 1, argv));
}

}  // namespace
