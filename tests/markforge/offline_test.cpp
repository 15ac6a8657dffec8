// `markforge build --mode offline` and `markforge attach`: requests out,
// signatures made by openssl pkeyutl alone, signatures in. The result is
// byte for byte the container a one-phase build makes with the same key;
// every mismatch between requests, signatures and image is refused with its
// own status before anything is written.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <string>
#include <vector>

#include "signingOutsideFixture.h"

namespace {

using testsupport::ProcessResult;
using testsupport::ReadFile;
using testsupport::SigningOutsideTest;

class OfflineTest : public SigningOutsideTest {
protected:
    void SetUp() override
    {
        components = {"boot=" + MakeComponent("boot.bin", 1000, 1), "app=" + MakeComponent("app.bin", 70000, 2)};
        unsigned_ = dir.file("img.unsigned");
        requests = dir.file("req.json");
        signatures = dir.file("sigs");
        out = dir.file("img");
    }

    // An offline build of `components`, signed by openssl into `signatures`.
    void BuildAndSign(const std::vector<std::string>& extra = {})
    {
        const ProcessResult built = BuildOffline(unsigned_, requests, components, extra);
        ASSERT_EQ(built.status, 0) << built.err;
        SignRequests(requests, signatures, privatePem());
    }

    ProcessResult Attach() const
    {
        return testsupport::RunMarkforge(
            {"attach", unsigned_, "--requests", requests, "--signatures", signatures, "-o", out});
    }

    // attach failed with `status`, said `message`, and wrote nothing.
    void ExpectRefused(int status, const std::string& message)
    {
        const std::vector<std::string> before = FolderNames();
        const ProcessResult attached = Attach();
        EXPECT_EQ(attached.status, status) << attached.err;
        EXPECT_EQ(attached.out, "");
        EXPECT_NE(attached.err.find(message), std::string::npos) << attached.err;
        EXPECT_FALSE(testsupport::FileExists(out));
        EXPECT_EQ(FolderNames(), before);
    }

