// markforge::hash: the digest of a stream, read in 4096-byte chunks.
#pragma once

#include <cstdint>
#include <fstream>
#include <string>

#include "lbBase.h"

namespace markforge {

using std::string;

class hash : public lbBase {
public:
    static constexpr uint32_t CHUNK_SIZE = 4096;
    static constexpr uint32_t TO_END = 0xFFFFFFFF;

    hash()
    {
        LB_CONSTRUCTOR();
        _hashedSize = 0;
        for (char& c : _buffer) c = 0;
    }
    virtual ~hash() { LB_DESTRUCTOR_CHECK("virtual markforge::hash::~hash()"); }

    // Clears the buffer and the byte count.
    bool Open() override;

    // SHA-256 / SHA-512 / SHA-384 of the stream from its position to its end.
    bool Generate(std::ifstream& instream);
    bool Generate_SHA512(std::ifstream& instream);
    bool Generate_SHA384(std::ifstream& instream);
    // Digest of `size` bytes from the current position (TO_END: to the end);
    // 4 selects SHA-512, 5 SHA-384, anything else SHA-256.
    bool GenerateHashInternal(std::ifstream& instream, uint32_t size, uint32_t hashId);

    bool GetHashString(string& out);
    bool GetHashedSize(uint32_t& out);

private:
    string _hashString;
    uint32_t _hashedSize;
    char _buffer[CHUNK_SIZE];
};

}  // namespace markforge
