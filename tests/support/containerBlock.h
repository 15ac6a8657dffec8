// Known-good container header blocks and component records, written out
// field by field, for tests that corrupt one field at a time. The numbers are
// spelled out here on purpose instead of taken from the program's layout
// header, so that a wrong constant there cannot hide in both places.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

namespace testblocks {

using Bytes = std::vector<uint8_t>;

constexpr size_t BLOCK = 4096;
constexpr size_t RECORD = 540;

// `head` followed by `tail`, made at its full size at once: a vector that
// grows from a short braced list by an insert makes GCC 12 at -O2 and above
// warn about a copy it cannot prove in bounds.
inline Bytes Joined(std::initializer_list<uint8_t> head, const Bytes& tail)
{
    Bytes out(head.size() + tail.size());
    std::copy(head.begin(), head.end(), out.begin());
    std::copy(tail.begin(), tail.end(), out.begin() + static_cast<std::ptrdiff_t>(head.size()));
    return out;
}

inline void PutBe32(Bytes& out, uint32_t value)
{
    out.push_back(uint8_t(value >> 24));
    out.push_back(uint8_t(value >> 16));
    out.push_back(uint8_t(value >> 8));
    out.push_back(uint8_t(value));
}

inline void PokeBe32(Bytes& bytes, size_t at, uint32_t value)
{
    bytes.at(at) = uint8_t(value >> 24);
    bytes.at(at + 1) = uint8_t(value >> 16);
    bytes.at(at + 2) = uint8_t(value >> 8);
    bytes.at(at + 3) = uint8_t(value);
}

inline uint32_t PeekBe32(const Bytes& bytes, size_t at)
{
    return (uint32_t(bytes.at(at)) << 24) | (uint32_t(bytes.at(at + 1)) << 16) | (uint32_t(bytes.at(at + 2)) << 8) |
           uint32_t(bytes.at(at + 3));
}

// Signature-like bytes in 0x01..0x7F, so that they never form a canary.
inline Bytes Pattern(size_t size, uint8_t seed = 1)
{
    Bytes out(size);
    for (size_t i = 0; i < size; ++i) out[i] = uint8_t(((i * 7 + seed) % 0x7F) + 1);
    return out;
}

// Field positions in a block with an S-byte signature and an A-byte table.
inline size_t ArchiveSizeAt(size_t s) { return 12 + s; }
inline size_t TableAt(size_t s) { return 16 + s; }
inline size_t DigestLengthAt(size_t s, size_t a) { return 16 + s + a; }
constexpr size_t CANARY1_AT = 0;
constexpr size_t VERSION_AT = 4;
constexpr size_t SIGNATURE_SIZE_AT = 8;
constexpr size_t SIGNATURE_AT = 12;
constexpr size_t CANARY2_AT = 4092;

struct Record {
    uint32_t size = 0;
    uint32_t offset = 0;
    std::string name;
    Bytes signature;
    bool explicitLength = false;  // use `signatureLength` instead of the signature's size
    uint32_t signatureLength = 0;
    uint8_t fieldFill = 0;        // the signature field's bytes behind the signature
};

inline Bytes RecordBytes(const Record& r)
{
    Bytes out;
    PutBe32(out, r.size);                                          // 0: size
    PutBe32(out, r.offset);                                        // 4: offset
    Bytes name(16, 0);                                             // 8: name, NUL-padded
    for (size_t i = 0; i < r.name.size() && i < 15; ++i) name[i] = uint8_t(r.name[i]);
    out.insert(out.end(), name.begin(), name.end());
    PutBe32(out, r.explicitLength ? r.signatureLength : uint32_t(r.signature.size()));  // 24: signature length
    Bytes field(512, r.fieldFill);                                 // 28: signature field, 512 bytes
    for (size_t i = 0; i < r.signature.size() && i < 512; ++i) field[i] = r.signature[i];
    out.insert(out.end(), field.begin(), field.end());
    return out;
}

// A record whose fields are all told apart by `index`.
inline Record SampleRecord(uint32_t index, uint32_t signatureSize = 256)
{
    Record r;
    r.size = 1000 + index;
    r.offset = 100000 * index;
    r.name = "part" + std::to_string(index);
    r.signature = Pattern(signatureSize, uint8_t(index + 3));
    return r;
}

struct Block {
    uint32_t version = 4;
    Bytes signature = Pattern(64);
    std::vector<Record> records;
    uint32_t digestLength = 32;
};

inline Bytes TableBytes(const std::vector<Record>& records)
{
    Bytes out;
    for (const Record& r : records) {
        const Bytes bytes = RecordBytes(r);
        out.insert(out.end(), bytes.begin(), bytes.end());
    }
    return out;
}

// The 4096-byte block; its fixed fields always lie where the format puts
// them, whatever the sizes (a too large body is cut at the closing canary).
inline Bytes BlockBytes(const Block& b)
{
    const Bytes table = TableBytes(b.records);
    Bytes out;
    PutBe32(out, 0xDEADC0DE);                                         // 0: canary 1
    PutBe32(out, b.version);                                          // 4: version
    PutBe32(out, uint32_t(b.signature.size()));                       // 8: signature length S
    out.insert(out.end(), b.signature.begin(), b.signature.end());    // 12: signature
    PutBe32(out, uint32_t(table.size()));                             // 12+S: table size A
    out.insert(out.end(), table.begin(), table.end());                // 16+S: records
    PutBe32(out, b.digestLength);                                     // 16+S+A: digest length
    out.resize(BLOCK - 4, 0xFF);                                      // 20+S+A: padding
    PutBe32(out, 0xFEEDFACE);                                         // 4092: canary 2
    return out;
}

}  // namespace testblocks
