// markforge::sign: signs a checksum with a local key file ("development") or
// through the HSM signing agent ("production").
#pragma once

#include <string>

#include "lbBase.h"
#include "lbBytes.h"
#include "signAgentProtocol.h"

class lbRsa;

namespace markforge {

using std::string;

class sign : public lbBase {
public:
    sign() { LB_CONSTRUCTOR(); }
    virtual ~sign() { LB_DESTRUCTOR_CHECK("virtual markforge::sign::~sign()"); }

    bool Open() override;
    bool Close() override;

    // Signs a checksum of 64, 96 or 128 hex characters in "production" or
    // "development" mode; the signature is then in `signature`.
    bool Sign(const string& checksum, const string& keyName, const string& mode, const string& fieldF,
              int isDigest, int fieldC, const string& extraArgs);
    // Local RSA signature of a finished digest.
    bool SignInternal(const lbBytes& digest, lbRsa& key);
    // Signature through the signing agent: 0 on success, -1 on any failure
    // (reported on standard error only).
    int sign_hsm(const lbBytes& digest, const string& keyName, const string& fieldF, int fieldC,
                 const string& extraArgs);
    // Copies the last signature out.
    bool GetSignature(lbBytes& out);

private:
    // Steps of Sign; they record under Sign's own function text.
    bool MakeDigest(const char* lbFunction, const string& text, int isDigest, lbBytes& digest);
    bool SignWithKeyFile(const char* lbFunction, const string& keyName, const lbBytes& digest);

    lbBytes signature;
};

}  // namespace markforge
