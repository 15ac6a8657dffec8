// The container test fixture: key, components, header parsing, openssl checks.
#include "containerFixture.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <memory>

#include "keyCache.h"

namespace testsupport {
namespace {

constexpr size_t HEADER_BYTES = 4096;
constexpr size_t RECORD_BYTES = 540;

std::unique_ptr<TempDir> g_keyDir;

uint32_t Word(const std::string& bytes, size_t at)
{
    if (at + 4 > bytes.size()) return 0;
    const auto* p = reinterpret_cast<const uint8_t*>(bytes.data() + at);
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | uint32_t(p[3]);
}

ProcessResult RunTool(const std::vector<std::string>& argv)
{
    return Run(argv);
}

}  // namespace

ContainerHeader ParseContainer(const std::string& bytes)
{
    ContainerHeader header;
    if (bytes.size() < HEADER_BYTES) return header;
    header.version = Word(bytes, 4);
    const uint32_t s = Word(bytes, 8);
    if (s > 512) return header;
    header.signature = bytes.substr(12, s);
    const uint32_t a = Word(bytes, 12 + s);
    if (a >= HEADER_BYTES || 16 + s + a + 4 > HEADER_BYTES) return header;
    for (size_t at = 16 + s; at < 16 + s + a; at += RECORD_BYTES) {
        ContainerRecord record;
        record.size = Word(bytes, at);
        record.offset = Word(bytes, at + 4);
        const std::string field = bytes.substr(at + 8, 16);
        record.name = field.substr(0, field.find('\0'));
        record.signature = bytes.substr(at + 28, std::min<uint32_t>(Word(bytes, at + 24), 512));
        header.records.push_back(record);
    }
    header.digestLength = Word(bytes, 16 + s + a);
    header.valid = true;
    return header;
}

std::string DigestNameForLength(uint32_t length)
{
    return length == 64 ? "sha512" : length == 48 ? "sha384" : "sha256";
}

void ContainerTest::SetUpTestSuite()
{
    g_keyDir = std::make_unique<TempDir>();
    std::string error;
    ASSERT_TRUE(CopyCachedKey("dev", 2048, g_keyDir->file("dev.markforge"), g_keyDir->file("dev.pem"), error))
        << error;
}

void ContainerTest::TearDownTestSuite()
{
    g_keyDir.reset();
}

const std::string& ContainerTest::keyDir()
{
    return g_keyDir->path();
}

std::string ContainerTest::MakeComponent(const std::string& file, size_t size, unsigned seed)
{
    std::string bytes(size, '\0');
    uint32_t state = seed * 2654435761u + 1;
    for (char& c : bytes) {
        state = state * 1103515245u + 12345u;
        c = static_cast<char>(state >> 24);
    }
    const std::string path = dir.file(file);
    WriteFile(path, bytes);
    return path;
}

ProcessResult ContainerTest::BuildDevelopment(const std::string& out, const std::vector<std::string>& components,
                                              const std::vector<std::string>& extra, const std::string& key)
{
    std::vector<std::string> args{"build", "-o", out, "--key", key, "--mode", "development", "--key-dir", keyDir()};
    args.insert(args.end(), extra.begin(), extra.end());
    args.insert(args.end(), components.begin(), components.end());
    return RunMarkforge(args);
}

bool ContainerTest::OpensslVerifiesContent(const std::string& pem, const std::string& digestName,
                                           const std::string& bytes, const std::string& signature,
                                           std::string& detail)
{
    // Step 1: the content's digest as upper-case hex text.
    const std::string content = dir.file("check-content.bin");
    WriteFile(content, bytes);
    const ProcessResult digest = RunTool({"openssl", "dgst", "-" + digestName, "-r", content});
    std::string hex = digest.out.substr(0, digest.out.find(' '));
    std::transform(hex.begin(), hex.end(), hex.begin(), [](char c) { return static_cast<char>(std::toupper(c)); });
    const std::string text = dir.file("check-digest.txt");
    WriteFile(text, hex);
    // Step 2: that text is what the signature signs, with PKCS#1 v1.5.
    const std::string sig = dir.file("check-signature.bin");
    WriteFile(sig, signature);
    const ProcessResult verified = RunTool({"openssl", "dgst", "-" + digestName, "-verify", pem, "-signature", sig, text});
    detail = verified.out + verified.err;
    return verified.status == 0 && verified.out.find("Verified OK") != std::string::npos;
}

std::vector<std::pair<std::string, std::string>> FolderSnapshot(const std::string& folder)
{
    std::vector<std::pair<std::string, std::string>> files;
    DIR* d = opendir(folder.c_str());
    if (!d) return files;
    while (dirent* entry = readdir(d)) {
        const std::string name = entry->d_name;
        if (name == "." || name == "..") continue;
        const std::string path = folder + "/" + name;
        struct stat info;
        if (lstat(path.c_str(), &info) != 0) continue;
        if (S_ISDIR(info.st_mode)) {
            files.emplace_back(name + "/", "");
            for (auto& inner : FolderSnapshot(path)) files.emplace_back(name + "/" + inner.first, inner.second);
        } else {
            files.emplace_back(name, ReadFile(path) + "|mode=" + std::to_string(info.st_mode));
        }
    }
    closedir(d);
    std::sort(files.begin(), files.end());
    return files;
}

}  // namespace testsupport