    std::vector<std::string> components;
    std::string unsigned_, requests, signatures, out;
};

TEST_F(OfflineTest, AttachGivesTheOnePhaseContainerByteForByte)
{
    // A 2048-bit signature leaves room for 7 records: 7 components, or 6
    // and the table (7 and the table are refused before signing).
    for (const char* hash : {"sha256", "sha384", "sha512"}) {
        for (size_t count : {1, 2, 6, 7}) {
            for (bool table : {false, true}) {
                if (count == 6 && !table) continue;
                SCOPED_TRACE(std::string(hash) + " " + std::to_string(count) + (table ? " table" : ""));
                const std::string stem = std::string(hash) + "-" + std::to_string(count) + (table ? "-t" : "");
                components.clear();
                for (size_t i = 0; i < count; ++i)
                    components.push_back("c" + std::to_string(i) + "=" +
                                         MakeComponent("c" + std::to_string(i) + ".bin", 100 + 3000 * i,
                                                       static_cast<unsigned>(i + count)));
                std::vector<std::string> extra{"--hash", hash};
                if (table) extra.push_back("--table");
                unsigned_ = dir.file(stem + ".unsigned");
                requests = dir.file(stem + ".json");
                signatures = dir.file(stem + "-sigs");
                out = dir.file(stem + ".img");
                if (count == 7 && table) {
                    const ProcessResult refused = BuildOffline(unsigned_, requests, components, extra);
                    EXPECT_EQ(refused.status, 2);
                    EXPECT_NE(refused.err.find("8 components (the table of contents included) do not fit"),
                              std::string::npos);
                    EXPECT_FALSE(testsupport::FileExists(requests));
                    continue;
                }
                BuildAndSign(extra);
                const ProcessResult attached = Attach();
                ASSERT_EQ(attached.status, 0) << attached.err;

                const std::string onePhase = dir.file(stem + ".one");
                const ProcessResult built = BuildDevelopment(onePhase, components, extra);
                ASSERT_EQ(built.status, 0) << built.err;
                EXPECT_EQ(ReadFile(out), ReadFile(onePhase));
                const size_t records = count + (table ? 1 : 0);
                EXPECT_EQ(ReadRequests(requests)["requests"].size(), records == 1 ? 1 : records + 1);
            }
        }
    }
}

TEST_F(OfflineTest, TheUnsignedImageHasZeroSignaturesAndTheRequestsTheirValues)
{
    BuildAndSign();
    const std::string image = ReadFile(unsigned_);
    const testsupport::ContainerHeader header = testsupport::ParseContainer(image);
    ASSERT_TRUE(header.valid);
    EXPECT_EQ(header.signature, std::string(256, '\0'));
    for (const auto& record : header.records) EXPECT_EQ(record.signature, std::string(256, '\0'));

    const nlohmann::json document = ReadRequests(requests);
    EXPECT_EQ(document["schema"], 1);
    EXPECT_EQ(document["document"], "markforge-signing-requests");
    EXPECT_EQ(document["image_sha256"], testsupport::OpensslDigestHex(dir.path(), "sha256", image));
    EXPECT_EQ(document["key"]["name"], "dev");
    EXPECT_EQ(document["key"]["modulus_bits"], 2048);
    EXPECT_EQ(document["key"]["public_key"], ReadFile(publicPem()));
    const ProcessResult der = testsupport::Openssl({"pkey", "-pubin", "-in", publicPem(), "-outform", "DER"});
    EXPECT_EQ(document["key"]["fingerprint"], testsupport::OpensslDigestHex(dir.path(), "sha256", der.out));
    // boot, app, then the archive; each value is the digest of the digest's
    // upper-case hex text.
    const auto& list = document["requests"];
    ASSERT_EQ(list.size(), 3u);
    const std::vector<std::string> names{"boot", "app", "archive"};
    const std::vector<std::string> contents{ReadFile(dir.file("boot.bin")), ReadFile(dir.file("app.bin")),
                                            image.substr(4096)};
    for (size_t i = 0; i < 3; ++i) {
        SCOPED_TRACE(names[i]);
        EXPECT_EQ(list[i]["field_f"], names[i]);
        EXPECT_EQ(list[i]["signature_file"], names[i] + ".sig");
        EXPECT_EQ(list[i]["hash"], "sha256");
        const std::string digest = testsupport::OpensslDigestHex(dir.path(), "sha256", contents[i]);
        EXPECT_EQ(list[i]["digest"], digest);
        std::string upper = digest;
        for (char& c : upper) c = static_cast<char>(toupper(c));
        EXPECT_EQ(list[i]["to_sign"], testsupport::OpensslDigestHex(dir.path(), "sha256", upper));
    }
    // The unsigned image verifies as nothing.
    const ProcessResult verified = testsupport::RunMarkforge({"verify", unsigned_, "--key", publicPem()});
    EXPECT_EQ(verified.status, 1);
}

TEST_F(OfflineTest, OneComponentHasNoArchiveRequest)
{
    components = {"boot=" + dir.file("boot.bin")};
    BuildAndSign();
    const nlohmann::json document = ReadRequests(requests);
    const auto& list = document["requests"];
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0]["field_f"], "boot");
    ASSERT_EQ(Attach().status, 0);
    EXPECT_EQ(testsupport::RunMarkforge({"verify", out, "--key", publicPem()}).status, 0);
}

TEST_F(OfflineTest, AMissingSignatureIsRefused)
{
    BuildAndSign();
    ::unlink((signatures + "/app.sig").c_str());
    ExpectRefused(6, "the signature for request app is missing: no " + signatures + "/app.sig");
}

TEST_F(OfflineTest, AnExtraSignatureIsRefused)
{
    BuildAndSign();
    testsupport::WriteFile(signatures + "/kernel.sig", ReadFile(signatures + "/app.sig"));
    ExpectRefused(7, signatures + "/kernel.sig answers no request of " + requests);
}

TEST_F(OfflineTest, ASignatureForAnotherRequestIsRefused)
{
    BuildAndSign();
    const std::string boot = ReadFile(signatures + "/boot.sig");
    testsupport::WriteFile(signatures + "/boot.sig", ReadFile(signatures + "/app.sig"));
    testsupport::WriteFile(signatures + "/app.sig", boot);
    ExpectRefused(8, signatures + "/boot.sig is the signature for request app, not for boot");
}

