// markforge::tableOfContents: encoding and the strict decoding of the table.
#include "tableOfContents.h"

#include <algorithm>
#include <cstring>

#include "containerLayout.h"
#include "digestStream.h"

namespace markforge {
namespace {

constexpr uint8_t LABEL_BYTES[tableOfContents::LABEL_SIZE] = {'m', 'a', 'r', 'k', 'f', 'o', 'r', 'g',
                                                              'e', '-', 't', 'a', 'b', 'l', 'e', 0};

void PutBe32(std::vector<uint8_t>& out, uint32_t value)
{
    uint8_t word[4];
    store_be32(word, value);
    out.insert(out.end(), word, word + 4);
}

// Reads the table front to back; every read is bounds-checked once here.
class cursor {
public:
    explicit cursor(const std::vector<uint8_t>& bytes) : _bytes(bytes) {}

    bool Take(size_t length, const uint8_t*& at)
    {
        if (!in_bounds(_bytes.size(), _at, length)) return false;
        at = _bytes.data() + _at;
        _at += length;
        return true;
    }
    bool Word(uint32_t& value)
    {
        const uint8_t* at = nullptr;
        if (!Take(4, at)) return false;
        value = load_be32(at);
        return true;
    }
    bool AtEnd() const { return _at == _bytes.size(); }
    size_t Left() const { return _bytes.size() - _at; }

private:
    const std::vector<uint8_t>& _bytes;
    size_t _at = 0;
};

// A name field is canonical when it ends in NUL and nothing but NULs follow
// the name: one encoding of each name.
bool ReadNameField(const uint8_t* field, std::string& name)
{
    const char* text = reinterpret_cast<const char*>(field);
    const size_t length = strnlen(text, CompBlock::NAME_FIELD_SIZE);
    if (length == CompBlock::NAME_FIELD_SIZE) return false;
    for (size_t i = length; i < CompBlock::NAME_FIELD_SIZE; ++i)
        if (field[i] != 0) return false;
    name.assign(text, length);
    return true;
}

bool ReadEntry(cursor& in, uint32_t expectedIndex, tableEntry& entry, std::string& reason)
{
    const uint8_t* name = nullptr;
    uint32_t digestLength = 0;
    const uint8_t* digest = nullptr;
    const std::string which = "entry " + std::to_string(expectedIndex);
    if (!in.Word(entry.index) || !in.Take(CompBlock::NAME_FIELD_SIZE, name) || !in.Word(entry.offset) ||
        !in.Word(entry.size) || !in.Word(digestLength)) {
        reason = which + " is cut short";
        return false;
    }
    if (entry.index != expectedIndex) {
        reason = which + " carries index " + std::to_string(entry.index);
        return false;
    }
    if (!ReadNameField(name, entry.name)) {
        reason = which + ": the name field is not NUL-terminated and NUL-padded";
        return false;
    }
    if (digestStream::IdForLength(digestLength) == 0) {
        reason = which + ": digest length " + std::to_string(digestLength) + " names no SHA-2";
        return false;
    }
    if (!in.Take(digestLength, digest)) {
        reason = which + " is cut short";
        return false;
    }
    entry.digest.assign(digest, digest + digestLength);
    return true;
}

}  // namespace

const uint8_t* tableOfContents::Label()
{
    return LABEL_BYTES;
}

bool tableOfContents::StartsWithLabel(const uint8_t* data, size_t length)
{
    return length >= LABEL_SIZE && std::memcmp(data, LABEL_BYTES, LABEL_SIZE) == 0;
}

std::vector<uint8_t> tableOfContents::Encode(const std::vector<tableEntry>& entries)
{
    std::vector<uint8_t> out(LABEL_BYTES, LABEL_BYTES + LABEL_SIZE);
    PutBe32(out, VERSION);
    PutBe32(out, static_cast<uint32_t>(entries.size()));
    for (const tableEntry& entry : entries) {
        PutBe32(out, entry.index);
        uint8_t name[CompBlock::NAME_FIELD_SIZE] = {};
        std::memcpy(name, entry.name.data(), std::min(entry.name.size(), CompBlock::NAME_FIELD_SIZE - 1));
        out.insert(out.end(), name, name + sizeof name);
        PutBe32(out, entry.offset);
        PutBe32(out, entry.size);
        PutBe32(out, static_cast<uint32_t>(entry.digest.size()));
        out.insert(out.end(), entry.digest.begin(), entry.digest.end());
    }
    return out;
}

bool tableOfContents::Decode(const std::vector<uint8_t>& bytes, std::vector<tableEntry>& entries,
                             std::string& reason)
{
    entries.clear();
    cursor in(bytes);
    const uint8_t* label = nullptr;
    uint32_t version = 0;
    uint32_t count = 0;
    if (!in.Take(LABEL_SIZE, label) || !StartsWithLabel(label, LABEL_SIZE)) {
        reason = "it does not start with the table label";
        return false;
    }
    if (!in.Word(version) || version != VERSION) {
        reason = "table version " + std::to_string(version) + " is not " + std::to_string(VERSION);
        return false;
    }
    // Each entry takes at least its fixed part and a 32-byte digest, so the
    // count is checked against the bytes before anything is reserved.
    if (!in.Word(count) || count > in.Left() / (ENTRY_FIXED_BYTES + 32)) {
        reason = "it lists " + std::to_string(count) + " components, more than its bytes can hold";
        return false;
    }
    for (uint32_t i = 0; i < count; ++i) {
        tableEntry entry;
        if (!ReadEntry(in, i, entry, reason)) {
            entries.clear();
            return false;
        }
        entries.push_back(std::move(entry));
    }
    if (!in.AtEnd()) {
        entries.clear();
        reason = std::to_string(in.Left()) + " bytes follow the last entry";
        return false;
    }
    return true;
}

}  // namespace markforge
