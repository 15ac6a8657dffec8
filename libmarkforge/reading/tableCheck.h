// markforge::tableCheck: a container's table of contents found among its
// records, decoded, and held against every record and, when the component
// bytes have been hashed, against their digests.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "containerReader.h"
#include "tableOfContents.h"

namespace markforge {

struct tableReport {
    bool present = false;    // a record carries the table's name
    uint32_t record = 0;     // the first such record
    bool decoded = false;    // its bytes are a well-formed table
    std::vector<tableEntry> entries;
    // Every defect and every difference from the records, one line each.
    std::vector<std::string> findings;

    // "absent", "ok", "malformed" or "mismatch".
    const char* State() const;
    // A table is there, well formed, and agrees with everything checked.
    bool Holds() const { return present && decoded && findings.empty(); }
};

class tableCheck {
public:
    // Finds the table's record: it must be the last record and the only
    // one of that name.
    static tableReport Locate(const containerContents& contents);
    // Whether `record` is read whole to check it (a larger one is not a
    // table, whatever it claims).
    static bool Readable(const containerContents& contents, const tableReport& report);
    // Records that the table's record could not be read as a table.
    static void NoteUnreadable(tableReport& report);
    // Decodes `bytes` (the table record's content) and compares each entry
    // with its record. `digests`, when not null, are the digests of every
    // component's bytes under the container's hash (empty for one that was
    // not read).
    static void Check(const containerContents& contents, const std::vector<uint8_t>& bytes,
                      const std::vector<std::vector<uint8_t>>* digests, tableReport& report);
    // For readers that hash nothing: locates the table and reads and checks
    // it from `file`, digests aside.
    static tableReport Read(const containerContents& contents, const fileReader& file);
};

}  // namespace markforge
