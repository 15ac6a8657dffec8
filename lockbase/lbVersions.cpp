// lbVersions: registry contents and the version screen's text.
#include "lbVersions.h"

#include <openssl/crypto.h>

#include <ostream>

void lbVersions::Register(const std::string& name, const std::string& version)
{
    for (auto& entry : _entries) {
        if (entry.first == name) {
            entry.second = version;
            return;
        }
    }
    _entries.emplace_back(name, version);
}

void lbVersions::RegisterApplication(const std::string& name, const std::string& version)
{
    for (auto it = _entries.begin(); it != _entries.end(); ++it) {
        if (it->first == name) {
            _entries.erase(it);
            break;
        }
    }
    _entries.insert(_entries.begin(), {name, version});
}

void lbVersions::Display(const std::ostream& out) const
{
    // The stream comes by const reference; writing goes through its buffer.
    std::ostream writer(out.rdbuf());
    for (const auto& entry : _entries) writer << entry.first << " " << entry.second << "\n";
    writer << "lockbase " << LOCKBASE_VERSION << "\n";
    writer << OpenSSL_version(OPENSSL_VERSION) << "\n";
    writer.flush();
}
