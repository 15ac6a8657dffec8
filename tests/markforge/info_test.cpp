// markforge info through the built program: the layout it reports, the JSON
// schema, and the keyring naming the key behind each signature.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include "readingFixture.h"

namespace {

using namespace readingtest;
using testsupport::RunMarkforge;

constexpr size_t BLOCK = 4096;

// SHA-256 of the key's DER SubjectPublicKeyInfo, as openssl computes it.
std::string OpensslFingerprint(const std::string& publicPem)
{
    const std::string der = testsupport::Openssl({"pkey", "-pubin", "-in", publicPem, "-outform", "DER"}).out;
    return testsupport::Openssl({"dgst", "-sha256", "-r"}, &der).out.substr(0, 64);
}

void CheckSigner(const Json& signer, bool withKeyring)
{
    if (!withKeyring) return;
    if (signer.is_null()) return;
    EXPECT_EQ(KeysOf(signer), (std::vector<std::string>{"file", "fingerprint"}));
    EXPECT_TRUE(signer["file"].is_string());
    EXPECT_TRUE(IsLowerHex(signer["fingerprint"], 32));
}

// Every field of an info document, in order and of its type.
void CheckInfoSchema(const Json& document, bool withKeyring)
{
    ASSERT_TRUE(document.is_object());
    std::vector<std::string> keys{"schema", "command", "file", "file_size", "header", "payload", "components"};
    if (withKeyring) keys.push_back("keyring");
    for (const char* key : {"bytes_before_header", "layout", "table"}) keys.push_back(key);
    EXPECT_EQ(KeysOf(document), keys);
    EXPECT_TRUE(document["bytes_before_header"].is_number_unsigned());
    CheckLayoutSchema(document["layout"]);
    CheckTableSchema(document["table"], false);
    EXPECT_EQ(document["schema"], 1);
    EXPECT_EQ(document["command"], "info");
    EXPECT_TRUE(document["file"].is_string());
    EXPECT_TRUE(document["file_size"].is_number_unsigned());
    CheckHeaderSchema(document["header"]);
    EXPECT_EQ(document["header"].contains("signer"), withKeyring);
    CheckSigner(document["header"].value("signer", Json()), withKeyring);
    EXPECT_EQ(KeysOf(document["payload"]), (std::vector<std::string>{"offset", "length"}));
    EXPECT_TRUE(document["payload"]["offset"].is_number_unsigned());
    EXPECT_TRUE(document["payload"]["length"].is_number_unsigned());
    ASSERT_TRUE(document["components"].is_array());
    std::vector<std::string> componentKeys{"index",        "name",           "name_encoding",
                                           "offset",       "size",           "inside_file",
                                           "signature_length", "signature_fingerprint"};
    if (withKeyring) componentKeys.push_back("signer");
    for (size_t i = 0; i < document["components"].size(); ++i) {
        const Json& component = document["components"][i];
        EXPECT_EQ(KeysOf(component), componentKeys);
        EXPECT_EQ(component["index"], i);
        CheckNameSchema(component);
        EXPECT_TRUE(component["offset"].is_number_unsigned());
        EXPECT_TRUE(component["size"].is_number_unsigned());
        EXPECT_TRUE(component["inside_file"].is_boolean());
        EXPECT_TRUE(component["signature_length"].is_number_unsigned());
        EXPECT_TRUE(IsLowerHex(component["signature_fingerprint"], 32));
        CheckSigner(component.value("signer", Json()), withKeyring);
    }
    if (!withKeyring) return;
    EXPECT_EQ(KeysOf(document["keyring"]), (std::vector<std::string>{"keys", "skipped"}));
    for (const Json& key : document["keyring"]["keys"]) {
        EXPECT_EQ(KeysOf(key), (std::vector<std::string>{"file", "fingerprint"}));
        EXPECT_TRUE(IsLowerHex(key["fingerprint"], 32));
    }
    for (const Json& skipped : document["keyring"]["skipped"]) EXPECT_TRUE(skipped.is_string());
}

// A keyring folder with keys a (PEM), b (markforge public key file) and c
// (raw modulus), and one file that holds no key.
std::string MakeKeyring(const TempDir& dir)
{
    const std::string ring = dir.file("ring");
    EXPECT_EQ(mkdir(ring.c_str(), 0700), 0);
    testsupport::WriteFile(ring + "/a.pem", testsupport::ReadFile(PublicKey("a")));
    EXPECT_EQ(testsupport::RunRecaster(
                  {"--convertkey", "-i", PublicKey("b"), "-o", ring + "/b.markforge", "-I", "pem", "-O", "markforge"})
                  .status,
              0);
    EXPECT_EQ(testsupport::RunRecaster(
                  {"--convertkey", "-i", PublicKey("c"), "-o", ring + "/c.raw", "-I", "pem", "-O", "raw"})
                  .status,
              0);
    testsupport::WriteFile(ring + "/README", "public keys of the release signers\n");
    return ring;
}

TEST(Info, ReportsTheLayout)
{
    TempDir dir;
    const Components parts = SomeComponents(3);
    const std::string container = Build(dir, parts, "sha512");
    const ProcessResult r = RunMarkforge({"info", container, "--json"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    const Json document = Parse(r);
    CheckInfoSchema(document, false);
    EXPECT_EQ(document["file"], container);
    EXPECT_EQ(document["file_size"], testsupport::ReadBytes(container).size());
    EXPECT_EQ(document["header"]["offset"], 0);
    EXPECT_EQ(document["header"]["version"], 4);
    EXPECT_EQ(document["header"]["signature_length"], 256);
    EXPECT_EQ(document["header"]["table_size"], 3 * 540);
    EXPECT_EQ(document["header"]["digest_length"], 64);
    EXPECT_EQ(document["header"]["hash"], "sha512");
    EXPECT_EQ(document["payload"]["offset"], BLOCK);
    size_t offset = 0;
    for (size_t i = 0; i < parts.size(); ++i) {
        const Json& component = document["components"][i];
        EXPECT_EQ(component["name"], parts[i].first);
        EXPECT_EQ(component["offset"], offset);
        EXPECT_EQ(component["size"], parts[i].second.size());
        EXPECT_EQ(component["inside_file"], true);
        EXPECT_EQ(component["signature_length"], 256);
        offset += parts[i].second.size();
    }
    EXPECT_EQ(document["payload"]["length"], offset);
}

TEST(Info, SignatureFingerprintIsTheSha256OfTheSignatureBytes)
{
    TempDir dir;
    const std::string container = Build(dir, SomeComponents(1));
    const Json document = Parse(RunMarkforge({"info", container, "--json"}));
    const std::string signature = testsupport::ReadFile(container).substr(12, 256);
    const std::string sum = testsupport::Openssl({"dgst", "-sha256", "-r"}, &signature).out.substr(0, 64);
    EXPECT_EQ(document["header"]["signature_fingerprint"], sum);
    // One component: the archive signature is that component's.
    EXPECT_EQ(document["components"][0]["signature_fingerprint"], sum);
}

TEST(Info, KeyringNamesTheSignerAmongThree)
{
    TempDir dir;
    const std::string ring = MakeKeyring(dir);
    const struct {
        const char* key;
        const char* file;
    } cases[] = {{"a", "a.pem"}, {"b", "b.markforge"}, {"c", "c.raw"}};
    for (const auto& signer : cases) {
        const std::string container = Build(dir, SomeComponents(2), "sha256", signer.key, std::string(signer.key) + ".bin");
        const ProcessResult r = RunMarkforge({"info", container, "--keyring", ring, "--json"});
        EXPECT_EQ(r.status, 0) << r.err;
        const Json document = Parse(r);
        CheckInfoSchema(document, true);
        const std::string fingerprint = OpensslFingerprint(PublicKey(signer.key));
        EXPECT_EQ(document["header"]["signer"]["file"], signer.file);
        EXPECT_EQ(document["header"]["signer"]["fingerprint"], fingerprint);
        for (const Json& component : document["components"]) {
            EXPECT_EQ(component["signer"]["file"], signer.file);
            EXPECT_EQ(component["signer"]["fingerprint"], fingerprint);
        }
        EXPECT_EQ(document["keyring"]["keys"].size(), 3u);
        EXPECT_EQ(document["keyring"]["skipped"], Json::array({"README"}));
    }
}

TEST(Info, KeyringSaysNoKeyForAFourthSigner)
{
    TempDir dir;
    const std::string ring = MakeKeyring(dir);
    const std::string container = Build(dir, SomeComponents(2), "sha256", "d");
    const Json document = Parse(RunMarkforge({"info", container, "--keyring", ring, "--json"}));
    CheckInfoSchema(document, true);
    EXPECT_TRUE(document["header"]["signer"].is_null());
    for (const Json& component : document["components"]) EXPECT_TRUE(component["signer"].is_null());

    const ProcessResult text = RunMarkforge({"info", container, "--keyring", ring});
    EXPECT_EQ(text.status, 0);
    EXPECT_NE(text.out.find("signed by:        no key in the keyring verifies it\n"), std::string::npos) << text.out;
}

TEST(Info, TextNamesTheSignerAndItsFingerprint)
{
    TempDir dir;
    const std::string ring = MakeKeyring(dir);
    const std::string container = Build(dir, SomeComponents(1), "sha256", "a");
    const ProcessResult r = RunMarkforge({"info", container, "--keyring", ring});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    const std::string named = "a.pem (key SHA-256 " + OpensslFingerprint(PublicKey("a")) + ")";
    EXPECT_NE(r.out.find("signed by:        " + named + "\n"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("    signed by: " + named + "\n"), std::string::npos) << r.out;
}

TEST(Info, TextReportsTheLayout)
{
    TempDir dir;
    const Components parts = SomeComponents(2);
    const std::string container = Build(dir, parts, "sha384");
    const ProcessResult r = RunMarkforge({"info", container});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    const size_t total = BLOCK + parts[0].second.size() + parts[1].second.size();
    EXPECT_EQ(r.out.rfind("file:             " + container + " (" + std::to_string(total) + " bytes)\n"
                          "header block:     at byte 0, version 4\n"
                          "signature:        256 bytes, SHA-256 ",
                          0),
              0u)
        << r.out;
    EXPECT_NE(r.out.find("digest length:    48 (SHA-384)\n"
                         "payload:          at byte 4096, " + std::to_string(total - BLOCK) + " bytes\n"
                         "components:       2\n"
                         "  0 part0: offset 0, size 1000, signature 256 bytes, SHA-256 "),
              std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find("  1 part1: offset 1000, size 1777, signature 256 bytes"), std::string::npos) << r.out;
}

TEST(Info, ComponentPastTheEndIsMarked)
{
    TempDir dir;
    const Components parts = SomeComponents(2);
    const std::string container = Build(dir, parts);
    Truncate(container, BLOCK + 5);
    const ProcessResult r = RunMarkforge({"info", container, "--json"});
    EXPECT_EQ(r.status, 0);
    const Json document = Parse(r);
    EXPECT_EQ(document["components"][0]["inside_file"], false);
    EXPECT_EQ(document["components"][1]["inside_file"], false);
    EXPECT_EQ(document["payload"]["length"], 5);
}

TEST(Info, MissingKeyringFolderIsAFileSystemError)
{
    TempDir dir;
    const std::string container = Build(dir, SomeComponents(1));
    const ProcessResult r = RunMarkforge({"info", container, "--keyring", dir.file("absent")});
    EXPECT_EQ(r.status, 4);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err.rfind("markforge: cannot read key folder " + dir.file("absent"), 0), 0u) << r.err;
}

TEST(Info, NoFileIsAUsageError)
{
    const ProcessResult r = RunMarkforge({"info"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.out, "");
}

TEST(Info, HelpListsTheExitStatuses)
{
    // Each lists what it can end with: only verify finds problems.
    for (const char* command : {"info", "verify", "extract"}) {
        const ProcessResult r = RunMarkforge({command, "--help"});
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(r.out.find("1  verify found at least one problem") != std::string::npos,
                  std::string(command) == "verify")
            << r.out;
        EXPECT_NE(r.out.find("3  an input is unreadable or malformed"), std::string::npos) << r.out;
    }
}

}  // namespace
