// markforge::tableOfContents: the signed table of contents that `markforge
// build --table` appends as a container's last component, and its one
// canonical encoding. The container format signs component contents but not
// the records' names, order or membership; the table is a component like any
// other, so its signature carries them, and old readers see one more
// component.
//
// Layout, every number a 32-bit big-endian word:
//   0    16  label "markforge-table" and one NUL byte
//   16   4   version, 1
//   20   4   N, the number of components listed (every record but the table's)
//   24   ... N entries, in record order:
//        0   4   index (0, 1, ... in order)
//        4   16  name field, exactly as in the record: NUL-padded, at least one NUL
//        20  4   offset, as in the record
//        24  4   size, as in the record
//        28  4   D, the digest length: 32 SHA-256, 48 SHA-384, 64 SHA-512
//        32  D   the digest of the component's bytes
// Nothing follows the last entry.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace markforge {

struct tableEntry {
    uint32_t index = 0;
    std::string name;  // the record's name field up to its first NUL
    uint32_t offset = 0;
    uint32_t size = 0;
    std::vector<uint8_t> digest;  // its length names the SHA-2
};

class tableOfContents {
public:
    // The record name of the table: 14 characters, the longest name `build`
    // accepts, and one that `build` refuses for any other component.
    static constexpr const char* COMPONENT_NAME = ".markforge-toc";
    static constexpr size_t LABEL_SIZE = 16;
    static constexpr uint32_t VERSION = 1;
    static constexpr size_t HEADER_BYTES = LABEL_SIZE + 8;
    static constexpr size_t ENTRY_FIXED_BYTES = 32;
    // More than any table of a 4096-byte header block can need; a record
    // that claims a larger table is not read whole.
    static constexpr size_t MAX_BYTES = 64 * 1024;

    // The 16 label bytes every table starts with.
    static const uint8_t* Label();
    // True when `data` starts with the label: no component other than the
    // table may, so that no signed component can pass for a table.
    static bool StartsWithLabel(const uint8_t* data, size_t length);

    static std::vector<uint8_t> Encode(const std::vector<tableEntry>& entries);
    // Reads `bytes` into `entries`. False, with a one-line reason and no
    // entries, unless they are exactly the canonical encoding of a table.
    static bool Decode(const std::vector<uint8_t>& bytes, std::vector<tableEntry>& entries, std::string& reason);
};

}  // namespace markforge
