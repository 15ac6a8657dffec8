// markforge::tableCheck: locating, decoding and comparing the table.
#include "tableCheck.h"

#include "digestStream.h"

namespace markforge {
namespace {

std::string Quoted(const std::string& name)
{
    return "'" + name + "'";
}

// The records the table speaks of: all but its own, in order.
std::vector<const componentEntry*> Listed(const containerContents& contents, const tableReport& report)
{
    std::vector<const componentEntry*> listed;
    for (const componentEntry& component : contents.components)
        if (component.index != report.record) listed.push_back(&component);
    return listed;
}

void CompareEntry(const tableEntry& entry, const componentEntry& record, uint32_t hashId,
                  const std::vector<std::vector<uint8_t>>* digests, std::vector<std::string>& findings)
{
    const std::string which = "entry " + std::to_string(entry.index) + ": ";
    if (entry.name != record.name)
        findings.push_back(which + "name " + Quoted(entry.name) + ", but component " + std::to_string(record.index) +
                           " is named " + Quoted(record.name));
    if (entry.offset != record.offset)
        findings.push_back(which + "offset " + std::to_string(entry.offset) + ", but the record says " +
                           std::to_string(record.offset));
    if (entry.size != record.size)
        findings.push_back(which + "size " + std::to_string(entry.size) + ", but the record says " +
                           std::to_string(record.size));
    if (entry.digest.size() != digestStream::LengthOf(hashId)) {
        findings.push_back(which + "a " + std::to_string(entry.digest.size()) + "-byte digest, but the container is " +
                           "hashed with " + digestStream::NameOf(hashId));
        return;
    }
    if (digests && record.index < digests->size() && !(*digests)[record.index].empty() &&
        (*digests)[record.index] != entry.digest)
        findings.push_back(which + "its digest is not the digest of component " + std::to_string(record.index) +
                           "'s bytes");
}

}  // namespace

const char* tableReport::State() const
{
    if (!present) return "absent";
    if (!decoded) return "malformed";
    return findings.empty() ? "ok" : "mismatch";
}

tableReport tableCheck::Locate(const containerContents& contents)
{
    tableReport report;
    for (const componentEntry& component : contents.components) {
        if (component.name != tableOfContents::COMPONENT_NAME) continue;
        if (!report.present) {
            report.present = true;
            report.record = component.index;
        } else {
            report.findings.push_back("component " + std::to_string(component.index) + " is named " +
                                      Quoted(component.name) + " too; a container has one table");
        }
    }
    if (report.present && report.record + 1 != contents.components.size())
        report.findings.push_back("the table is component " + std::to_string(report.record) + ", not the last of " +
                                  std::to_string(contents.components.size()));
    return report;
}

bool tableCheck::Readable(const containerContents& contents, const tableReport& report)
{
    if (!report.present) return false;
    const componentEntry& record = contents.components[report.record];
    return record.insideFile && record.size <= tableOfContents::MAX_BYTES;
}

void tableCheck::NoteUnreadable(tableReport& report)
{
    report.findings.push_back("its record's bytes are not a table: past the end of the file or over " +
                              std::to_string(tableOfContents::MAX_BYTES) + " bytes");
}

void tableCheck::Check(const containerContents& contents, const std::vector<uint8_t>& bytes,
                       const std::vector<std::vector<uint8_t>>* digests, tableReport& report)
{
    std::string reason;
    report.decoded = tableOfContents::Decode(bytes, report.entries, reason);
    if (!report.decoded) {
        report.findings.push_back(reason);
        return;
    }
    const std::vector<const componentEntry*> listed = Listed(contents, report);
    if (report.entries.size() != listed.size())
        report.findings.push_back("it lists " + std::to_string(report.entries.size()) +
                                  " components, but the container holds " + std::to_string(listed.size()) +
                                  " besides the table");
    const uint32_t hashId = contents.DigestHashId();
    for (size_t i = 0; i < report.entries.size() && i < listed.size(); ++i)
        CompareEntry(report.entries[i], *listed[i], hashId, digests, report.findings);
}

tableReport tableCheck::Read(const containerContents& contents, const fileReader& file)
{
    tableReport report = Locate(contents);
    if (!report.present) return report;
    if (!Readable(contents, report)) {
        NoteUnreadable(report);
        return report;
    }
    const componentEntry& record = contents.components[report.record];
    std::vector<uint8_t> bytes;
    std::string reason;
    if (!file.Read(record.fileOffset, record.size, bytes, reason)) {
        report.findings.push_back(reason);
        return report;
    }
    Check(contents, bytes, nullptr, report);
    return report;
}

}  // namespace markforge
