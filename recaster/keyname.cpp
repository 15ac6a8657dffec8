// markforge::keyname: key-name resolution through the plug-in registry.
#include "keyname.h"

#include "lbSteps.h"
#include "version.h"

markforgeRegistryRecord* markforgeRegistry = nullptr;

namespace markforge {

bool keyname::Open(const string&, bool) { return false; }  // TODO
bool keyname::GetKeyName(string& out) { out = _keyNames.at(0); return true; }
bool keyname::GetKeyNameById(uint32_t, string&) { return false; }
bool keyname::Close() { return true; }

}  // namespace markforge
