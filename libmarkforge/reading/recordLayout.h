// markforge::recordLayout: whether a container's records tile its payload
// exactly (the first component at offset 0, each next one where the one
// before ends, in record order, the file ending where the last one ends) and
// name distinct components. Needs no component bytes.
#pragma once

#include <cstdint>
#include <vector>

#include "containerReader.h"

namespace markforge {

struct layoutFinding {
    enum class kind {
        gap,            // payload bytes that no record covers, before a component
        overlap,        // a component starts inside the one before it
        outOfOrder,     // a component lies before the one its record follows
        trailingBytes,  // payload bytes after the furthest component's end
        duplicateName,  // two records carry the same name
    };
    kind what = kind::gap;
    // The payload bytes [start, end) concerned (offsets from the payload's
    // first byte); empty for a duplicate name.
    uint64_t start = 0;
    uint64_t end = 0;
    // The records concerned, in table order.
    std::vector<uint32_t> components;
};

// "gap", "overlap", "out-of-order", "trailing-bytes" or "duplicate-name".
const char* LayoutKindName(layoutFinding::kind what);

// Every departure from the exact tiling, in record order, then the trailing
// bytes, then the duplicate names. Empty when the records tile the payload.
std::vector<layoutFinding> CheckRecordLayout(const containerContents& contents);

// Where the bytes of the last record end: the payload's length when the
// records tile it.
uint64_t CoveredEnd(const containerContents& contents);

}  // namespace markforge
