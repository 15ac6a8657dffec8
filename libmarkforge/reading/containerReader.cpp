// markforge::containerReader: header loading through markforge::header and
// the component table's placement in the file.
#include "containerReader.h"

#include <cstring>
#include <fstream>

#include "containerLayout.h"
#include "digestStream.h"
#include "header.h"
#include "lbBytes.h"
#include "lbGlobal.h"
#include "lbScoped.h"

namespace markforge {
uint32_t containerContents::DigestHashId() const
{
    return hashId ? hashId : digestStream::KeptId(0);
}

const componentEntry* containerContents::Find(const std::string& name) const
{
    for (const componentEntry& component : components)
        if (component.name == name) return &component;
    return nullptr;
}

containerReader::failure containerReader::Open(const std::string& path, std::string& reason,
                                               std::string& libraryText)
{
    if (!_file.Open(path, reason)) return failure::fileSystem;
    _contents.fileSize = _file.Size();
    if (!LoadHeader(path, libraryText)) {
        reason = path + " is not a markforge container";
        return failure::notContainer;
    }
    if (_contents.tableSize == 0) ReadEmptyTableDigestLength();
    _contents.hashId = digestStream::IdForLength(_contents.digestLength);
    PlaceComponents();
    return failure::none;
}

bool containerReader::LoadHeader(const std::string& path, std::string& libraryText)
{
    const size_t trailStart = lbGlobal.trail.size();
    header block;
    const lbScoped closed(block);
    std::ifstream in;
    // The hash choice only tells the loaded archive SHA-384 from SHA-512;
    // the readers take the digest from the digest-length word instead.
    const bool loaded = lbScoped::Open(block, __FILE__, __LINE__, [&] { return block.Open(); }) &&
                        block.CreateFromFilePath(path, in, 0);
    if (!loaded) {
        libraryText = lbGlobal.MessagesSince(trailStart);
        return false;
    }
    _contents.headerOffset = block.HeaderOffset();
    _contents.version = block.Version();
    _contents.signatureLength = block.SignatureSize();
    _contents.tableSize = block.ArchiveSize();
    _contents.digestLength = block.DigestLength();
    lbBytes signature;
    block.GetHeaderSignature(signature);
    _contents.signature = signature.buffer;

    const std::vector<CompBlock>& records = block.Archive().CompBlockList;
    for (uint32_t id = 0; id < records.size(); ++id) {
        componentEntry entry;
        entry.index = id;
        entry.name = record_name(records[id]);
        entry.size = load_be32(records[id].bytes + CompBlock::SIZE_OFFSET);
        entry.offset = load_be32(records[id].bytes + CompBlock::OFFSET_OFFSET);
        entry.signatureLength = load_be32(records[id].bytes + CompBlock::SIGNATURE_LENGTH_OFFSET);
        block.GetSignatureById(static_cast<uint8_t>(id), signature);
        entry.signature = signature.buffer;
        _contents.components.push_back(entry);
    }
    return true;
}

void containerReader::ReadEmptyTableDigestLength()
{
    // The header stops loading at an empty table, before the digest-length
    // word; the word is still in the block, right after the table size.
    const uint64_t at = uint64_t(_contents.headerOffset) + digest_length_offset(_contents.signatureLength, 0);
    std::vector<uint8_t> word;
    std::string reason;
    if (_contents.version >= HEADER_VERSION && _file.Read(at, 4, word, reason))
        _contents.digestLength = load_be32(word.data());
}

void containerReader::PlaceComponents()
{
    _contents.payloadOffset = uint64_t(_contents.headerOffset) + HEADER_SIZE;
    _contents.payloadLength =
        _file.Size() > _contents.payloadOffset ? _file.Size() - _contents.payloadOffset : 0;
    for (componentEntry& component : _contents.components) {
        component.fileOffset = _contents.payloadOffset + component.offset;
        component.insideFile = _file.Contains(component.fileOffset, component.size);
    }
}

}  // namespace markforge
