// markforge::verifyCommand: `markforge verify`, a verdict on every component
// signature and on the archive signature under one key.
#pragma once

#include <ostream>
#include <string>

#include "containerReader.h"
#include "keyring.h"
#include "publicKey.h"

namespace markforge {

struct verifyOptions {
    std::string file;
    std::string key;      // a public key file, or
    std::string keyring;  // a folder of them: the one that made the signatures is used
    bool json = false;
    bool requireTable = false;
};

class verifyCommand {
public:
    explicit verifyCommand(verifyOptions options) : _options(std::move(options)) {}
    // Writes the verdicts to `out`; throws commandFailure with status 1 when
    // any verdict is not ok, and with its own status on other failures.
    void Run(std::ostream& out);

private:
    // The key verify uses, read from --key or found in --keyring; nullptr
    // when no key of the keyring made any signature.
    const publicKey* ChooseKey(const containerContents& contents);

    verifyOptions _options;
    publicKey _key;
    keyring _keyring;
    std::string _keyPath;
    std::string _signedBy;
};

}  // namespace markforge
