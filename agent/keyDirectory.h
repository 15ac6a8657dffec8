// Loads the keys of a key folder: markforge key files `NAME.markforge` and
// PEM private keys `NAME.pem`.
#pragma once

#include <string>
#include <vector>

#include "keyStore.h"

namespace agent {

class KeyDirectory {
public:
    // Loads every key file of `folder` into `store`. Files whose name is not
    // a valid key name are skipped and named in `skipped`. False with the
    // reason in `error` on a key that cannot be read.
    static bool Load(const std::string& folder, KeyStore& store, std::vector<std::string>& skipped,
                     std::string& error);

private:
    static PkeyPtr ReadMarkforgeKey(const std::string& path, std::string& error);
    static PkeyPtr ReadPemKey(const std::string& path, std::string& error);
};

}  // namespace agent
