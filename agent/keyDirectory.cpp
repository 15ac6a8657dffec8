// Key folder loading. Private keys are turned into OpenSSL keys once, here on
// the main thread, so the serving threads never touch a file or the framework.
#include "keyDirectory.h"

#include <openssl/err.h>
#include <openssl/pem.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "lbRsaKeyFile.h"
#include "lbRsaPrivateKey.h"
#include "signRequest.h"

namespace agent {
namespace {

bool ReadText(const std::string& path, std::string& text, std::string& error)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream buffer;
    if (in) buffer << in.rdbuf();
    if (!in) {
        error = path + ": " + std::strerror(errno);
        return false;
    }
    text = buffer.str();
    return true;
}

// An encrypted PEM key is refused rather than prompting on a terminal.
int RefusePassphrase(char*, int, int, void*)
{
    return -1;
}

// The key name of a key file, or empty when `path` is not one.
std::string KeyNameOf(const std::filesystem::path& path)
{
    const std::string extension = path.extension().string();
    if (extension != ".markforge" && extension != ".pem") return "";
    return path.stem().string();
}

}  // namespace

bool KeyDirectory::Load(const std::string& folder, KeyStore& store, std::vector<std::string>& skipped,
                        std::string& error)
{
    std::error_code failure;
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(folder, failure))
        if (entry.is_regular_file()) files.push_back(entry.path());
    if (failure) {
        error = "cannot read the key folder " + folder + ": " + failure.message();
        return false;
    }
    std::sort(files.begin(), files.end());
    for (const auto& path : files) {
        const std::string name = KeyNameOf(path);
        if (name.empty()) continue;
        if (!IsValidKeyName(name)) {
            skipped.push_back(path.filename().string());
            continue;
        }
        PkeyPtr key = path.extension() == ".pem" ? ReadPemKey(path.string(), error)
                                                 : ReadMarkforgeKey(path.string(), error);
        if (!key) return false;
        auto agentKey = std::make_unique<AgentKey>(name, std::move(key));
        if (!agentKey->Prepare(error) || !store.Add(std::move(agentKey), error)) return false;
    }
    return true;
}

PkeyPtr KeyDirectory::ReadMarkforgeKey(const std::string& path, std::string& error)
{
    std::string text, reason;
    if (!ReadText(path, text, error)) return nullptr;
    lockbase::RsaKeyTexts texts;
    if (!lockbase::ParseRsaKeyFile(text, texts, reason) || !lockbase::CanonicalizeRsaKey(texts, reason)) {
        error = path + ": " + reason;
        return nullptr;
    }
    if (texts.d.empty()) {
        error = path + ": a public key cannot sign";
        return nullptr;
    }
    PkeyPtr key = lockbase::MakeRsaPrivateKey(texts);
    if (!key) error = path + ": the numbers do not make an RSA private key";
    return key;
}

PkeyPtr KeyDirectory::ReadPemKey(const std::string& path, std::string& error)
{
    lockbase::BioPtr in(BIO_new_file(path.c_str(), "r"));
    PkeyPtr key(in ? PEM_read_bio_PrivateKey(in.get(), nullptr, RefusePassphrase, nullptr) : nullptr);
    if (!key) {
        const unsigned long code = ERR_get_error();
        ERR_clear_error();
        char text[256] = "not a PEM private key";
        if (code) ERR_error_string_n(code, text, sizeof text);
        error = path + ": " + text;
    }
    return key;
}

}  // namespace agent
