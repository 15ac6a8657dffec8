// markforge::signingRequests: REQ.json written, and read back only when it
// is a whole document that holds together.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <cstring>
#include <functional>

#include "digestStream.h"
#include "lbHashId.h"
#include "publicKey.h"
#include "signingRequests.h"
#include "testKeys.h"
#include "testSupport.h"

namespace {

using markforge::signingRequest;
using markforge::signingRequests;
using json = nlohmann::ordered_json;

class SigningRequestsTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        testsupport::TestRsaKey made;
        std::string error;
        ASSERT_TRUE(testsupport::MakeRsaKey(dir.path(), "key", 2048, made, error)) << error;
        markforge::publicKey key;
        ASSERT_TRUE(key.Load(made.publicPem, error)) << error;
        requests.keyName = "release";
        requests.publicKeyPem = key.PemText();
        requests.keyFingerprint = key.Fingerprint();
        requests.modulusBits = 2048;
        requests.hashId = lbHashId::SHA384;
        requests.imageSha256.assign(32, 0xab);
        for (const char* name : {"boot", "app", "archive"}) {
            const std::vector<uint8_t> digest = markforge::digestStream::Of(
                lbHashId::SHA384, reinterpret_cast<const uint8_t*>(name), std::strlen(name));
            requests.requests.push_back({name, digest, markforge::SignedDigestOf(lbHashId::SHA384, digest)});
        }
        text = requests.Encode();
    }

    // The reason `edit` of the document is refused for.
    std::string RefusalAfter(const std::function<void(json&)>& edit)
    {
        json document = json::parse(text);
        edit(document);
        signingRequests read;
        std::string reason;
        EXPECT_FALSE(signingRequests::Decode(document.dump(), read, reason));
        EXPECT_TRUE(read.requests.empty());
        return reason;
    }

    testsupport::TempDir dir;
    signingRequests requests;
    std::string text;
};

TEST_F(SigningRequestsTest, TheDocumentReadsBackAsItWasWritten)
{
    signingRequests read;
    std::string reason;
    ASSERT_TRUE(signingRequests::Decode(text, read, reason)) << reason;
    EXPECT_EQ(read.keyName, "release");
    EXPECT_EQ(read.hashId, lbHashId::SHA384);
    EXPECT_EQ(read.imageSha256, requests.imageSha256);
    ASSERT_EQ(read.requests.size(), 3u);
    EXPECT_EQ(read.requests[1].fieldF, "app");
    EXPECT_EQ(read.requests[1].toSign, requests.requests[1].toSign);
    EXPECT_EQ(read.Encode(), text);
}

TEST_F(SigningRequestsTest, TheLayoutIsTheDocumentedOne)
{
    const json document = json::parse(text);
    std::vector<std::string> keys;
    for (const auto& item : document.items()) keys.push_back(item.key());
    EXPECT_EQ(keys, (std::vector<std::string>{"schema", "document", "image_sha256", "key", "requests"}));
    std::string image;
    for (int i = 0; i < 32; ++i) image += "ab";
    EXPECT_EQ(document["image_sha256"], image);
    const json& first = document["requests"][0];
    std::vector<std::string> requestKeys;
    for (const auto& item : first.items()) requestKeys.push_back(item.key());
    EXPECT_EQ(requestKeys, (std::vector<std::string>{"field_f", "signature_file", "hash", "digest", "to_sign"}));
    EXPECT_EQ(first["signature_file"], "boot.sig");
    EXPECT_EQ(first["hash"], "sha384");
    EXPECT_EQ(first["digest"].get<std::string>().size(), 96u);
}

TEST_F(SigningRequestsTest, UnknownMembersAreIgnored)
{
    json document = json::parse(text);
    document["note"] = "signed on the air-gapped host";
    document["requests"][0]["ticket"] = 17;
    signingRequests read;
    std::string reason;
    EXPECT_TRUE(signingRequests::Decode(document.dump(), read, reason)) << reason;
}

