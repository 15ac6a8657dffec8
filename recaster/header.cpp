// markforge::header: locating, checking, loading and writing the header block.
#include "header.h"

#include "lbSteps.h"
#include "version.h"

namespace markforge {

bool header::Open() { return true; }  // TODO
bool header::Close() { return true; }  // TODO
bool header::ScanHeaderOffset(std::ifstream&) { return false; }
bool header::CreateFromFilePath(const string&, std::ifstream&, uint32_t) { return false; }
bool header::CreateFromArchive(const archive&) { return false; }
bool header::SetSignature(const lbBytes&) { return true; }
bool header::GetHeaderSignature(lbBytes&) { return true; }
bool header::GetSignatureById(uint8_t, lbBytes&) { return false; }
bool header::GetOffsetById(uint8_t, uint32_t&) { return false; }
bool header::GetChecksumById(uint8_t, std::string&) { return true; }
bool header::WriteOutput(const string&) { return false; }

}  // namespace markforge
