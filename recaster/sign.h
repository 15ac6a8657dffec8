// markforge::sign: signs a checksum with a local key file ("development") or
// through the HSM signing agent ("production").
#pragma once

#include <string>

#include "lbBase.h"
#include "lbBytes.h"

class lbRsa;

namespace markforge {

using std::string;

// The signing agent listens on 127.0.0.1 at this port.
static constexpr unsigned short SIGN_AGENT_PORT = 8001;

class sign : public lbBase {
public:
    sign() { LB_CONSTRUCTOR(); }
    virtual ~sign() { LB_DESTRUCTOR_CHECK("virtual markforge::sign::~sign()"); }

    bool Open() override;
    bool Close() override;

    bool Sign(const string& checksum, const string& keyName, const string& mode, const string& fieldF,
              int isDigest, int fieldC, const string& extraArgs);
    bool SignInternal(const lbBytes& digest, lbRsa& key);
    int sign_hsm(const lbBytes& digest, const string& keyName, const string& fieldF, int fieldC,
                 const string& extraArgs);
    bool GetSignature(lbBytes& out);

private:
    lbBytes signature;
};

}  // namespace markforge