TEST_F(OfflineTest, ASignatureByAnotherKeyIsRefused)
{
    BuildAndSign();
    const nlohmann::json document = ReadRequests(requests);
    const auto& list = document["requests"];
    SignValue(list[2]["to_sign"], "sha256", otherPrivatePem(), signatures + "/archive.sig");
    ExpectRefused(8, signatures + "/archive.sig (256 bytes) is not a signature by key dev");
}

TEST_F(OfflineTest, RequestsForAnotherKeyThanTheExpectedOneAreRefused)
{
    BuildAndSign();
    const auto attach = [this](const std::string& key) {
        return testsupport::RunMarkforge({"attach", unsigned_, "--requests", requests, "--signatures", signatures,
                                          "-o", out, "--public-key", key});
    };
    const ProcessResult other = attach(otherPublicPem());
    EXPECT_EQ(other.status, 8);
    EXPECT_NE(other.err.find("not by the --public-key key"), std::string::npos) << other.err;
    EXPECT_FALSE(testsupport::FileExists(out));
    const ProcessResult same = attach(publicPem());
    EXPECT_EQ(same.status, 0) << same.err;
}

TEST_F(OfflineTest, ShortAndDamagedSignaturesAreRefused)
{
    BuildAndSign();
    const std::string good = ReadFile(signatures + "/app.sig");
    testsupport::WriteFile(signatures + "/app.sig", good.substr(0, 255));
    ExpectRefused(8, signatures + "/app.sig (255 bytes) is not a signature by key dev");
    std::string damaged = good;
    damaged[100] ^= 1;
    testsupport::WriteFile(signatures + "/app.sig", damaged);
    ExpectRefused(8, signatures + "/app.sig (256 bytes) is not a signature");
    testsupport::WriteFile(signatures + "/app.sig", good + std::string(10000, 'x'));
    ExpectRefused(8, signatures + "/app.sig (257 bytes) is not a signature");
}

TEST_F(OfflineTest, AnotherImageIsRefused)
{
    BuildAndSign();
    // The same requests for an image whose one payload byte differs.
    std::string image = ReadFile(unsigned_);
    image[5000] ^= 1;
    testsupport::WriteFile(unsigned_, image);
    ExpectRefused(9, unsigned_ + " is not the image the requests were made for");
}

TEST_F(OfflineTest, RequestsEditedToMatchAnotherImageAreRefused)
{
    // An image of other contents, and the first requests with its hash: the
    // requests' values are not what its components give.
    BuildAndSign();
    const std::string other = dir.file("other.unsigned");
    components = {"boot=" + MakeComponent("boot2.bin", 1000, 7), "app=" + dir.file("app.bin")};
    ASSERT_EQ(BuildOffline(other, dir.file("other.json"), components).status, 0);
    nlohmann::ordered_json document = nlohmann::ordered_json::parse(ReadFile(requests));
    document["image_sha256"] = ReadRequests(dir.file("other.json"))["image_sha256"];
    testsupport::WriteFile(requests, document.dump(2));
    unsigned_ = other;
    ExpectRefused(9, other + " is not the image the requests were made for: the bytes of boot are not the ones its "
                             "request was made for");
}

TEST_F(OfflineTest, RequestsThatDoNotHoldTogetherAreRefused)
{
    BuildAndSign();
    const std::string good = ReadFile(requests);
    const auto edited = [&](const std::function<void(nlohmann::ordered_json&)>& edit) {
        nlohmann::ordered_json document = nlohmann::ordered_json::parse(good);
        edit(document);
        testsupport::WriteFile(requests, document.dump(2));
    };
    edited([](nlohmann::ordered_json& d) { d["requests"][0]["to_sign"] = d["requests"][1]["to_sign"]; });
    ExpectRefused(3, "request boot: to_sign is not the value its digest gives");
    edited([](nlohmann::ordered_json& d) { d["schema"] = 2; });
    ExpectRefused(3, "its schema is 2; this markforge reads schema 1");
    edited([](nlohmann::ordered_json& d) { d["key"]["fingerprint"] = std::string(64, '0'); });
    ExpectRefused(3, "the key's fingerprint or modulus_bits is not its public_key's");
    edited([](nlohmann::ordered_json& d) { d["requests"][0]["signature_file"] = "../boot.sig"; });
    ExpectRefused(3, "request boot: signature_file is not boot.sig");
    testsupport::WriteFile(requests, "{\"schema\": 1,");
    ExpectRefused(3, "is not a requests file of markforge build --mode offline: it is not a JSON object");
    edited([](nlohmann::ordered_json& d) { d["requests"].erase(1); });
    ExpectRefused(7, "app.sig answers no request");
}

