// On-disk layout of the container header block and its component records,
// and the big-endian accessors every field is read and written through.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

namespace markforge {

// The header block: every number a 32-bit big-endian word.
//   0     canary 1 (DE AD C0 DE)
//   4     version
//   8     signature length S (60..512)
//   12    S signature bytes
//   12+S  component table size A (a multiple of 540, below 4096)
//   16+S  A bytes of component records
//   16+S+A digest length
//   20+S+A padding, 0xFF up to 4092
//   4092  canary 2 (FE ED FA CE)
static constexpr uint32_t HEADER_SIZE = 4096;
static constexpr uint32_t CANARY1 = 0xDEADC0DE;
static constexpr uint32_t CANARY2 = 0xFEEDFACE;
static constexpr uint32_t HEADER_VERSION = 4;
static constexpr uint32_t CANARY1_OFFSET = 0;
static constexpr uint32_t VERSION_OFFSET = 4;
static constexpr uint32_t SIGNATURE_SIZE_OFFSET = 8;
static constexpr uint32_t SIGNATURE_OFFSET = 12;
static constexpr uint32_t CANARY2_OFFSET = HEADER_SIZE - 4;
static constexpr uint32_t MIN_SIGNATURE_SIZE = 60;
static constexpr uint32_t MAX_SIGNATURE_SIZE = 512;
// Canaries, version, S, A, digest length: the fixed words around the
// variable parts; what is left of the block is S + A + padding.
static constexpr uint32_t HEADER_VARIABLE_SPACE = HEADER_SIZE - 24;  // 4072
// The header is looked for in the first 16 blocks of a file.
static constexpr uint32_t HEADER_SCAN_BLOCKS = 16;

// Positions of the words that follow the variable-length signature.
inline constexpr uint32_t archive_size_offset(uint32_t signatureSize) { return SIGNATURE_OFFSET + signatureSize; }
inline constexpr uint32_t components_offset(uint32_t signatureSize) { return SIGNATURE_OFFSET + signatureSize + 4; }
inline constexpr uint32_t digest_length_offset(uint32_t signatureSize, uint32_t archiveSize)
{
    return components_offset(signatureSize) + archiveSize;
}

// A component record, kept exactly as on disk.
//   0   size
//   4   offset
//   8   name, 16 bytes, NUL-padded (at most 15 characters)
//   24  signature length
//   28  signature, 512 bytes, zero-padded
struct CompBlock {
    static constexpr size_t SIZE_OFFSET = 0;
    static constexpr size_t OFFSET_OFFSET = 4;
    static constexpr size_t NAME_OFFSET = 8;
    static constexpr size_t NAME_FIELD_SIZE = 16;
    static constexpr size_t SIGNATURE_LENGTH_OFFSET = 24;
    static constexpr size_t SIGNATURE_OFFSET = 28;
    static constexpr size_t SIGNATURE_FIELD_SIZE = 512;
    static constexpr size_t BYTES = 540;

    uint8_t bytes[BYTES];
};
static_assert(sizeof(CompBlock) == CompBlock::BYTES, "a component record is 540 bytes on disk");
static_assert(CompBlock::SIGNATURE_OFFSET + CompBlock::SIGNATURE_FIELD_SIZE == CompBlock::BYTES,
              "the signature field closes the record");

// A record's size and offset words are 32 bits wide: the most payload bytes
// a container can place.
static constexpr uint64_t MAX_PAYLOAD = 0xFFFFFFFFull;

// The longest component name a builder accepts: the field holds 15
// characters and a terminator, and names keep one character in hand.
static constexpr size_t MAX_COMPONENT_NAME = 14;

// Whether a header signature of `signatureSize` bytes and `records` records
// fit between the block's fixed words.
inline constexpr bool FitsInHeader(size_t signatureSize, size_t records)
{
    return signatureSize <= HEADER_VARIABLE_SPACE && records <= (HEADER_VARIABLE_SPACE - signatureSize) / CompBlock::BYTES;
}
// The most records that fit beside a signature of `signatureSize` bytes.
inline constexpr size_t MostRecords(size_t signatureSize)
{
    return signatureSize <= HEADER_VARIABLE_SPACE ? (HEADER_VARIABLE_SPACE - signatureSize) / CompBlock::BYTES : 0;
}

inline uint32_t load_be32(const uint8_t* p)
{
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | uint32_t(p[3]);
}

inline void store_be32(uint8_t* p, uint32_t v)
{
    p[0] = uint8_t(v >> 24);
    p[1] = uint8_t(v >> 16);
    p[2] = uint8_t(v >> 8);
    p[3] = uint8_t(v);
}

// A record's name: the name field up to its first NUL, never past the field.
inline std::string record_name(const CompBlock& record)
{
    const char* field = reinterpret_cast<const char*>(record.bytes + CompBlock::NAME_OFFSET);
    return std::string(field, strnlen(field, CompBlock::NAME_FIELD_SIZE));
}

// The same value with its bytes in big-endian order in memory, for the
// header words that are kept pre-swapped until they are written.
inline uint32_t to_be32_in_memory(uint32_t v)
{
    uint32_t out;
    store_be32(reinterpret_cast<uint8_t*>(&out), v);
    return out;
}

// True when [offset, offset + length) lies inside a buffer of `size` bytes,
// without wrapping around.
inline bool in_bounds(size_t size, size_t offset, size_t length)
{
    return offset <= size && length <= size - offset;
}

}  // namespace markforge
