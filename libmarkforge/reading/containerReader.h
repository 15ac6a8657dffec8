// markforge::containerReader: a container file as info, verify and extract
// see it: the header located, checked and loaded by markforge::header, and
// the payload reached through one fileReader.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "fileReader.h"

namespace markforge {

// One component record, as read, and where its bytes lie in the file.
struct componentEntry {
    uint32_t index = 0;
    std::string name;  // the name field up to its first NUL, bytes as they are
    uint32_t offset = 0;
    uint32_t size = 0;
    uint32_t signatureLength = 0;  // the record's word, whatever its value
    std::vector<uint8_t> signature;
    uint64_t fileOffset = 0;  // payload start + offset, in 64 bits
    bool insideFile = false;
};

struct containerContents {
    uint64_t fileSize = 0;
    uint32_t headerOffset = 0;
    uint32_t version = 0;
    uint32_t signatureLength = 0;
    std::vector<uint8_t> signature;
    uint32_t tableSize = 0;
    uint32_t digestLength = 0;
    uint32_t hashId = 0;  // the SHA-2 the digest length names, 0 for none
    uint64_t payloadOffset = 0;
    uint64_t payloadLength = 0;
    std::vector<componentEntry> components;

    // The SHA-2 the components are hashed with: the one the digest length
    // names, else SHA-256, as the builder takes any other choice.
    uint32_t DigestHashId() const;
    // The first component called `name`, or nullptr.
    const componentEntry* Find(const std::string& name) const;
};

class containerReader {
public:
    enum class failure { none, fileSystem, notContainer };

    // Reads the container at `path`. On failure, `reason` holds our own line
    // and, for notContainer, `libraryText` the library's messages, one a line.
    failure Open(const std::string& path, std::string& reason, std::string& libraryText);

    const containerContents& Contents() const { return _contents; }
    const fileReader& File() const { return _file; }

private:
    bool LoadHeader(const std::string& path, std::string& libraryText);
    void ReadEmptyTableDigestLength();
    void PlaceComponents();

    fileReader _file;
    containerContents _contents;
};

}  // namespace markforge