TEST_F(SigningRequestsTest, DocumentsThatDoNotHoldTogetherAreRefused)
{
    EXPECT_EQ(RefusalAfter([](json& d) { d["document"] = "something else"; }),
              "it is not a markforge signing-requests document");
    EXPECT_EQ(RefusalAfter([](json& d) { d["schema"] = 2; }), "its schema is 2; this markforge reads schema 1");
    EXPECT_EQ(RefusalAfter([](json& d) { d["schema"] = "1"; }), "it is not a markforge signing-requests document");
    EXPECT_EQ(RefusalAfter([](json& d) { d.erase("image_sha256"); }),
              "it lacks image_sha256, key or a non-empty requests array");
    EXPECT_EQ(RefusalAfter([](json& d) { d["image_sha256"] = std::string(64, 'A'); }),
              "it lacks image_sha256, key or a non-empty requests array");
    EXPECT_EQ(RefusalAfter([](json& d) { d["requests"] = json::array(); }),
              "it lacks image_sha256, key or a non-empty requests array");
    EXPECT_EQ(RefusalAfter([](json& d) { d["key"]["modulus_bits"] = 4096; }),
              "the key's fingerprint or modulus_bits is not its public_key's");
    EXPECT_EQ(RefusalAfter([](json& d) { d["key"]["public_key"] = "not a key"; }),
              "the key's public_key is not one PEM public key");
    EXPECT_EQ(RefusalAfter([](json& d) { d["key"]["public_key"] = d["key"]["public_key"].get<std::string>() + "x"; }),
              "the key's public_key is not one PEM public key");
    EXPECT_EQ(RefusalAfter([](json& d) { d["requests"][1]["hash"] = "md5"; }),
              "request app names the hash 'md5', not sha256, sha384 or sha512");
    EXPECT_EQ(RefusalAfter([](json& d) { d["requests"][1]["hash"] = "sha256"; }),
              "request app has no 32-byte lower-case hex digest and to_sign");
    EXPECT_EQ(RefusalAfter([](json& d) { d["requests"][1]["to_sign"] = d["requests"][1]["digest"]; }),
              "request app: to_sign is not the value its digest gives");
    EXPECT_EQ(RefusalAfter([](json& d) { d["requests"][2]["signature_file"] = "../archive.sig"; }),
              "request archive: signature_file is not archive.sig");
    EXPECT_EQ(RefusalAfter([](json& d) { d["requests"][2] = d["requests"][1]; }),
              "request names must be distinct printable names without blanks or '/'");
    EXPECT_EQ(RefusalAfter([](json& d) { d["requests"][0]["field_f"] = "a/b"; }),
              "request a/b: signature_file is not a/b.sig");
    EXPECT_EQ(RefusalAfter([](json& d) { d["requests"][0].erase("field_f"); }), "a request lacks its field_f or hash");
}

TEST_F(SigningRequestsTest, TextThatIsNoDocumentIsRefused)
{
    signingRequests read;
    std::string reason;
    for (const std::string& bad : {std::string(), std::string("[]"), text.substr(0, text.size() / 2),
                                   std::string(300 * 1024, ' ') + text}) {
        EXPECT_FALSE(signingRequests::Decode(bad, read, reason));
    }
    EXPECT_EQ(reason, "it is larger than 262144 bytes");
}

TEST(SigningRequestNames, FitAFile)
{
    EXPECT_TRUE(signingRequests::NameFitsFile("boot"));
    EXPECT_TRUE(signingRequests::NameFitsFile(".markforge-toc"));
    EXPECT_FALSE(signingRequests::NameFitsFile(""));
    EXPECT_FALSE(signingRequests::NameFitsFile("a/b"));
    EXPECT_FALSE(signingRequests::NameFitsFile("a b"));
    EXPECT_FALSE(signingRequests::NameFitsFile("caf\xc3\xa9"));
}

}  // namespace
