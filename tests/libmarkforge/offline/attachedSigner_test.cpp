// markforge::attachedSigner: a signature only for the very value its request
// named, and none for a field no request names.
#include <gtest/gtest.h>

#include "attachedSigner.h"
#include "offlineSigner.h"

namespace {

using markforge::attachedSigner;
using markforge::signatureRequest;
using markforge::signingRequests;

signatureRequest Asking(const std::string& fieldF, std::vector<uint8_t> toSign)
{
    signatureRequest request;
    request.fieldF = fieldF;
    request.toSign = std::move(toSign);
    return request;
}

TEST(AttachedSigner, GivesEachSignatureForItsValueAlone)
{
    signingRequests requests;
    requests.requests.push_back({"boot", {1}, {1, 2, 3}});
    requests.requests.push_back({"archive", {2}, {4, 5, 6}});
    attachedSigner signs(requests, {{"boot", {9, 9}}, {"archive", {8, 8}}});

    EXPECT_EQ(signs.Sign(Asking("boot", {1, 2, 3})).signature, (std::vector<uint8_t>{9, 9}));
    EXPECT_EQ(signs.Sign(Asking("archive", {4, 5, 6})).signature, (std::vector<uint8_t>{8, 8}));
    EXPECT_EQ(signs.Sign(Asking("boot", {4, 5, 6})).failure,
              "the bytes of boot are not the ones its request was made for");
    EXPECT_EQ(signs.Sign(Asking("app", {1, 2, 3})).failure, "the requests hold no request for app");
}

TEST(OfflineSigner, ZeroBytesOfTheKeysLength)
{
    markforge::offlineSigner signs(384);
    const markforge::signatureResult result = signs.Sign(Asking("boot", {1}));
    EXPECT_TRUE(result.Ok());
    EXPECT_EQ(result.signature, std::vector<uint8_t>(384, 0));
}

}  // namespace
