// A fixture for tests of the signing classes: a key-name registry whose
// generator resolves every name to one key file, an RSA key of the test's
// own, a stand-in signing agent and a temporary folder.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "keyname.h"
#include "signAgentPeer.h"
#include "testKeys.h"
#include "testSupport.h"

namespace testsupport {

// The key file the test generator resolves every key name to; a test may
// point it elsewhere.
inline std::string resolvedKeyFile;

// The registry's key-name generator for these tests: one name, the key file.
inline char** ResolveToKeyFile(const char*, bool)
{
    char** names = new char*[2];
    names[0] = new char[resolvedKeyFile.size() + 1];
    std::memcpy(names[0], resolvedKeyFile.c_str(), resolvedKeyFile.size() + 1);
    names[1] = nullptr;
    return names;
}

class SigningTest : public FrameworkTest {
protected:
    void SetUp() override
    {
        FrameworkTest::SetUp();
        registry = markforgeRegistryRecord();
        registry.mfPluginKeynameGenerator = &ResolveToKeyFile;
        markforgeRegistry = &registry;
    }
    void TearDown() override
    {
        peer.Stop();
        markforgeRegistry = nullptr;
        FrameworkTest::TearDown();
    }

    // A fresh 2048-bit RSA key whose markforge key file the generator
    // resolves to; the trail its making left is cleared.
    void MakeKey(const std::string& stem)
    {
        std::string error;
        ASSERT_TRUE(MakeRsaKey(dir.path(), stem, 2048, key, error)) << error;
        resolvedKeyFile = key.keyFile;
        lbGlobal.Reset();
    }

    void StartPeer()
    {
        std::string error;
        ASSERT_TRUE(peer.Start(error)) << error;
    }

    TempDir dir;
    TestRsaKey key;
    markforgeRegistryRecord registry;
    SignAgentPeer peer;
};

}  // namespace testsupport
