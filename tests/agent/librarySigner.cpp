// Calls into the library's signer with its console output captured.
#include "librarySigner.h"

#include <gtest/gtest.h>

#include "lbBytes.h"
#include "openedObject.h"
#include "sign.h"

namespace agenttest {

const std::vector<DigestKind>& DigestKinds()
{
    static const std::vector<DigestKind> kinds{{32, "sha256"}, {48, "sha384"}, {64, "sha512"}};
    return kinds;
}

int SignThroughLibrary(const std::vector<uint8_t>& digest, const std::string& keyName,
                       std::vector<uint8_t>& signature, std::string& err)
{
    testsupport::Opened<markforge::sign> signer;
    lbBytes input, output;
    input.ImportFromV(digest);
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int result = signer->sign_hsm(input, keyName, "image.bin", 1, "");
    testing::internal::GetCapturedStdout();
    err = testing::internal::GetCapturedStderr();
    signer->GetSignature(output);
    signature = output.buffer;
    return result;
}

}  // namespace agenttest