TEST_F(OfflineTest, NamesThatCannotNameASignatureFileAreRefused)
{
    const ProcessResult slash = BuildOffline(unsigned_, requests, {"a/b=" + dir.file("boot.bin")});
    EXPECT_EQ(slash.status, 2);
    EXPECT_NE(slash.err.find("component name 'a/b' cannot name its signature file NAME.sig"), std::string::npos);
    const ProcessResult archive =
        BuildOffline(unsigned_, requests, {"archive=" + dir.file("boot.bin"), "app=" + dir.file("app.bin")});
    EXPECT_EQ(archive.status, 2);
    EXPECT_NE(archive.err.find("a component named 'archive' would share archive.sig"), std::string::npos);
    // Alone it signs for the archive, so there is no archive request.
    EXPECT_EQ(BuildOffline(unsigned_, requests, {"archive=" + dir.file("boot.bin")}).status, 0);
}

TEST_F(OfflineTest, UsageErrors)
{
    const std::string boot = "boot=" + dir.file("boot.bin");
    const ProcessResult noRequests = testsupport::RunMarkforge(
        {"build", "-o", unsigned_, "--key", "dev", "--mode", "offline", "--public-key", publicPem(), boot});
    EXPECT_EQ(noRequests.status, 2);
    EXPECT_NE(noRequests.err.find("offline mode needs --requests REQ.json"), std::string::npos);
    const ProcessResult noKey = testsupport::RunMarkforge(
        {"build", "-o", unsigned_, "--key", "dev", "--mode", "offline", "--requests", requests, boot});
    EXPECT_EQ(noKey.status, 2);
    EXPECT_NE(noKey.err.find("offline mode needs --public-key PUB"), std::string::npos);
    const ProcessResult requestsElsewhere = BuildDevelopment(unsigned_, {boot}, {"--requests", requests});
    EXPECT_EQ(requestsElsewhere.status, 2);
    EXPECT_NE(requestsElsewhere.err.find("--requests is for offline mode"), std::string::npos);
    const ProcessResult headerOnly = BuildOffline(unsigned_, requests, {boot}, {"--header-only"});
    EXPECT_EQ(headerOnly.status, 2);
    EXPECT_EQ(FolderNames(), (std::vector<std::string>{"app.bin", "boot.bin"}));
}

TEST_F(OfflineTest, AFailedOfflineBuildWritesNeitherFile)
{
    const ProcessResult built = BuildOffline(unsigned_, requests, {"boot=" + dir.file("missing.bin")});
    EXPECT_EQ(built.status, 3);
    EXPECT_EQ(FolderNames(), (std::vector<std::string>{"app.bin", "boot.bin"}));
}

TEST_F(OfflineTest, TheDocumentedOpensslStepsSignTheRequests)
{
    // docs/signing-outside.md: the value to sign is written out with xxd
    // and signed by openssl pkeyutl, one file per request.
    const ProcessResult built = BuildOffline(unsigned_, requests, components, {"--hash", "sha384"});
    ASSERT_EQ(built.status, 0) << built.err;
    ::mkdir(signatures.c_str(), 0700);
    const ProcessResult signedAll = testsupport::Run(
        {"sh", SIGN_REQUESTS_SCRIPT, requests, privatePem(), signatures});
    ASSERT_EQ(signedAll.status, 0) << signedAll.err;
    ASSERT_EQ(Attach().status, 0);
    EXPECT_EQ(testsupport::RunMarkforge({"verify", out, "--key", publicPem()}).status, 0);
}

}  // namespace
