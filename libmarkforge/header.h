// markforge::header: finds, checks, loads and writes the 4096-byte container
// header block.
#pragma once

#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

#include "archive.h"
#include "lbBase.h"
#include "lbBytes.h"

namespace markforge {

using std::string;

class header : public lbBase {
public:
    header()
    {
        LB_CONSTRUCTOR();
        _canary1 = 0;
        _version = 0;
        _signature_size = 0;
        _archive_size = 0;
        _canary2 = 0;
        _header_offset = 0;
        _digest_length = 0;
        _archive_open = false;
    }
    virtual ~header() { LB_DESTRUCTOR_CHECK("virtual markforge::header::~header()"); }

    // Sets the canaries, version 4, and empty sizes.
    bool Open() override;
    // Closes the embedded archive when CreateFromFilePath opened it.
    bool Close() override;

    // Finds the header block in the first 64 KiB of `in`; sets _header_offset.
    bool ScanHeaderOffset(std::ifstream& in);
    // Opens `in` on `path`, locates, checks and loads the header.
    bool CreateFromFilePath(const string& path, std::ifstream& in, uint32_t hashChoice);
    // Prepares a header for writing from a finished archive.
    bool CreateFromArchive(const archive& source);
    // Prepares a header for writing that carries only a signature.
    bool SetSignature(const lbBytes& signature);
    bool GetHeaderSignature(lbBytes& out);
    bool GetSignatureById(uint8_t id, lbBytes& out);
    bool GetOffsetById(uint8_t id, uint32_t& offset);
    // Diagnostic: prints where the record's component lies; `text` is left as is.
    bool GetChecksumById(uint8_t id, std::string& text);
    // Writes the 4096-byte block to `path`.
    bool WriteOutput(const string& path);
    // The same block into `block` instead of a file, for a builder that
    // places it in an output of its own.
    bool WriteOutput(std::vector<uint8_t>& block);

    // Read-only views for callers and tests.
    uint32_t HeaderOffset() const { return _header_offset; }
    uint32_t Version() const { return _version; }
    uint32_t SignatureSize() const { return _signature_size; }
    uint32_t ArchiveSize() const { return _archive_size; }
    uint32_t DigestLength() const { return _digest_length; }
    bool ArchiveOpen() const { return _archive_open; }
    const archive& Archive() const { return _archive; }

private:
    bool WriteBlock(std::ostream& out, const char* lbFunction);

    uint32_t _canary1;
    uint32_t _version;
    uint32_t _signature_size;
    lbBytes _signature;
    uint32_t _archive_size;
    uint32_t _canary2;
    uint32_t _header_offset;
    archive _archive;
    uint32_t _digest_length;
    bool _archive_open;
};

}  // namespace markforge
