// Fuzz target: reading a PEM key file and converting it to a markforge key
// file and to a raw modulus.
#include "converter.h"
#include "fuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const std::string input = fuzzsupport::ScratchPath("pem-in");
    static const std::string output = fuzzsupport::ScratchPath("pem-out");
    fuzzsupport::WriteInput(input, data, size);
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
