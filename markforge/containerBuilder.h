// markforge::containerBuilder: drives the library's building sequence (the
// archive, its components and signature, the header block) for one build.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "lbBase.h"

namespace markforge {

// One record as the library built it.
struct builtRecord {
    std::string name;
    uint32_t offset = 0;
    uint32_t size = 0;
    std::vector<uint8_t> signature;
};

class containerBuilder : public lbBase {
public:
    containerBuilder() { LB_CONSTRUCTOR(); }
    virtual ~containerBuilder()
    {
        LB_DESTRUCTOR_CHECK("virtual markforge::containerBuilder::~containerBuilder()");
    }

    struct component {
        std::string name;
        std::string path;
    };

    // Gives the component that follows the others, once they are added
    // (the table of contents, made from what was added); false on failure.
    using lastComponentSource = std::function<bool(component& last)>;

    // Opens an archive for `keyName` in `mode` with digest `hashId`, adds
    // every component in order, then the one `last` gives (when set), signs
    // the archive and writes the 4096-byte header block to `headerPath`. On
    // failure, Stage() says which step.
    bool Build(const std::string& keyName, const std::string& mode, uint32_t hashId,
               const std::vector<component>& components, const std::string& headerPath,
               const lastComponentSource& last = nullptr);

    // The step under way, or the one that failed: "component NAME",
    // "table of contents", "archive signature" or "header block".
    const std::string& Stage() const { return _stage; }
    // True when the table and signature could not fit in the header block.
    bool TooLarge() const { return _tooLarge; }
    const std::vector<builtRecord>& Records() const { return _records; }
    const std::vector<uint8_t>& ArchiveSignature() const { return _archiveSignature; }

private:
    bool CollectResults(class archive& built);

    std::string _stage;
    bool _tooLarge = false;
    std::vector<builtRecord> _records;
    std::vector<uint8_t> _archiveSignature;
};

}  // namespace markforge
