// lbApi: crypto provider selection over OpenSSL 3's provider API.
#include "lbApi.h"

#include <openssl/crypto.h>
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
    // The tools are configured by their command line alone, so OpenSSL's own
    // configuration file (and OPENSSL_CONF) is not read: a host's file could
    // otherwise switch providers or properties under the tool. Nor does
    // OpenSSL free its tables at exit: the tools are short-lived processes,
    // and the system takes the memory back faster. Nor does it load its error
    // texts: the tools report failures in their own words and never print
    // OpenSSL's, and loading the table costs close to a million instructions
    // the first time OpenSSL touches its error queue, which every key read
    // does. All three hold when Open comes before any other OpenSSL use in
    // the process, as it does in every tool; later, OpenSSL has already made
    // its choice.
    OPENSSL_init_crypto(OPENSSL_INIT_NO_LOAD_CONFIG | OPENSSL_INIT_NO_ATEXIT | OPENSSL_INIT_NO_LOAD_CRYPTO_STRINGS,
                        nullptr);
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
