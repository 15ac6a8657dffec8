// markforge::archive: a container's component records, with the digest and
// signature state of the building side.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "containerLayout.h"
#include "lbBase.h"
#include "lbBytes.h"
#include "lbHashId.h"
#include "lbMd.h"

namespace markforge {

using std::string;

class archive : public lbBase {
public:
    archive()
    {
        LB_CONSTRUCTOR();
        _nextOffset = 0;
        _secondCounter = 0;
        _hashIdentifier = 0;
    }
    virtual ~archive() { LB_DESTRUCTOR_CHECK("virtual markforge::archive::~archive()"); }

    // Reading: opens the hash objects and loads the records that lie at
    // `start` in the 4096-byte header block `data`.
    bool Open(const char* data, uint32_t start, uint32_t size, uint32_t hashId);
    // Building: prepares an empty archive for the named key, mode and digest.
    bool Open(const string& keyName, const string& mode, uint32_t hashId);
    using lbBase::Open;

    bool InitAddComponentsFromCmdline();
    // Reads, hashes and signs one component file and appends its record.
    bool AddComponent(const string& name, const string& path);
    // Makes the archive signature.
    bool FinishAddComponentsFromCmdline();

    // For a builder that reads, hashes and signs components itself: appends
    // the record AddComponent appends for a component of `size` bytes with
    // this signature (the same checks of name and signature length).
    bool AddSignedComponent(const string& name, uint32_t size, const lbBytes& signature);
    // The archive signature made elsewhere, where
    // FinishAddComponentsFromCmdline would make it.
    bool SetArchiveSignature(const lbBytes& signature);

    bool GetComponentsData(lbBytes& out);
    bool GetSignature(uint8_t inId, lbBytes& out);
    bool GetOffsetById(uint8_t inId, uint32_t& offset);
    bool GetSizeById(uint8_t inId, uint32_t& size);
    bool GetNumberOfComponents(uint32_t& count) const;
    bool GetDigestLength(uint32_t& length) const;
    bool GetArchiveSignature(lbBytes& out) const;
    // Closes the hash id, then the digest.
    bool Close() override;

    // The component table, in file order, words big-endian.
    std::vector<CompBlock> CompBlockList;
    string keyName;
    string mode;

private:
    // Steps 8 and 9 of adding a component: the record, and the next offset.
    void AppendRecord(const string& name, uint32_t size, const lbBytes& signature);

    uint32_t _nextOffset;
    uint32_t _secondCounter;  // carried along on copies; nothing reads it
    uint32_t _hashIdentifier;
    lbMd _digest;
    lbHashId _hashId;
    lbBytes _signature;
};

}  // namespace markforge
