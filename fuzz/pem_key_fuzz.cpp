// Fuzz target: reading a PEM key file and converting it to a markforge key
// file and to a raw modulus. It also holds the conversion's shortcut to
// account: wherever the label check says a file has only PUBLIC KEY blocks
// (so OpenSSL's private-key reader is skipped), that reader must indeed find
// no private key.
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "converter.h"
#include "fuzzSupport.h"
#include "pemLabels.h"

namespace {

void CheckSkippingThePrivateReaderIsSafe(const std::string& path, const uint8_t* data, size_t size)
{
    if (!recaster::HasOnlyPublicKeyBlocks(std::string_view(reinterpret_cast<const char*>(data), size))) return;
    FILE* in = std::fopen(path.c_str(), "r");
    if (!in) std::abort();
    RSA* key = PEM_read_RSAPrivateKey(in, nullptr, nullptr, nullptr);
    std::fclose(in);
    if (key) {
        std::fputs("a private key was found in a file the label check calls public-only\n", stderr);
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const std::string input = fuzzsupport::ScratchPath("pem-in");
    static const std::string output = fuzzsupport::ScratchPath("pem-out");
    fuzzsupport::WriteInput(input, data, size);
    CheckSkippingThePrivateReaderIsSafe(input, data, size);
    for (const char* oformat : {"markforge", "raw"}) {
        lbGlobal.Reset();
        {
            recaster::converter converter;
            if (fuzzsupport::OpenObject(converter) && converter.SetOFormat(oformat))
                converter.ConvertFromPEM(input, output);
            fuzzsupport::CloseObject(converter);
        }
    }
    lbGlobal.Reset();
    return 0;
}
