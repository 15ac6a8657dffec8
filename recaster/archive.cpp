// markforge::archive: loading, handing out and building component records.
#include "archive.h"

#include "lbSteps.h"
#include "version.h"

namespace markforge {

bool archive::Open(const char*, uint32_t, uint32_t, uint32_t) { return false; }  // TODO
bool archive::Open(const string&, const string&, uint32_t) { return false; }  // TODO
bool archive::InitAddComponentsFromCmdline() { return false; }
bool archive::AddComponent(const string&, const string&) { return false; }
bool archive::FinishAddComponentsFromCmdline() { return false; }
bool archive::GetComponentsData(lbBytes&) { return true; }
bool archive::GetSignature(uint8_t, lbBytes&) { return false; }
bool archive::GetOffsetById(uint8_t, uint32_t&) { return false; }
bool archive::GetSizeById(uint8_t, uint32_t&) { return false; }
bool archive::GetNumberOfComponents(uint32_t& count) const { count = 0; return true; }
bool archive::GetDigestLength(uint32_t& length) const { return _digest.GetLength(length); }
bool archive::GetArchiveSignature(lbBytes& out) const { out.buffer = _signature.buffer; return true; }
bool archive::Close() { return true; }  // TODO

}  // namespace markforge
