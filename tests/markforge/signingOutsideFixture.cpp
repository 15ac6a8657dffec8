// The signing-outside fixture: keys for openssl, openssl as the signer.
#include "signingOutsideFixture.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <memory>

#include "keyCache.h"

namespace testsupport {
namespace {

std::unique_ptr<TempDir> g_pemDir;

void ToPem(const std::string& keyFile, const std::string& pem)
{
    const ProcessResult converted =
        RunRecaster({"--convertkey", "-i", keyFile, "-o", pem, "-I", "markforge", "-O", "pem"});
    ASSERT_EQ(converted.status, 0) << converted.err;
}

}  // namespace

void SigningOutsideTest::SetUpTestSuite()
{
    ContainerTest::SetUpTestSuite();
    g_pemDir = std::make_unique<TempDir>();
    ToPem(privateKey(), privatePem());
    std::string error;
    ASSERT_TRUE(CopyCachedKey("other", 2048, keyDir() + "/other.markforge", otherPublicPem(), error)) << error;
    ToPem(keyDir() + "/other.markforge", otherPrivatePem());
}

void SigningOutsideTest::TearDownTestSuite()
{
    g_pemDir.reset();
    ContainerTest::TearDownTestSuite();
}

std::string SigningOutsideTest::privatePem()
{
    return g_pemDir->file("dev-private.pem");
}

std::string SigningOutsideTest::otherPrivatePem()
{
    return g_pemDir->file("other-private.pem");
}

std::string SigningOutsideTest::otherPublicPem()
{
    return g_pemDir->file("other.pem");
}

nlohmann::json SigningOutsideTest::ReadRequests(const std::string& path)
{
    return nlohmann::json::parse(ReadFile(path));
}

void SigningOutsideTest::SignValue(const std::string& toSignHex, const std::string& hash, const std::string& keyPem,
                                   const std::string& path)
{
    const std::vector<uint8_t> value = FromHex(toSignHex);
    const std::string valueFile = path + ".value";
    WriteBytes(valueFile, value);
    const ProcessResult signedIt = Openssl(
        {"pkeyutl", "-sign", "-inkey", keyPem, "-pkeyopt", "digest:" + hash, "-in", valueFile, "-out", path});
    ASSERT_EQ(signedIt.status, 0) << signedIt.err;
    ::unlink(valueFile.c_str());
}

void SigningOutsideTest::SignRequests(const std::string& requests, const std::string& folder,
                                      const std::string& keyPem)
{
    ::mkdir(folder.c_str(), 0700);
    const nlohmann::json document = ReadRequests(requests);
    for (const auto& request : document["requests"])
        SignValue(request["to_sign"], request["hash"], keyPem,
                  folder + "/" + request["signature_file"].get<std::string>());
}

ProcessResult SigningOutsideTest::BuildOffline(const std::string& out, const std::string& requests,
                                               const std::vector<std::string>& components,
                                               const std::vector<std::string>& extra)
{
    std::vector<std::string> args{"build",        "-o",        out,       "--key", "dev", "--mode", "offline",
                                  "--public-key", publicPem(), "--requests", requests};
    args.insert(args.end(), extra.begin(), extra.end());
    args.insert(args.end(), components.begin(), components.end());
    return RunMarkforge(args);
}

std::string SigningOutsideTest::Script(const std::string& name, const std::string& body)
{
    const std::string path = dir.file(name);
    WriteFile(path, "#!/bin/sh\n" + body + "\n");
    ::chmod(path.c_str(), 0755);
    return path;
}

std::vector<std::string> SigningOutsideTest::FolderNames() const
{
    std::vector<std::string> names;
    if (DIR* folder = ::opendir(dir.path().c_str())) {
        while (const dirent* entry = ::readdir(folder))
            if (entry->d_name[0] != '.') names.push_back(entry->d_name);
        ::closedir(folder);
    }
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace testsupport
