// markforge::signingRequests: the requests file of an offline build (REQ.json).
// It lists every signature a container needs, each with the exact value the
// key must sign, and binds them to the unsigned container by its SHA-256, so
// that signatures made on another machine attach to that file and no other.
// docs/json.md describes the document.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace markforge {

struct signingRequest {
    std::string fieldF;               // the component's name, or "archive"
    std::vector<uint8_t> digest;      // of the component's bytes (the archive's: of the whole payload)
    std::vector<uint8_t> toSign;      // what the key signs: the digest of the digest's upper-case hex text

    // The signature's file in the signatures folder: NAME.sig.
    std::string FileName() const { return fieldF + ".sig"; }
};

struct signingRequests {
    static constexpr int SCHEMA = 1;
    // A requests file larger than this is not one: 8 requests of a few
    // hundred bytes and a 4096-bit key's PEM text fit many times over.
    static constexpr size_t MAX_BYTES = 256 * 1024;

    std::string keyName;
    std::string publicKeyPem;             // the key's public half, PEM "PUBLIC KEY"
    std::vector<uint8_t> keyFingerprint;  // SHA-256 of its DER SubjectPublicKeyInfo
    uint32_t modulusBits = 0;
    uint32_t hashId = 3;                  // 3 SHA-256, 5 SHA-384, 4 SHA-512
    std::vector<uint8_t> imageSha256;     // SHA-256 of the whole unsigned container file
    std::vector<signingRequest> requests; // the components in record order, then the archive

    // Whether a component name can name its signature file and stand in the
    // document as text: printable ASCII without blanks or '/'.
    static bool NameFitsFile(const std::string& name);

    std::string Encode() const;
    // Reads `text` into `out`. False, with a one-line reason, unless it is
    // a complete document of this schema that holds together: the key's
    // PEM text and fingerprint agree, every value to sign is the one its
    // digest gives, names are distinct and fit a file.
    static bool Decode(const std::string& text, signingRequests& out, std::string& reason);
};

}  // namespace markforge
