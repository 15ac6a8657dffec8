// A fixture for end-to-end tests of `markforge build`: a development key made
// by `markforge keygen`, component files, and the container's header block
// taken apart with the format's own rules, so that signatures can be
// checked with the openssl tool alone.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "testSupport.h"

namespace testsupport {

// One component record as the container file holds it.
struct ContainerRecord {
    uint32_t size = 0;
    uint32_t offset = 0;
    std::string name;
    std::string signature;
};

// The header block of a container whose block starts at byte 0.
struct ContainerHeader {
    bool valid = false;
    uint32_t version = 0;
    std::string signature;
    std::vector<ContainerRecord> records;
    uint32_t digestLength = 0;
};

// Reads the header block at the start of `bytes` (no checks beyond bounds).
ContainerHeader ParseContainer(const std::string& bytes);

// The openssl digest name ("sha256", "sha384", "sha512") for a digest length.
std::string DigestNameForLength(uint32_t length);

class ContainerTest : public ::testing::Test {
protected:
    // One key pair for every test of the suite: "dev" in keyDir().
    static void SetUpTestSuite();
    static void TearDownTestSuite();
    static const std::string& keyDir();
    static std::string privateKey() { return keyDir() + "/dev.markforge"; }
    static std::string publicPem() { return keyDir() + "/dev.pem"; }

    // A component file of `size` bytes of a pattern seeded by `seed`.
    std::string MakeComponent(const std::string& file, size_t size, unsigned seed);
    // `markforge build` in development mode with the suite's key.
    ProcessResult BuildDevelopment(const std::string& out, const std::vector<std::string>& components,
                                   const std::vector<std::string>& extra = {}, const std::string& key = "dev");

    // True when openssl alone, following docs/container-format.md, verifies
    // `signature` over the content `bytes` with the public key `pem`.
    bool OpensslVerifiesContent(const std::string& pem, const std::string& digestName, const std::string& bytes,
                                const std::string& signature, std::string& detail);

    TempDir dir;
};

// Every file below a folder with its bytes, to show that nothing changed.
std::vector<std::pair<std::string, std::string>> FolderSnapshot(const std::string& folder);

}  // namespace testsupport
