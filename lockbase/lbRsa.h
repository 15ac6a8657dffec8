// lbRsa: an RSA key held as its five numbers (n, e, p, q, d) in hexadecimal
// text, read from and written to markforge key files, and able to sign.
#pragma once

#include <string>

#include "lbBase.h"
#include "lbRsaKeyFile.h"

class lbBytes;

class lbRsa : public lbBase {
public:
    lbRsa() { LB_CONSTRUCTOR(); }
    lbRsa(const lbRsa&) = delete;
    lbRsa& operator=(const lbRsa&) = delete;
    virtual ~lbRsa();

    // Builds the key from its five texts; p, q and d all empty make a public
    // key. Fails on texts that are not hexadecimal numbers or do not form an
    // RSA key.
    bool MakeKeyFromExps(const std::string& n, const std::string& e, const std::string& p,
                         const std::string& q, const std::string& d);
    // Writes the key as a markforge key file; a private key's file gets mode 0600.
    bool WriteKeyToDisk(const std::string& path);
    // Loads a markforge key file.
    bool ReadKeyFromDisk(const std::string& path);
    // The five texts of the loaded key, upper-case whole bytes; p, q and d
    // are empty for a public key.
    bool GetExponents(std::string& n, std::string& e, std::string& p, std::string& q,
                      std::string& d) const;
    // RSA PKCS#1 v1.5 signature over a finished digest of 32, 48 or 64 bytes
    // (SHA-256, SHA-384 or SHA-512); needs a private key.
    bool Sign(const lbBytes& digest, lbBytes& signature);
    // Forgets the key.
    bool Close() override;

    bool IsPrivate() const { return !_key.d.empty(); }

private:
    bool Fail(const char* function, int line, const std::string& message);
    // Replaces the key with `key`, wiping the old numbers.
    void Adopt(lockbase::RsaKeyTexts&& key);
    void Forget();

    lockbase::RsaKeyTexts _key;
};
