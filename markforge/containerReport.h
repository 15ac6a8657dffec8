// markforge::containerReport: what info and verify print, as text for a
// person or as one JSON document ({"schema": 1, ...}, keys in a fixed order).
#pragma once

#include <nlohmann/json.hpp>

#include <ostream>
#include <string>

#include "containerReader.h"
#include "containerVerifier.h"
#include "keyring.h"
#include "recordLayout.h"
#include "tableCheck.h"

namespace markforge {

class containerReport {
public:
    static constexpr int SCHEMA = 1;

    // `path` is the container as named on the command line.
    containerReport(const std::string& path, const containerContents& contents);

    // info; `signers` may be nullptr (no --keyring); `table` as read from
    // the file, digests aside.
    nlohmann::ordered_json InfoDocument(const keyring* signers, const tableReport& table) const;
    void WriteInfoText(std::ostream& out, const keyring* signers, const tableReport& table) const;

    // verify, under the key read from `keyPath`; `signers` is the keyring
    // it was taken from (verify --keyring), or nullptr (verify --key).
    nlohmann::ordered_json VerifyDocument(const std::string& keyPath, const publicKey& key,
                                          const verifyResult& result, const keyring* signers = nullptr) const;
    // `signedBy`, when not empty, is the keyring's key that verify used.
    void WriteVerifyText(std::ostream& out, const verifyResult& result, const std::string& signedBy = "") const;
    // verify --keyring when no key of `signers` made any of the signatures.
    nlohmann::ordered_json NoSignerDocument(const keyring& signers) const;

    // One line for a person on a layout finding.
    std::string LayoutText(const layoutFinding& finding) const;

    // The document as text: valid UTF-8 whatever the paths hold, one newline
    // at the end.
    static std::string JsonText(const nlohmann::ordered_json& document);
    // A name as text when every byte is printable ASCII, otherwise as hex.
    static bool IsPrintable(const std::string& bytes);
    static std::string Hex(const std::vector<uint8_t>& bytes);

    // A keyring's key as the reports name it: "FILE (key SHA-256 HEX)".
    static std::string KeyText(const keyringEntry& key);

private:
    nlohmann::ordered_json Preamble(const char* command) const;
    nlohmann::ordered_json HeaderFields() const;
    void AddName(nlohmann::ordered_json& object, const std::string& name) const;
    // The fields every listing of a component starts with: index, name,
    // its encoding, offset and size.
    nlohmann::ordered_json PlacedEntry(uint32_t index, const std::string& name, uint32_t offset, uint32_t size) const;
    static nlohmann::ordered_json KeyringField(const keyring& signers);
    static nlohmann::ordered_json SignerField(const keyring& signers, const std::vector<uint8_t>& signature);
    static std::string SignerText(const keyring& signers, const std::vector<uint8_t>& signature);
    static std::string ShownName(const std::string& name);
    std::string ComponentText(uint32_t index) const;
    nlohmann::ordered_json LayoutField(const std::vector<layoutFinding>& findings) const;
    nlohmann::ordered_json TableField(const tableReport& table) const;
    void WriteLayoutText(std::ostream& out, const std::vector<layoutFinding>& findings) const;
    void WriteTableText(std::ostream& out, const tableReport& table, bool required) const;
    void WriteLeadingBytesText(std::ostream& out) const;

    std::string _path;
    const containerContents& _contents;
};

}  // namespace markforge
