// markforge::recordLayout: the tiling walk and the name check.
#include "recordLayout.h"

#include <algorithm>
#include <map>

namespace markforge {
namespace {

uint64_t EndOf(const componentEntry& component)
{
    return uint64_t(component.offset) + component.size;
}

// The departure of record `i` from where the record before it ends, if any.
bool Departure(const std::vector<componentEntry>& records, size_t i, uint64_t expected, layoutFinding& finding)
{
    const componentEntry& component = records[i];
    const uint64_t start = component.offset;
    if (start == expected) return false;
    const uint32_t index = static_cast<uint32_t>(i);
    if (start > expected) {
        finding = {layoutFinding::kind::gap, expected, start, {}};
        finding.components = i == 0 ? std::vector<uint32_t>{index} : std::vector<uint32_t>{index - 1, index};
    } else if (start < records[i - 1].offset) {
        finding = {layoutFinding::kind::outOfOrder, start, EndOf(component), {index - 1, index}};
    } else {
        finding = {layoutFinding::kind::overlap, start, std::min(expected, EndOf(component)), {index - 1, index}};
    }
    return true;
}

void FindDuplicateNames(const std::vector<componentEntry>& records, std::vector<layoutFinding>& findings)
{
    std::map<std::string, uint32_t> first;
    for (const componentEntry& component : records) {
        const auto seen = first.emplace(component.name, component.index);
        if (!seen.second)
            findings.push_back({layoutFinding::kind::duplicateName, 0, 0, {seen.first->second, component.index}});
    }
}

}  // namespace

const char* LayoutKindName(layoutFinding::kind what)
{
    switch (what) {
    case layoutFinding::kind::gap: return "gap";
    case layoutFinding::kind::overlap: return "overlap";
    case layoutFinding::kind::outOfOrder: return "out-of-order";
    case layoutFinding::kind::trailingBytes: return "trailing-bytes";
    case layoutFinding::kind::duplicateName: return "duplicate-name";
    }
    return "unknown";
}

std::vector<layoutFinding> CheckRecordLayout(const containerContents& contents)
{
    std::vector<layoutFinding> findings;
    const std::vector<componentEntry>& records = contents.components;
    uint64_t expected = 0;
    uint64_t furthest = 0;
    for (size_t i = 0; i < records.size(); ++i) {
        layoutFinding finding;
        if (Departure(records, i, expected, finding)) findings.push_back(finding);
        expected = EndOf(records[i]);
        furthest = std::max(furthest, expected);
    }
    // Records that run past the end are the outside-file verdict's; what
    // matters here is what lies beyond every record.
    if (contents.payloadLength > furthest) {
        layoutFinding trailing{layoutFinding::kind::trailingBytes, furthest, contents.payloadLength, {}};
        if (!records.empty()) trailing.components.push_back(static_cast<uint32_t>(records.size() - 1));
        findings.push_back(trailing);
    }
    FindDuplicateNames(records, findings);
    return findings;
}

uint64_t CoveredEnd(const containerContents& contents)
{
    return contents.components.empty() ? 0 : EndOf(contents.components.back());
}

}  // namespace markforge
