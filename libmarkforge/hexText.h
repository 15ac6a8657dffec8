// Lower-case hex text of bytes, the form reports, fingerprints and audit
// lines use; lockbase::hexString's upper-case text is the form the signer
// hashes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace markforge {

std::string LowerHex(const std::vector<uint8_t>& bytes);

}  // namespace markforge
