// markforge::containerReport: the info and verify documents and their text.
#include "containerReport.h"

#include "digestStream.h"
#include "hexText.h"

namespace markforge {
namespace {

std::vector<uint8_t> Sha256Of(const std::vector<uint8_t>& bytes)
{
    return digestStream::Of(digestStream::KeptId(0), bytes.data(), bytes.size());
}

// "sha256", "sha384", "sha512", or nullptr when the digest length names none.
const char* HashWord(uint32_t hashId)
{
    return hashId ? digestStream::WordOf(hashId) : nullptr;
}

// A half-open range of payload bytes for a person.
std::string RangeText(uint64_t start, uint64_t end)
{
    if (end <= start) return "payload offset " + std::to_string(start);
    return "payload bytes " + std::to_string(start) + " to " + std::to_string(end - 1) + " (" +
           std::to_string(end - start) + (end - start == 1 ? " byte)" : " bytes)");
}

}  // namespace

containerReport::containerReport(const std::string& path, const containerContents& contents)
    : _path(path), _contents(contents)
{
}

std::string containerReport::Hex(const std::vector<uint8_t>& bytes)
{
    return LowerHex(bytes);
}

bool containerReport::IsPrintable(const std::string& bytes)
{
    for (unsigned char c : bytes)
        if (c < 0x20 || c > 0x7E) return false;
    return true;
}

std::string containerReport::ShownName(const std::string& name)
{
    return IsPrintable(name) ? name : "hex:" + Hex(std::vector<uint8_t>(name.begin(), name.end()));
}

std::string containerReport::JsonText(const nlohmann::ordered_json& document)
{
    return document.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

void containerReport::AddName(nlohmann::ordered_json& object, const std::string& name) const
{
    const bool text = IsPrintable(name);
    object["name"] = text ? name : Hex(std::vector<uint8_t>(name.begin(), name.end()));
    object["name_encoding"] = text ? "text" : "hex";
}

nlohmann::ordered_json containerReport::PlacedEntry(uint32_t index, const std::string& name, uint32_t offset,
                                                   uint32_t size) const
{
    nlohmann::ordered_json entry;
    entry["index"] = index;
    AddName(entry, name);
    entry["offset"] = offset;
    entry["size"] = size;
    return entry;
}

nlohmann::ordered_json containerReport::Preamble(const char* command) const
{
    nlohmann::ordered_json document;
    document["schema"] = SCHEMA;
    document["command"] = command;
    document["file"] = _path;
    document["file_size"] = _contents.fileSize;
    return document;
}

nlohmann::ordered_json containerReport::HeaderFields() const
{
    nlohmann::ordered_json header;
    header["offset"] = _contents.headerOffset;
    header["version"] = _contents.version;
    header["signature_length"] = _contents.signatureLength;
    header["signature_fingerprint"] = Hex(Sha256Of(_contents.signature));
    header["table_size"] = _contents.tableSize;
    header["digest_length"] = _contents.digestLength;
    const char* hash = HashWord(_contents.hashId);
    header["hash"] = hash ? nlohmann::ordered_json(hash) : nlohmann::ordered_json(nullptr);
    return header;
}

nlohmann::ordered_json containerReport::KeyringField(const keyring& signers)
{
    nlohmann::ordered_json keys = nlohmann::ordered_json::array();
    for (const keyringEntry& entry : signers.Entries())
        keys.push_back({{"file", entry.file}, {"fingerprint", Hex(entry.fingerprint)}});
    return {{"keys", keys}, {"skipped", signers.Skipped()}};
}

nlohmann::ordered_json containerReport::SignerField(const keyring& signers, const std::vector<uint8_t>& signature)
{
    const keyringEntry* signer = signers.SignerOf(signature);
    if (!signer) return nullptr;
    nlohmann::ordered_json field;
    field["file"] = signer->file;
    field["fingerprint"] = Hex(signer->fingerprint);
    return field;
}

std::string containerReport::SignerText(const keyring& signers, const std::vector<uint8_t>& signature)
{
    const keyringEntry* signer = signers.SignerOf(signature);
    if (!signer) return "no key in the keyring verifies it";
    return KeyText(*signer);
}

std::string containerReport::KeyText(const keyringEntry& key)
{
    return key.file + " (key SHA-256 " + Hex(key.fingerprint) + ")";
}

std::string containerReport::ComponentText(uint32_t index) const
{
    return "component " + std::to_string(index) + " '" + ShownName(_contents.components.at(index).name) + "'";
}

std::string containerReport::LayoutText(const layoutFinding& finding) const
{
    const std::vector<uint32_t>& at = finding.components;
    const std::string range = RangeText(finding.start, finding.end);
    switch (finding.what) {
    case layoutFinding::kind::gap:
        return range + (at.size() == 1 ? " before " + ComponentText(at[0])
                                       : " between " + ComponentText(at[0]) + " and " + ComponentText(at[1])) +
               " are covered by no record";
    case layoutFinding::kind::overlap:
        return ComponentText(at[1]) + " starts inside " + ComponentText(at[0]) + ": " + range + " are in both";
    case layoutFinding::kind::outOfOrder:
        return ComponentText(at[1]) + " (" + range + ") lies before " + ComponentText(at[0]) +
               ", against the order of the records";
    case layoutFinding::kind::trailingBytes:
        return range + (at.empty() ? " in a container without components" : " after the last component") +
               " are covered by no record";
    case layoutFinding::kind::duplicateName:
        return ComponentText(at[0]) + " and " + ComponentText(at[1]) + " have the same name";
    }
    return "";
}

nlohmann::ordered_json containerReport::LayoutField(const std::vector<layoutFinding>& findings) const
{
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    for (const layoutFinding& finding : findings) {
        nlohmann::ordered_json entry;
        entry["kind"] = LayoutKindName(finding.what);
        const bool ranged = finding.what != layoutFinding::kind::duplicateName;
        entry["start"] = ranged ? nlohmann::ordered_json(finding.start) : nlohmann::ordered_json(nullptr);
        entry["end"] = ranged ? nlohmann::ordered_json(finding.end) : nlohmann::ordered_json(nullptr);
        entry["components"] = finding.components;
        entry["text"] = LayoutText(finding);
        list.push_back(entry);
    }
    return list;
}

nlohmann::ordered_json containerReport::TableField(const tableReport& table) const
{
    nlohmann::ordered_json field;
    field["present"] = table.present;
    field["component"] = table.present ? nlohmann::ordered_json(table.record) : nlohmann::ordered_json(nullptr);
    field["state"] = table.State();
    nlohmann::ordered_json entries = nlohmann::ordered_json::array();
    for (const tableEntry& listed : table.entries) {
        nlohmann::ordered_json entry = PlacedEntry(listed.index, listed.name, listed.offset, listed.size);
        const char* hash = HashWord(digestStream::IdForLength(listed.digest.size()));
        entry["hash"] = hash ? nlohmann::ordered_json(hash) : nlohmann::ordered_json(nullptr);
        entry["digest"] = Hex(listed.digest);
        entries.push_back(entry);
    }
    field["entries"] = entries;
    field["findings"] = table.findings;
    return field;
}

void containerReport::WriteLayoutText(std::ostream& out, const std::vector<layoutFinding>& findings) const
{
    if (findings.empty())
        out << "layout: ok: the records cover the " << _contents.payloadLength << " payload bytes exactly\n";
    for (const layoutFinding& finding : findings)
        out << "layout: " << LayoutKindName(finding.what) << ": " << LayoutText(finding) << "\n";
}

void containerReport::WriteTableText(std::ostream& out, const tableReport& table, bool required) const
{
    if (!table.present) {
        out << "table: absent: the names and order of this container's components are not signed"
            << (required ? " (--require-table)" : "") << "\n";
        return;
    }
    if (table.Holds()) {
        out << "table: ok: " << ComponentText(table.record) << " lists the name, place, size and digest of "
            << table.entries.size() << (table.entries.size() == 1 ? " component\n" : " components\n");
        return;
    }
    for (const std::string& finding : table.findings) out << "table: " << table.State() << ": " << finding << "\n";
}

void containerReport::WriteLeadingBytesText(std::ostream& out) const
{
    if (_contents.headerOffset > 0)
        out << "note: the " << _contents.headerOffset
            << " bytes before the header block are not part of the container; no signature covers them\n";
}

nlohmann::ordered_json containerReport::InfoDocument(const keyring* signers, const tableReport& table) const
{
    nlohmann::ordered_json document = Preamble("info");
    nlohmann::ordered_json header = HeaderFields();
    if (signers) header["signer"] = SignerField(*signers, _contents.signature);
    document["header"] = header;
    document["payload"] = {{"offset", _contents.payloadOffset}, {"length", _contents.payloadLength}};
    nlohmann::ordered_json components = nlohmann::ordered_json::array();
    for (const componentEntry& component : _contents.components) {
        nlohmann::ordered_json entry = PlacedEntry(component.index, component.name, component.offset, component.size);
        entry["inside_file"] = component.insideFile;
        entry["signature_length"] = component.signatureLength;
        entry["signature_fingerprint"] = Hex(Sha256Of(component.signature));
        if (signers) entry["signer"] = SignerField(*signers, component.signature);
        components.push_back(entry);
    }
    document["components"] = components;
    if (signers) document["keyring"] = KeyringField(*signers);
    document["bytes_before_header"] = _contents.headerOffset;
    document["layout"] = LayoutField(CheckRecordLayout(_contents));
    document["table"] = TableField(table);
    return document;
}

void containerReport::WriteInfoText(std::ostream& out, const keyring* signers, const tableReport& table) const
{
    const char* hash = HashWord(_contents.hashId);
    out << "file:             " << _path << " (" << _contents.fileSize << " bytes)\n";
    out << "header block:     at byte " << _contents.headerOffset << ", version " << _contents.version << "\n";
    out << "signature:        " << _contents.signatureLength << " bytes, SHA-256 "
        << Hex(Sha256Of(_contents.signature)) << "\n";
    if (signers) out << "signed by:        " << SignerText(*signers, _contents.signature) << "\n";
    out << "digest length:    " << _contents.digestLength << " ("
        << (hash ? digestStream::NameOf(_contents.hashId) : "no SHA-2 of that length; read as SHA-256") << ")\n";
    out << "payload:          at byte " << _contents.payloadOffset << ", " << _contents.payloadLength << " bytes\n";
    out << "components:       " << _contents.components.size() << "\n";
    for (const componentEntry& component : _contents.components) {
        out << "  " << component.index << " " << ShownName(component.name) << ": offset " << component.offset
            << ", size " << component.size << (component.insideFile ? "" : " (past the end of the file)")
            << ", signature " << component.signatureLength << " bytes, SHA-256 " << Hex(Sha256Of(component.signature))
            << "\n";
        if (signers) out << "    signed by: " << SignerText(*signers, component.signature) << "\n";
    }
    WriteLayoutText(out, CheckRecordLayout(_contents));
    WriteTableText(out, table, false);
    for (const tableEntry& entry : table.entries)
        out << "  listed " << entry.index << " " << ShownName(entry.name) << ": offset " << entry.offset << ", size "
            << entry.size << ", " << digestStream::NameOf(digestStream::IdForLength(entry.digest.size())) << " "
            << Hex(entry.digest) << "\n";
    WriteLeadingBytesText(out);
    if (signers)
        for (const std::string& skipped : signers->Skipped()) out << "keyring: skipped " << skipped << " (no key)\n";
}

nlohmann::ordered_json containerReport::VerifyDocument(const std::string& keyPath, const publicKey& key,
                                                       const verifyResult& result, const keyring* signers) const
{
    nlohmann::ordered_json document = Preamble("verify");
    document["key"] = {{"file", keyPath}, {"fingerprint", Hex(key.Fingerprint())}};
    document["header"] = HeaderFields();
    nlohmann::ordered_json components = nlohmann::ordered_json::array();
    for (size_t i = 0; i < _contents.components.size(); ++i) {
        const componentEntry& component = _contents.components[i];
        nlohmann::ordered_json entry = PlacedEntry(component.index, component.name, component.offset, component.size);
        const std::vector<uint8_t>& digest = result.componentDigests[i];
        entry["digest"] = digest.empty() ? nlohmann::ordered_json(nullptr) : nlohmann::ordered_json(Hex(digest));
        entry["verdict"] = VerdictName(result.components[i]);
        components.push_back(entry);
    }
    document["components"] = components;
    const std::vector<uint8_t>& digest = result.archiveDigest;
    document["archive"] = {
        {"digest", digest.empty() ? nlohmann::ordered_json(nullptr) : nlohmann::ordered_json(Hex(digest))},
        {"verdict", VerdictName(result.archive)}};
    document["problems"] = result.Problems();
    document["bytes_before_header"] = _contents.headerOffset;
    document["layout"] = LayoutField(result.layout);
    nlohmann::ordered_json table = TableField(result.table);
    table["required"] = result.tableRequired;
    document["table"] = table;
    document["names_signed"] = result.NamesSigned();
    document["keyring"] = signers ? KeyringField(*signers) : nlohmann::ordered_json(nullptr);
    return document;
}

nlohmann::ordered_json containerReport::NoSignerDocument(const keyring& signers) const
{
    nlohmann::ordered_json document = Preamble("verify");
    document["key"] = nullptr;
    document["header"] = HeaderFields();
    document["problems"] = _contents.components.size() + 1;
    document["keyring"] = KeyringField(signers);
    return document;
}

void containerReport::WriteVerifyText(std::ostream& out, const verifyResult& result, const std::string& signedBy) const
{
    if (!signedBy.empty()) out << "signed by: " << signedBy << "\n";
    for (size_t i = 0; i < _contents.components.size(); ++i)
        out << "component " << i << " " << ShownName(_contents.components[i].name) << ": "
            << VerdictName(result.components[i]) << "\n";
    out << "archive: " << VerdictName(result.archive) << "\n";
    WriteLayoutText(out, result.layout);
    WriteTableText(out, result.table, result.tableRequired);
    WriteLeadingBytesText(out);
    const size_t problems = result.Problems();
    if (problems == 0)
        out << "verified: every signature is good\n";
    else
        out << problems << (problems == 1 ? " problem" : " problems") << " found\n";
}

}  // namespace markforge
