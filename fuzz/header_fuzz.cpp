// Fuzz target: locating, checking and loading a container header block from
// a file's bytes, then every record getter up to one id past the table.
#include <fstream>

#include "containerLayout.h"
#include "fuzzSupport.h"
#include "header.h"
#include "lbBytes.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const std::string path = fuzzsupport::ScratchPath("header");
    fuzzsupport::WriteInput(path, data, size);
    lbGlobal.Reset();
    {
        markforge::header header;
        std::ifstream in;
        const uint32_t hashChoice = size % 2 ? 5 : 4;
        if (fuzzsupport::OpenObject(header) && header.CreateFromFilePath(path, in, hashChoice)) {
            lbBytes signature;
            uint32_t offset = 0;
            const uint32_t records = header.ArchiveSize() / markforge::CompBlock::BYTES;
            for (uint32_t id = 0; id <= records + 1; ++id) {
                header.GetSignatureById(static_cast<uint8_t>(id), signature);
                header.GetOffsetById(static_cast<uint8_t>(id), offset);
            }
        }
        fuzzsupport::CloseObject(header);
    }
    lbGlobal.Reset();
    return 0;
}
