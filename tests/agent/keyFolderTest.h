// A fixture with one 2048-bit RSA key, "dev", alone in a key folder (as a PEM
// private key), made once per test program, and an agent process per test.
#pragma once

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <memory>
#include <string>

#include "agentProcess.h"
#include "testKeys.h"
#include "testSupport.h"

namespace agenttest {

class KeyFolderTest : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        keys = std::make_unique<testsupport::TempDir>();
        std::string error;
        ASSERT_TRUE(testsupport::MakeRsaKey(keys->path(), "dev", 2048, key, error)) << error;
        ASSERT_EQ(::mkdir(Folder().c_str(), 0700), 0);
        testsupport::WriteFile(Folder() + "/dev.pem", testsupport::ReadFile(key.privatePem));
    }
    static void TearDownTestSuite() { keys.reset(); }

    static std::string Folder() { return keys->file("folder"); }

    static inline std::unique_ptr<testsupport::TempDir> keys;
    static inline testsupport::TestRsaKey key;
    testsupport::TempDir dir;
    AgentProcess agent{dir.path()};
};

}  // namespace agenttest
