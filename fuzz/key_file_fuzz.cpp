// Fuzz target: the markforge key-file reader, as text and through lbRsa.
#include "fuzzSupport.h"
#include "lbRsa.h"
#include "lbRsaKeyFile.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const std::string path = fuzzsupport::ScratchPath("keyfile");
    lockbase::RsaKeyTexts key;
    std::string reason;
    lockbase::ParseRsaKeyFile(std::string(reinterpret_cast<const char*>(data), size), key, reason);

    fuzzsupport::WriteInput(path, data, size);
    lbGlobal.Reset();
    {
        lbRsa rsa;
        std::string n, e, p, q, d;
        if (fuzzsupport::OpenObject(rsa) && rsa.ReadKeyFromDisk(path)) rsa.GetExponents(n, e, p, q, d);
        fuzzsupport::CloseObject(rsa);
    }
    lbGlobal.Reset();
    return 0;
}
