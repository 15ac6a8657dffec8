// markforge::keyFileSigner: development signatures with a private markforge
// key file (the one a key-name plug-in names), through OpenSSL directly, so
// that several signatures may be made at once.
#pragma once

#include <string>

#include "lbOpensslPtr.h"
#include "signer.h"

namespace markforge {

class keyFileSigner : public signer {
public:
    // Reads the private key from `path`. False, with a one-line reason,
    // when the file holds no private markforge key.
    bool Load(const std::string& path, std::string& reason);

    signatureResult Sign(const signatureRequest& request) override;
    std::string Describe() const override { return "the key file " + _path; }

private:
    std::string _path;
    lockbase::PkeyPtr _key;
};

}  // namespace markforge
