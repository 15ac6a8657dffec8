// lbApi: selecting OpenSSL's default provider by the name "openssl".
#include <gtest/gtest.h>

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/provider.h>

#include <cstdio>
#include <cstdlib>

#include "lbApi.h"
#include "lbGlobal.h"
#include "lbSteps.h"
#include "testSupport.h"

namespace {

using testsupport::FrameworkTest;

// Opens an lbApi the way an application's Run does.
class opener : public lbBase {
public:
    opener() { LB_CONSTRUCTOR(); }
    virtual ~opener() { LB_DESTRUCTOR_CHECK("virtual opener::~opener()"); }

    bool OpenApi(lbApi& api, const std::string& provider)
    {
        LB_FUNCTION("bool opener::OpenApi(lbApi&, const string&)");
        LB_OPEN_WITH(api, api.Open(provider));
        return true;
    }
    bool CloseApi(lbApi& api)
    {
        LB_FUNCTION("bool opener::CloseApi(lbApi&)");
        LB_CLOSE_WITH(api, api.Close());
        return true;
    }
};

int DefaultAvailable()
{
    return OSSL_PROVIDER_available(nullptr, "default");
}

// Runs in a process of its own. Loading the "null" provider first stops
// OpenSSL from activating the default provider on its own, so whether it is
// available afterwards depends on lbApi alone.
void ReportDefaultProviderAcrossOpenAndClose()
{
    OSSL_PROVIDER* const null = OSSL_PROVIDER_load(nullptr, "null");
    const int before = DefaultAvailable();
    opener application;
    lbApi api;
    const bool opened = application.OpenApi(api, "openssl");
    const int whileOpen = DefaultAvailable();
    const bool closed = application.CloseApi(api);
    const int after = DefaultAvailable();
    OSSL_PROVIDER_unload(null);
    std::fprintf(stderr, "before %d, open %d %d, close %d %d\n", before, opened, whileOpen, closed, after);
    std::exit(0);
}

// Runs in a process of its own. The failed PEM read is the first use of
// OpenSSL's error queue in the process, the moment OpenSSL would otherwise
// load its error texts.
void ReportErrorTextAfterOpen()
{
    lbApi api;
    const bool opened = api.Open("openssl");
    BIO* const empty = BIO_new_mem_buf("", 0);
    EVP_PKEY* const key = PEM_read_bio_PrivateKey(empty, nullptr, nullptr, nullptr);
    const bool read = key != nullptr;
    EVP_PKEY_free(key);
    BIO_free(empty);
    const unsigned long error = ERR_peek_error();
    const char* const text = ERR_reason_error_string(error);
    std::fprintf(stderr, "open %d, key %d, error %d, text %s\n", opened, read, error != 0,
                 text ? text : "(none)");
    std::exit(0);
}

using LbApiTest = FrameworkTest;

// Declared first: it needs a process in which nothing has used OpenSSL's
// providers yet, as ctest gives every case (and a whole-program run gives its
// first case). The child keeps the provider changes to itself.
TEST_F(LbApiTest, OpensslMakesTheDefaultProviderAvailableUntilClosed)
{
    EXPECT_EXIT(ReportDefaultProviderAcrossOpenAndClose(), ::testing::ExitedWithCode(0),
                "^before 0, open 1 1, close 1 0\n$");
}

// The tools never show OpenSSL's own error texts (the trail says what
// failed in their words), so Open tells OpenSSL not to load its table of
// them. Like the case above, it needs a process where OpenSSL's error queue
// has not been used yet.
TEST_F(LbApiTest, OpensslErrorTextsAreNotLoaded)
{
    EXPECT_EXIT(ReportErrorTextAfterOpen(), ::testing::ExitedWithCode(0),
                "^open 1, key 0, error 1, text \\(none\\)\n$");
}

TEST_F(LbApiTest, OpenIsACheckedOpenWithoutTrailEntries)
{
    opener application;
    lbApi api;
    ASSERT_TRUE(application.OpenApi(api, "openssl"));
    EXPECT_TRUE(api.IsOpen());
    EXPECT_EQ(DefaultAvailable(), 1);
    ASSERT_TRUE(application.CloseApi(api));
    EXPECT_FALSE(api.IsOpen());
    EXPECT_TRUE(lbGlobal.trail.empty());
    EXPECT_FALSE(lbGlobal.errorFlag);
}

TEST_F(LbApiTest, UnknownProviderNameFailsTheOpen)
{
    opener application;
    lbApi api;
    EXPECT_FALSE(application.OpenApi(api, "nonesuch"));
    EXPECT_FALSE(api.IsOpen());
    EXPECT_TRUE(lbGlobal.errorFlag);
    const std::vector<std::string> lines = testsupport::TrailLines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(), "bool opener::OpenApi(lbApi&, const string&)|tests/lockbase/lbApi_test.cpp|"
                            "Object Open() routine failed.");
}

TEST_F(LbApiTest, ProviderNamesAreCaseSensitive)
{
    lbApi api;
    EXPECT_FALSE(api.Open("OpenSSL"));
    EXPECT_FALSE(api.Open(""));
}

TEST_F(LbApiTest, CloseWithoutOpenSucceeds)
{
    lbApi api;
    EXPECT_TRUE(api.Close());
}

}  // namespace
