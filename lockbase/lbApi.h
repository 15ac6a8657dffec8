// lbApi: selects the crypto provider every later OpenSSL call runs on.
#pragma once

#include <string>

#include "lbBase.h"

struct ossl_provider_st;

class lbApi : public lbBase {
public:
    lbApi() : _provider(nullptr) { LB_CONSTRUCTOR(); }
    lbApi(const lbApi&) = delete;
    lbApi& operator=(const lbApi&) = delete;
    virtual ~lbApi();

    using lbBase::Open;
    // Loads the named provider; "openssl" is OpenSSL's default provider, and
    // any other name fails.
    bool Open(const std::string& provider);
    // Releases the provider.
    bool Close() override;

private:
    ossl_provider_st* _provider;
};
