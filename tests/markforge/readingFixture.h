// Shared by the tests of markforge info, verify and extract: development keys
// made once per test program, containers built by the real `markforge build`,
// byte edits of a built file, and the JSON output parsed.
#pragma once

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "keyCache.h"
#include "testSupport.h"

namespace readingtest {

using testsupport::ProcessResult;
using testsupport::TempDir;
using Bytes = std::vector<uint8_t>;
using Json = nlohmann::ordered_json;

// One folder of keys for the whole program, each made on first use as
// NAME.markforge (private) and NAME.pem (public).
inline const TempDir& Keys()
{
    static const TempDir keys;
    return keys;
}

// Makes key `name` unless it exists; returns the folder.
inline const std::string& EnsureKey(const std::string& name)
{
    const TempDir& keys = Keys();
    if (!testsupport::FileExists(keys.file(name + ".pem"))) {
        std::string error;
        EXPECT_TRUE(
            testsupport::CopyCachedKey(name, 2048, keys.file(name + ".markforge"), keys.file(name + ".pem"), error))
            << error;
    }
    return keys.path();
}

inline std::string PublicKey(const std::string& name)
{
    EnsureKey(name);
    return Keys().file(name + ".pem");
}

// Random-looking but fixed bytes, told apart by `seed`.
inline Bytes Content(size_t size, uint32_t seed)
{
    return testsupport::SeededBytes(size, seed);
}

using Components = std::vector<std::pair<std::string, Bytes>>;

// Components part0, part1, ... of distinct sizes.
inline Components SomeComponents(size_t count)
{
    Components parts;
    for (size_t i = 0; i < count; ++i)
        parts.push_back({"part" + std::to_string(i), Content(1000 + 777 * i, uint32_t(i + 1))});
    return parts;
}

// Builds `dir`/`name` with `markforge build`, signed by key `key`.
inline std::string Build(const TempDir& dir, const Components& parts, const std::string& hash = "sha256",
                         const std::string& key = "k", const std::string& name = "container.bin")
{
    std::vector<std::string> args{"build",  "-o",        dir.file(name),      "--key", key, "--mode",
                                  "development", "--key-dir", EnsureKey(key), "--hash", hash};
    if (parts.empty()) args.push_back("--allow-empty");
    for (const auto& part : parts) {
        const std::string path = dir.file("in-" + part.first);
        testsupport::WriteBytes(path, part.second);
        args.push_back(part.first + "=" + path);
    }
    const ProcessResult r = testsupport::RunMarkforge(args);
    EXPECT_EQ(r.status, 0) << r.err;
    return dir.file(name);
}

inline ProcessResult Verify(const std::string& container, const std::string& key = "k", bool json = true)
{
    std::vector<std::string> args{"verify", container, "--key", PublicKey(key)};
    if (json) args.push_back("--json");
    return testsupport::RunMarkforge(args);
}

// Parses standard output as one JSON document; fails the test when it is not.
inline Json Parse(const ProcessResult& r)
{
    Json document;
    try {
        document = Json::parse(r.out);
    } catch (const nlohmann::json::exception& e) {
        ADD_FAILURE() << "not JSON: " << e.what() << "\n" << r.out;
    }
    return document;
}

// Runs verify with key k expecting exit 1 (a problem found); returns the
// document, its schema checked.
inline Json VerifyWithProblems(const std::string& container, const std::string& key = "k");

// The verdicts of a verify document: each component's, then the archive's.
inline std::vector<std::string> Verdicts(const Json& document)
{
    std::vector<std::string> verdicts;
    if (!document.contains("components") || !document.contains("archive")) return verdicts;
    for (const Json& component : document["components"]) verdicts.push_back(component.value("verdict", ""));
    verdicts.push_back(document["archive"].value("verdict", ""));
    return verdicts;
}

inline std::vector<std::string> Repeat(const std::string& verdict, size_t count)
{
    return std::vector<std::string>(count, verdict);
}

// The keys of `object`, in document order.
inline std::vector<std::string> KeysOf(const Json& object)
{
    std::vector<std::string> keys;
    for (auto it = object.begin(); it != object.end(); ++it) keys.push_back(it.key());
    return keys;
}

inline bool IsLowerHex(const Json& value, size_t bytes)
{
    if (!value.is_string()) return false;
    const std::string text = value.get<std::string>();
    return text.size() == 2 * bytes && text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

// The file with one byte changed.
inline void FlipByte(const std::string& path, size_t at)
{
    Bytes bytes = testsupport::ReadBytes(path);
    bytes.at(at) ^= 0x5A;
    testsupport::WriteBytes(path, bytes);
}

inline void Truncate(const std::string& path, size_t size)
{
    Bytes bytes = testsupport::ReadBytes(path);
    bytes.resize(size);
    testsupport::WriteBytes(path, bytes);
}

}  // namespace readingtest

namespace readingtest {

inline const std::vector<std::string> VERDICTS{"ok", "digest-mismatch", "bad-signature", "outside-file"};

// The "header" object both documents share.
inline void CheckHeaderSchema(const Json& header)
{
    ASSERT_TRUE(header.is_object());
    const std::vector<std::string> keys = KeysOf(header);
    const std::vector<std::string> first{"offset", "version", "signature_length", "signature_fingerprint",
                                         "table_size", "digest_length", "hash"};
    EXPECT_EQ(std::vector<std::string>(keys.begin(), keys.begin() + std::min(keys.size(), first.size())), first);
    EXPECT_TRUE(header["offset"].is_number_unsigned());
    EXPECT_TRUE(header["version"].is_number_unsigned());
    EXPECT_TRUE(header["signature_length"].is_number_unsigned());
    EXPECT_TRUE(IsLowerHex(header["signature_fingerprint"], 32));
    EXPECT_TRUE(header["table_size"].is_number_unsigned());
    EXPECT_TRUE(header["digest_length"].is_number_unsigned());
    EXPECT_TRUE(header["hash"].is_null() || header["hash"] == "sha256" || header["hash"] == "sha384" ||
                header["hash"] == "sha512");
}

// A component's name and its encoding: text when printable, else hex.
inline void CheckNameSchema(const Json& component)
{
    ASSERT_TRUE(component["name"].is_string());
    ASSERT_TRUE(component["name_encoding"] == "text" || component["name_encoding"] == "hex");
    if (component["name_encoding"] == "hex") {
        EXPECT_TRUE(IsLowerHex(component["name"], component["name"].get<std::string>().size() / 2));
    }
}

inline void CheckDigestField(const Json& digest, size_t bytes)
{
    EXPECT_TRUE(digest.is_null() || IsLowerHex(digest, bytes)) << digest;
}

inline const std::vector<std::string> LAYOUT_KINDS{"gap", "overlap", "out-of-order", "trailing-bytes",
                                                   "duplicate-name"};

// The "layout" array both documents carry.
inline void CheckLayoutSchema(const Json& layout)
{
    ASSERT_TRUE(layout.is_array());
    for (const Json& finding : layout) {
        EXPECT_EQ(KeysOf(finding), (std::vector<std::string>{"kind", "start", "end", "components", "text"}));
        EXPECT_NE(std::find(LAYOUT_KINDS.begin(), LAYOUT_KINDS.end(), finding["kind"]), LAYOUT_KINDS.end());
        const bool ranged = finding["kind"] != "duplicate-name";
        EXPECT_EQ(finding["start"].is_number_unsigned(), ranged);
        EXPECT_EQ(finding["end"].is_number_unsigned(), ranged);
        EXPECT_TRUE(finding["components"].is_array());
        EXPECT_TRUE(finding["text"].is_string());
    }
}

// The "table" object both documents carry; verify's has "required" too.
inline void CheckTableSchema(const Json& table, bool verify)
{
    ASSERT_TRUE(table.is_object());
    std::vector<std::string> keys{"present", "component", "state", "entries", "findings"};
    if (verify) keys.push_back("required");
    EXPECT_EQ(KeysOf(table), keys);
    EXPECT_TRUE(table["present"].is_boolean());
    EXPECT_EQ(table["component"].is_null(), table["present"] == false);
    EXPECT_TRUE(table["state"] == "absent" || table["state"] == "ok" || table["state"] == "malformed" ||
                table["state"] == "mismatch");
    for (const Json& entry : table["entries"]) {
        EXPECT_EQ(KeysOf(entry), (std::vector<std::string>{"index", "name", "name_encoding", "offset", "size", "hash",
                                                            "digest"}));
        CheckNameSchema(entry);
    }
    EXPECT_TRUE(table["findings"].is_array());
}

// Every field of a verify document, in order and of its type.
inline void CheckVerifySchema(const Json& document)
{
    ASSERT_TRUE(document.is_object());
    EXPECT_EQ(KeysOf(document),
              (std::vector<std::string>{"schema", "command", "file", "file_size", "key", "header", "components",
                                        "archive", "problems", "bytes_before_header", "layout", "table",
                                        "names_signed", "keyring"}));
    EXPECT_EQ(document["schema"], 1);
    EXPECT_EQ(document["command"], "verify");
    EXPECT_TRUE(document["file"].is_string());
    EXPECT_TRUE(document["file_size"].is_number_unsigned());
    EXPECT_EQ(KeysOf(document["key"]), (std::vector<std::string>{"file", "fingerprint"}));
    EXPECT_TRUE(IsLowerHex(document["key"]["fingerprint"], 32));
    CheckHeaderSchema(document["header"]);
    const size_t digestBytes = document["header"]["digest_length"].get<size_t>();
    ASSERT_TRUE(document["components"].is_array());
    size_t problems = 0;
    for (size_t i = 0; i < document["components"].size(); ++i) {
        const Json& component = document["components"][i];
        EXPECT_EQ(KeysOf(component), (std::vector<std::string>{"index", "name", "name_encoding", "offset", "size",
                                                                "digest", "verdict"}));
        EXPECT_EQ(component["index"], i);
        CheckNameSchema(component);
        EXPECT_TRUE(component["offset"].is_number_unsigned());
        EXPECT_TRUE(component["size"].is_number_unsigned());
        CheckDigestField(component["digest"], digestBytes);
        EXPECT_EQ(component["digest"].is_null(), component["verdict"] == "outside-file");
        EXPECT_NE(std::find(VERDICTS.begin(), VERDICTS.end(), component["verdict"]), VERDICTS.end());
        if (component["verdict"] != "ok") ++problems;
    }
    EXPECT_EQ(KeysOf(document["archive"]), (std::vector<std::string>{"digest", "verdict"}));
    CheckDigestField(document["archive"]["digest"], digestBytes);
    EXPECT_NE(std::find(VERDICTS.begin(), VERDICTS.end(), document["archive"]["verdict"]), VERDICTS.end());
    if (document["archive"]["verdict"] != "ok") ++problems;
    CheckLayoutSchema(document["layout"]);
    CheckTableSchema(document["table"], true);
    problems += document["layout"].size() + document["table"]["findings"].size();
    if (document["table"]["required"] == true && document["table"]["present"] == false) ++problems;
    EXPECT_EQ(document["problems"], problems);
    EXPECT_TRUE(document["bytes_before_header"].is_number_unsigned());
    EXPECT_TRUE(document["names_signed"].is_boolean());
}

// Where record `index`'s signature field starts in a block at byte 0 with an
// S-byte header signature.
inline size_t RecordSignatureAt(size_t signatureSize, size_t index)
{
    return 16 + signatureSize + 540 * index + 28;
}

inline size_t RecordNameAt(size_t signatureSize, size_t index)
{
    return 16 + signatureSize + 540 * index + 8;
}

}  // namespace readingtest

namespace readingtest {

inline Json VerifyWithProblems(const std::string& container, const std::string& key)
{
    const ProcessResult r = Verify(container, key);
    EXPECT_EQ(r.status, 1) << r.err;
    const Json document = Parse(r);
    CheckVerifySchema(document);
    return document;
}

}  // namespace readingtest
