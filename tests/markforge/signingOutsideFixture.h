// A fixture for the tests of signing outside the build (offline requests and
// attach, signing helpers, resign): the suite's development key also as a
// PEM private key for openssl, a second key pair that is not the suite's,
// and openssl pkeyutl as the signer that stands outside markforge.
#pragma once

#include <nlohmann/json.hpp>

#include <string>
#include <vector>

#include "containerFixture.h"
#include "testKeys.h"

namespace testsupport {

class SigningOutsideTest : public ContainerTest {
protected:
    static void SetUpTestSuite();
    static void TearDownTestSuite();
    // The suite's key ("dev") as a PEM private key, for openssl.
    static std::string privatePem();
    // Another key pair: "other" (its markforge key file beside dev's in
    // keyDir(), so that development builds may use it) and its PEM halves.
    static std::string otherPrivatePem();
    static std::string otherPublicPem();

    // Reads a requests file.
    static nlohmann::json ReadRequests(const std::string& path);
    // Signs every request of `requests` with openssl pkeyutl and the PEM
    // private key `keyPem` into `folder`/NAME.sig (made when missing).
    void SignRequests(const std::string& requests, const std::string& folder, const std::string& keyPem);
    // Signs the value `toSignHex` of one request with `keyPem` into `path`.
    void SignValue(const std::string& toSignHex, const std::string& hash, const std::string& keyPem,
                   const std::string& path);
    // `markforge build --mode offline` with the suite's key.
    ProcessResult BuildOffline(const std::string& out, const std::string& requests,
                               const std::vector<std::string>& components, const std::vector<std::string>& extra = {});
    // An executable shell script `name` in the test's folder.
    std::string Script(const std::string& name, const std::string& body);
    // The names of the files in the test's folder, for leftover checks.
    std::vector<std::string> FolderNames() const;
};

}  // namespace testsupport
