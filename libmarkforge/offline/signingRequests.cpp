// markforge::signingRequests: REQ.json written and read back, strictly.
#include "signingRequests.h"

#include <nlohmann/json.hpp>

#include <set>

#include "digestStream.h"
#include "hexText.h"
#include "publicKey.h"

namespace markforge {
namespace {

using json = nlohmann::ordered_json;

constexpr const char* DOCUMENT = "markforge-signing-requests";

// Lower-case hex of exactly `length` bytes into `out`.
bool HexOfLength(const std::string& text, size_t length, std::vector<uint8_t>& out)
{
    if (text.size() != 2 * length) return false;
    out.assign(length, 0);
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        int value;
        if (c >= '0' && c <= '9')
            value = c - '0';
        else if (c >= 'a' && c <= 'f')
            value = c - 'a' + 10;
        else
            return false;
        out[i / 2] = static_cast<uint8_t>(out[i / 2] << 4 | value);
    }
    return true;
}

// The member `key` of `object` when it has the JSON type `type`.
const json* Member(const json& object, const char* key, json::value_t type)
{
    const auto found = object.find(key);
    if (found == object.end() || found->type() != type) return nullptr;
    return &*found;
}

bool Text(const json& object, const char* key, std::string& out)
{
    const json* value = Member(object, key, json::value_t::string);
    if (value) out = value->get<std::string>();
    return value != nullptr;
}

bool Hex(const json& object, const char* key, size_t length, std::vector<uint8_t>& out)
{
    std::string text;
    return Text(object, key, text) && HexOfLength(text, length, out);
}

// Reads one request; the hash it names goes to `hashId`.
bool DecodeRequest(const json& item, signingRequest& request, uint32_t& hashId, std::string& reason)
{
    std::string hash;
    std::string file;
    if (!item.is_object() || !Text(item, "field_f", request.fieldF) || !Text(item, "hash", hash)) {
        reason = "a request lacks its field_f or hash";
        return false;
    }
    hashId = digestStream::IdOfWord(hash);
    if (digestStream::WordOf(hashId) != hash) {
        reason = "request " + request.fieldF + " names the hash '" + hash + "', not sha256, sha384 or sha512";
        return false;
    }
    const size_t length = digestStream::LengthOf(hashId);
    if (!Hex(item, "digest", length, request.digest) || !Hex(item, "to_sign", length, request.toSign)) {
        reason = "request " + request.fieldF + " has no " + std::to_string(length) +
                 "-byte lower-case hex digest and to_sign";
        return false;
    }
    if (request.toSign != SignedDigestOf(hashId, request.digest)) {
        reason = "request " + request.fieldF + ": to_sign is not the value its digest gives";
        return false;
    }
    if (!Text(item, "signature_file", file) || file != request.FileName()) {
        reason = "request " + request.fieldF + ": signature_file is not " + request.FileName();
        return false;
    }
    return true;
}

bool DecodeKey(const json& key, signingRequests& out, std::string& reason)
{
    const json* bits = Member(key, "modulus_bits", json::value_t::number_unsigned);
    if (!Text(key, "name", out.keyName) || !Text(key, "public_key", out.publicKeyPem) || !bits ||
        !Hex(key, "fingerprint", 32, out.keyFingerprint)) {
        reason = "the key object lacks its name, modulus_bits, fingerprint or public_key";
        return false;
    }
    publicKey parsed;
    std::string why;
    if (!parsed.LoadBytes(out.publicKeyPem, why) || parsed.PemText() != out.publicKeyPem) {
        reason = "the key's public_key is not one PEM public key";
        return false;
    }
    if (parsed.Fingerprint() != out.keyFingerprint || bits->get<uint64_t>() != parsed.ModulusBytes() * 8) {
        reason = "the key's fingerprint or modulus_bits is not its public_key's";
        return false;
    }
    out.modulusBits = static_cast<uint32_t>(parsed.ModulusBytes() * 8);
    return true;
}

bool DecodeDocument(const json& document, signingRequests& out, std::string& reason)
{
    const json* schema = Member(document, "schema", json::value_t::number_unsigned);
    std::string kind;
    if (!schema || !Text(document, "document", kind) || kind != DOCUMENT) {
        reason = "it is not a markforge signing-requests document";
        return false;
    }
    if (schema->get<uint64_t>() != signingRequests::SCHEMA) {
        reason = "its schema is " + schema->dump() + "; this markforge reads schema " +
                 std::to_string(signingRequests::SCHEMA);
        return false;
    }
    const json* key = Member(document, "key", json::value_t::object);
    const json* requests = Member(document, "requests", json::value_t::array);
    if (!Hex(document, "image_sha256", 32, out.imageSha256) || !key || !requests || requests->empty()) {
        reason = "it lacks image_sha256, key or a non-empty requests array";
        return false;
    }
    if (!DecodeKey(*key, out, reason)) return false;
    std::set<std::string> names;
    for (size_t i = 0; i < requests->size(); ++i) {
        signingRequest request;
        uint32_t hashId = 0;
        if (!DecodeRequest((*requests)[i], request, hashId, reason)) return false;
        if (i > 0 && hashId != out.hashId) {
            reason = "request " + request.fieldF + " names another hash than the first";
            return false;
        }
        if (!signingRequests::NameFitsFile(request.fieldF) || !names.insert(request.fieldF).second) {
            reason = "request names must be distinct printable names without blanks or '/'";
            return false;
        }
        out.hashId = hashId;
        out.requests.push_back(std::move(request));
    }
    return true;
}

}  // namespace

bool signingRequests::NameFitsFile(const std::string& name)
{
    if (name.empty()) return false;
    for (char c : name)
        if (c <= ' ' || c >= 0x7f || c == '/') return false;
    return true;
}

std::string signingRequests::Encode() const
{
    json document;
    document["schema"] = SCHEMA;
    document["document"] = DOCUMENT;
    document["image_sha256"] = LowerHex(imageSha256);
    json& key = document["key"];
    key["name"] = keyName;
    key["modulus_bits"] = modulusBits;
    key["fingerprint"] = LowerHex(keyFingerprint);
    key["public_key"] = publicKeyPem;
    json& list = document["requests"] = json::array();
    for (const signingRequest& request : requests) {
        json item;
        item["field_f"] = request.fieldF;
        item["signature_file"] = request.FileName();
        item["hash"] = digestStream::WordOf(hashId);
        item["digest"] = LowerHex(request.digest);
        item["to_sign"] = LowerHex(request.toSign);
        list.push_back(std::move(item));
    }
    return document.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
}

bool signingRequests::Decode(const std::string& text, signingRequests& out, std::string& reason)
{
    out = signingRequests();
    if (text.size() > MAX_BYTES) {
        reason = "it is larger than " + std::to_string(MAX_BYTES) + " bytes";
        return false;
    }
    const json document = json::parse(text, nullptr, false);
    if (document.is_discarded() || !document.is_object()) {
        reason = "it is not a JSON object";
        return false;
    }
    if (DecodeDocument(document, out, reason)) return true;
    out = signingRequests();
    return false;
}

}  // namespace markforge
