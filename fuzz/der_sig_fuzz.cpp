// Fuzz target: the walk of a DER signature's elements into raw bytes.
#include "converter.h"
#include "fuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const std::string input = fuzzsupport::ScratchPath("der-in");
    static const std::string output = fuzzsupport::ScratchPath("der-out");
    fuzzsupport::SilenceStdout();  // every element read prints a "type=" line
    fuzzsupport::WriteInput(input, data, size);
    lbGlobal.Reset();
    {
        recaster::converter converter;
        if (fuzzsupport::OpenObject(converter)) converter.ConvertSigFromDER(input, output);
        fuzzsupport::CloseObject(converter);
    }
    lbGlobal.Reset();
    return 0;
}
