// markforge::keyGenerator: new RSA key pairs for development signing.
#pragma once

#include <string>

#include "lbRsaKeyFile.h"
#include "publicKey.h"

namespace markforge {

class keyGenerator {
public:
    // Makes an RSA key of `bits` bits with exponent 65537: its five numbers
    // as key texts (upper-case hex, as key files hold them) and its public
    // half. False, with a one-line reason, when OpenSSL cannot.
    static bool Generate(unsigned bits, lockbase::RsaKeyTexts& texts, publicKey& half, std::string& reason);
};

}  // namespace markforge
