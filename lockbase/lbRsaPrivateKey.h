// An OpenSSL private key from the numbers of an RSA key file, shared by the
// framework's signing and by programs that sign through EVP themselves.
#pragma once

#include "lbOpensslPtr.h"
#include "lbRsaKeyFile.h"

namespace lockbase {

// An EVP private key from n, e, d, p and q (hex texts, as CanonicalizeRsaKey
// leaves them), with the CRT values computed so that signing runs at full
// speed; null when OpenSSL refuses the numbers.
PkeyPtr MakeRsaPrivateKey(const RsaKeyTexts& texts);

}  // namespace lockbase
