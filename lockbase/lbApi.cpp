// lbApi: crypto provider selection over OpenSSL 3's provider API.
#include "lbApi.h"

#include <openssl/provider.h>

#include "lbSteps.h"

lbApi::~lbApi()
{
    LB_DESTRUCTOR_CHECK("virtual lbApi::~lbApi()");
    if (_provider) OSSL_PROVIDER_unload(_provider);
}

bool lbApi::Open(const std::string& provider)
{
    LB_FUNCTION("bool lbApi::Open(const string&)");
    if (provider != "openssl") {
        addHistory(lbFunction, __FILE__, __LINE__);
        addMessage("Unknown crypto provider \"%s\"", provider.c_str());
        return false;
    }
    if (_provider) return true;
    _provider = OSSL_PROVIDER_load(nullptr, "default");
    if (!_provider) {
        addHistory(lbFunction, __FILE__, __LINE__);
        addMessage("OpenSSL's default provider could not be loaded");
        return false;
    }
    return true;
}

bool lbApi::Close()
{
    if (_provider) OSSL_PROVIDER_unload(_provider);
    _provider = nullptr;
    return true;
}
