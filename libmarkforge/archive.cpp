// markforge::archive: loading, handing out and building component records.
#include "archive.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <vector>

#include "hash.h"
#include "lbSteps.h"
#include "sign.h"
#include "markforgeVersion.h"

namespace markforge {

namespace {

uint32_t RecordWord(const CompBlock& record, size_t offset)
{
    return load_be32(record.bytes + offset);
}

}  // namespace

// The two checks that open every lookup by id. An id equal to the number of
// records names no record and is refused like a larger one.
#define ARCHIVE_CHECK_ID(inId, rangeMessage)                             \
    do {                                                                 \
        if (CompBlockList.empty()) LB_FAIL("CompBlockList.size() > 0");  \
        if ((inId) >= CompBlockList.size()) LB_FAIL(rangeMessage);       \
    } while (0)

bool archive::Open(const char* data, uint32_t start, uint32_t size, uint32_t hashId)
{
    LB_FUNCTION("bool markforge::archive::Open(const char*, uint32_t, uint32_t, uint32_t)");
    _hashIdentifier = hashId;
    CompBlockList.clear();
    LB_OPEN_WITH(_hashId, _hashId.Open(lbHashId::Kept(hashId)));
    LB_OPEN_WITH(_digest, _digest.Open(_hashId));
    if (uint64_t(start) + size >= HEADER_SIZE) LB_FAIL("( start + size < HEADER_SIZE )");

    // The running position is compared with `size`, not with start + size:
    // for the starts a header can give (76 to 528) that loads exactly
    // size / 540 records. The second condition keeps a direct call with odd
    // arguments inside the 4096-byte block.
    for (uint32_t p = start; p < size && p + CompBlock::BYTES <= HEADER_SIZE; p += CompBlock::BYTES) {
        CompBlock record;
        std::memcpy(record.bytes, data + p, CompBlock::BYTES);
        CompBlockList.push_back(record);
    }
    return true;
}

bool archive::GetComponentsData(lbBytes& out)
{
    out.buffer.clear();
    for (const CompBlock& record : CompBlockList)
        out.buffer.insert(out.buffer.end(), record.bytes, record.bytes + CompBlock::BYTES);
    return true;
}

bool archive::GetSignature(uint8_t inId, lbBytes& out)
{
    LB_FUNCTION("bool markforge::archive::GetSignature(uint8_t, lbBytes&)");
    ARCHIVE_CHECK_ID(inId, "( inId <= CompBlockList.size() )");
    // The length word is taken as it stands, even above the 512-byte field;
    // the copy is only kept from running past the end of the whole table,
    // so a longer word also yields the following records' bytes.
    const uint8_t* table = reinterpret_cast<const uint8_t*>(CompBlockList.data());
    const size_t tableSize = CompBlockList.size() * CompBlock::BYTES;
    const size_t from = inId * CompBlock::BYTES + CompBlock::SIGNATURE_OFFSET;
    const size_t length = std::min<size_t>(RecordWord(CompBlockList[inId], CompBlock::SIGNATURE_LENGTH_OFFSET),
                                           tableSize - from);
    out.buffer.assign(table + from, table + from + length);
    return true;
}

bool archive::GetOffsetById(uint8_t inId, uint32_t& offset)
{
    LB_FUNCTION("bool markforge::archive::GetOffsetById(uint8_t, uint32_t&)");
    ARCHIVE_CHECK_ID(inId, "inId <= CompBlockList.size()");
    offset = RecordWord(CompBlockList[inId], CompBlock::OFFSET_OFFSET);
    return true;
}

bool archive::GetSizeById(uint8_t inId, uint32_t& size)
{
    LB_FUNCTION("bool markforge::archive::GetSizeById(uint8_t, uint32_t&)");
    ARCHIVE_CHECK_ID(inId, "inId <= CompBlockList.size()");
    size = RecordWord(CompBlockList[inId], CompBlock::SIZE_OFFSET);
    return true;
}

bool archive::GetNumberOfComponents(uint32_t& count) const
{
    count = static_cast<uint32_t>(CompBlockList.size());
    return true;
}

bool archive::GetDigestLength(uint32_t& length) const
{
    return _digest.GetLength(length);
}

bool archive::GetArchiveSignature(lbBytes& out) const
{
    out.buffer = _signature.buffer;
    return true;
}

bool archive::Close()
{
    LB_FUNCTION("virtual bool markforge::archive::Close()");
    LB_CLOSE(_hashId);
    LB_CLOSE_WITH(_digest, _digest.Close());
    return true;
}

// ---- building --------------------------------------------------------------

namespace {

// Names are kept one short of the record's 15 characters on purpose.
constexpr size_t FEED_CHUNK = 4096;
constexpr size_t READ_AHEAD_SIZE = 64 * 1024;

// The record of one component; name and signature fields zero-padded.
CompBlock MakeRecord(const string& name, uint32_t size, uint32_t offset, const std::vector<uint8_t>& signature)
{
    CompBlock record;
    std::memset(record.bytes, 0, sizeof record.bytes);
    store_be32(record.bytes + CompBlock::SIZE_OFFSET, size);
    store_be32(record.bytes + CompBlock::OFFSET_OFFSET, offset);
    store_be32(record.bytes + CompBlock::SIGNATURE_LENGTH_OFFSET, static_cast<uint32_t>(signature.size()));
    const size_t nameLength = std::min(std::strlen(name.c_str()), CompBlock::NAME_FIELD_SIZE - 1);
    std::memcpy(record.bytes + CompBlock::NAME_OFFSET, name.c_str(), nameLength);
    std::copy(signature.begin(), signature.end(), record.bytes + CompBlock::SIGNATURE_OFFSET);
    return record;
}

}  // namespace

bool archive::Open(const string& keyName, const string& mode, uint32_t hashId)
{
    LB_FUNCTION("bool markforge::archive::Open(const string&, const string&, uint32_t)");
    CompBlockList.clear();
    this->mode = mode;
    _nextOffset = 0;
    this->keyName = keyName;
    _hashIdentifier = hashId;
    LB_OPEN_WITH(_hashId, _hashId.Open(lbHashId::Kept(hashId)));
    LB_OPEN_WITH(_digest, _digest.Open(_hashId));
    return true;
}

bool archive::InitAddComponentsFromCmdline()
{
    LB_FUNCTION("bool markforge::archive::InitAddComponentsFromCmdline()");
    LB_CHECK(_digest.Init());
    return true;
}

bool archive::AddComponent(const string& name, const string& path)
{
    LB_FUNCTION("bool markforge::archive::AddComponent(const string&, const string&)");
    // Images are read 4096 bytes at a time; a larger read-ahead under the
    // stream keeps the system calls few on multi-megabyte components.
    std::vector<char> readAhead(READ_AHEAD_SIZE);
    std::ifstream file;
    file.rdbuf()->pubsetbuf(readAhead.data(), static_cast<std::streamsize>(readAhead.size()));
    file.open(path, std::ios::binary);
    LB_CONTINUE_CHECK();
    // The file is checked before the name, so a missing file with a long
    // name reports only the file. A folder opens but holds no bytes to sign.
    std::error_code ignored;
    if (!file.is_open() || std::filesystem::is_directory(path, ignored)) LB_FAIL("Unable to read component file");
    if (name.size() > MAX_COMPONENT_NAME) LB_FAIL("Component name is excessive");

    // The archive digest covers every component's full contents in order.
    char chunk[FEED_CHUNK];
    do {
        std::memset(chunk, 0, sizeof chunk);
        file.read(chunk, sizeof chunk);
        LB_CHECK(_digest.Update(chunk, static_cast<unsigned>(file.gcount())));
    } while (file.good());
    file.clear();
    file.seekg(0);

    hash hasher;
    LB_OPEN(hasher);
    if (_hashIdentifier == lbHashId::SHA512)
        LB_CHECK(hasher.Generate_SHA512(file));
    else if (_hashIdentifier == lbHashId::SHA384)
        LB_CHECK(hasher.Generate_SHA384(file));
    else
        LB_CHECK(hasher.Generate(file));
    string digestText;
    uint32_t size = 0;
    LB_CHECK(hasher.GetHashString(digestText));
    LB_CHECK(hasher.GetHashedSize(size));
    LB_CLOSE(hasher);
    file.close();

    sign signer;
    LB_OPEN(signer);
    LB_CHECK(signer.Sign(digestText, keyName, mode, name, 0, 0, ""));
    lbBytes signature;
    LB_OPEN(signature);
    LB_CHECK(signer.GetSignature(signature));
    LB_CLOSE(signer);
    // Only keys of up to 4096 bits fit the record; a longer signature
    // would be cut and so could never verify.
    if (signature.buffer.size() > CompBlock::SIGNATURE_FIELD_SIZE)
        LB_FAIL("Component signature is longer than the 512 bytes of its record");
    AppendRecord(name, size, signature);
    LB_CLOSE(signature);
    return true;
}

bool archive::AddSignedComponent(const string& name, uint32_t size, const lbBytes& signature)
{
    LB_FUNCTION("bool markforge::archive::AddSignedComponent(const string&, uint32_t, const lbBytes&)");
    LB_CONTINUE_CHECK();
    if (name.size() > MAX_COMPONENT_NAME) LB_FAIL("Component name is excessive");
    if (signature.buffer.size() > CompBlock::SIGNATURE_FIELD_SIZE)
        LB_FAIL("Component signature is longer than the 512 bytes of its record");
    AppendRecord(name, size, signature);
    return true;
}

void archive::AppendRecord(const string& name, uint32_t size, const lbBytes& signature)
{
    CompBlockList.push_back(MakeRecord(name, size, _nextOffset, signature.buffer));
    _nextOffset += size;
}

bool archive::SetArchiveSignature(const lbBytes& signature)
{
    LB_FUNCTION("bool markforge::archive::SetArchiveSignature(const lbBytes&)");
    LB_CONTINUE_CHECK();
    _signature.buffer = signature.buffer;
    return true;
}

bool archive::FinishAddComponentsFromCmdline()
{
    LB_FUNCTION("bool markforge::archive::FinishAddComponentsFromCmdline()");
    // A one-component archive carries the component's signature as its own,
    // on purpose: no second signing, and the running digest is left open.
    if (CompBlockList.size() == 1) {
        GetSignature(0, _signature);
        return true;
    }
    LB_CONTINUE_CHECK();
    LB_CHECK(_digest.Final());
    string digestText;
    LB_CHECK(_digest.GetString(digestText));
    sign signer;
    LB_OPEN(signer);
    LB_CHECK(signer.Sign(digestText, keyName, mode, "archive", 0, 0, ""));
    LB_CHECK(signer.GetSignature(_signature));
    LB_CLOSE(signer);
    return true;
}

}  // namespace markforge
