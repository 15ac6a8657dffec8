// Fuzz target: a requests file (REQ.json of an offline build) through the
// strict reader that `markforge attach` uses. Property: whatever it accepts
// is written back as a document it reads as the same requests.
#include <cstdlib>
#include <string>

#include "signingRequests.h"

namespace {

bool Same(const markforge::signingRequests& a, const markforge::signingRequests& b)
{
    if (a.keyName != b.keyName || a.publicKeyPem != b.publicKeyPem || a.keyFingerprint != b.keyFingerprint ||
        a.modulusBits != b.modulusBits || a.hashId != b.hashId || a.imageSha256 != b.imageSha256 ||
        a.requests.size() != b.requests.size())
        return false;
    for (size_t i = 0; i < a.requests.size(); ++i)
        if (a.requests[i].fieldF != b.requests[i].fieldF || a.requests[i].digest != b.requests[i].digest ||
            a.requests[i].toSign != b.requests[i].toSign)
            return false;
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    markforge::signingRequests read;
    std::string reason;
    if (!markforge::signingRequests::Decode(text, read, reason)) return 0;
    markforge::signingRequests again;
    if (!markforge::signingRequests::Decode(read.Encode(), again, reason) || !Same(read, again)) std::abort();
    return 0;
}
