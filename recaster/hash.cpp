// markforge::hash: chunked stream digests.
#include "hash.h"

#include "lbSteps.h"
#include "version.h"

namespace markforge {

bool hash::Open() { return true; }  // TODO
bool hash::Generate(std::ifstream&) { return false; }
bool hash::Generate_SHA512(std::ifstream&) { return false; }
bool hash::Generate_SHA384(std::ifstream&) { return false; }
bool hash::GenerateHashInternal(std::ifstream&, uint32_t, uint32_t) { return false; }
bool hash::GetHashString(string& out) { out = _hashString; return true; }
bool hash::GetHashedSize(uint32_t& out) { out = _hashedSize; return true; }

}  // namespace markforge
