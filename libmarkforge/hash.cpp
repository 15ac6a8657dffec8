// markforge::hash: chunked stream digests.
#include "hash.h"

#include <cstring>

#include "lbHashId.h"
#include "lbMd.h"
#include "lbSteps.h"
#include "markforgeVersion.h"

namespace markforge {
namespace {


}  // namespace

bool hash::Open()
{
    std::memset(_buffer, 0, sizeof _buffer);
    _hashedSize = 0;
    return true;
}

bool hash::Generate(std::ifstream& instream)
{
    LB_FUNCTION("bool markforge::hash::Generate(std::ifstream&)");
    LB_CHECK(GenerateHashInternal(instream, TO_END, lbHashId::SHA256));
    return true;
}

bool hash::Generate_SHA512(std::ifstream& instream)
{
    LB_FUNCTION("bool markforge::hash::Generate_SHA512(std::ifstream&)");
    LB_CHECK(GenerateHashInternal(instream, TO_END, lbHashId::SHA512));
    return true;
}

bool hash::Generate_SHA384(std::ifstream& instream)
{
    LB_FUNCTION("bool markforge::hash::Generate_SHA384(std::ifstream&)");
    LB_CHECK(GenerateHashInternal(instream, TO_END, lbHashId::SHA384));
    return true;
}

bool hash::GenerateHashInternal(std::ifstream& instream, uint32_t size, uint32_t hashId)
{
    LB_FUNCTION("bool markforge::hash::GenerateHashInternal(std::ifstream&, uint32_t, uint32_t)");
    lbHashId id;
    LB_OPEN_WITH(id, id.Open(lbHashId::Kept(hashId)));
    lbMd md;
    LB_OPEN_WITH(md, md.Open(id));
    LB_CLOSE(id);
    LB_CHECK(md.Init());

    const std::streampos start = instream.tellg();
    if (size == TO_END) {
        instream.seekg(0, std::ios::end);
        size = static_cast<uint32_t>(instream.tellg() - start);
        instream.seekg(start);
    }

    LB_CONTINUE_CHECK();
    if (!instream.good()) LB_FAIL("instream.good()");

    // Whole chunks first; a remainder of up to one chunk (a 4096-byte file
    // included) is read in one go afterwards.
    uint32_t remaining = size;
    bool readable = true;
    while (remaining > CHUNK_SIZE) {
        instream.read(_buffer, CHUNK_SIZE);
        const uint32_t got = static_cast<uint32_t>(instream.gcount());
        LB_CHECK(md.Update(_buffer, got));
        _hashedSize += got;
        remaining -= got;
        if (!instream.good()) {
            readable = false;
            break;
        }
    }
    if (readable && remaining > 0) {
        instream.read(_buffer, remaining);
        const uint32_t got = static_cast<uint32_t>(instream.gcount());
        LB_CHECK(md.Update(_buffer, got));
        _hashedSize += got;
    }

    // A stream that ended early has its fail bit set, which would make the
    // seek fail; the caller gets the stream back usable and where it was.
    instream.clear();
    instream.seekg(start);

    LB_CHECK(md.Final());
    LB_CHECK(md.GetString(_hashString));
    LB_CLOSE(md);
    return true;
}

bool hash::GetHashString(string& out)
{
    out = _hashString;
    return true;
}

bool hash::GetHashedSize(uint32_t& out)
{
    out = _hashedSize;
    return true;
}

}  // namespace markforge
