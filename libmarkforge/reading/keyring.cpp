// markforge::keyring: folder listing, key loading and signer lookup.
#include "keyring.h"

#include <algorithm>
#include <filesystem>
#include <system_error>

namespace markforge {

bool keyring::Load(const std::string& folder, std::string& reason)
{
    namespace fs = std::filesystem;
    std::error_code error;
    std::vector<std::string> names;
    fs::directory_iterator it(folder, error);
    if (error) {
        reason = "cannot read key folder " + folder + ": " + error.message();
        return false;
    }
    for (; it != fs::directory_iterator(); it.increment(error)) {
        if (error) break;
        if (it->is_regular_file(error)) names.push_back(it->path().filename().string());
    }
    if (error) {
        reason = "cannot read key folder " + folder + ": " + error.message();
        return false;
    }
    // Sorted, so that the same folder always names the same key first.
    std::sort(names.begin(), names.end());
    for (const std::string& name : names) {
        keyringEntry entry;
        std::string why;
        if (!entry.key.Load(folder + "/" + name, why)) {
            _skipped.push_back(name);
            continue;
        }
        entry.file = name;
        entry.fingerprint = entry.key.Fingerprint();
        _entries.push_back(std::move(entry));
    }
    return true;
}

const keyringEntry* keyring::SignerOf(const std::vector<uint8_t>& signature) const
{
    std::vector<uint8_t> digest;
    uint32_t hashId = 0;
    for (const keyringEntry& entry : _entries)
        if (entry.key.Recover(signature, digest, hashId)) return &entry;
    return nullptr;
}

}  // namespace markforge
