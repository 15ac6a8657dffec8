// markforge::containerBuilder: the archive and header objects, step by step.
#include "containerBuilder.h"

#include "archive.h"
#include "containerLayout.h"
#include "header.h"
#include "lbSteps.h"

namespace markforge {

bool containerBuilder::Build(const std::string& keyName, const std::string& mode, uint32_t hashId,
                             const std::vector<component>& components, const std::string& headerPath,
                             const lastComponentSource& last)
{
    LB_FUNCTION("bool markforge::containerBuilder::Build(const string&, const string&, uint32_t, "
                "const std::vector<markforge::containerBuilder::component>&, const string&, "
                "const lastComponentSource&)");
    archive built;
    _stage = "archive";
    LB_OPEN_WITH(built, built.Open(keyName, mode, hashId));
    LB_CHECK(built.InitAddComponentsFromCmdline());
    for (const component& part : components) {
        _stage = "component " + part.name;
        LB_CHECK(built.AddComponent(part.name, part.path));
    }
    if (last) {
        _stage = "table of contents";
        component part;
        if (!last(part)) LB_FAIL("The last component could not be made");
        _stage = "component " + part.name;
        LB_CHECK(built.AddComponent(part.name, part.path));
    }
    _stage = "archive signature";
    LB_CHECK(built.FinishAddComponentsFromCmdline());
    LB_CHECK(CollectResults(built));

    // The block holds the signature and the table between its fixed words;
    // the writer would not stop a table that runs over.
    _stage = "header block";
    const size_t used = _archiveSignature.size() + _records.size() * CompBlock::BYTES;
    if (used > HEADER_VARIABLE_SPACE) {
        _tooLarge = true;
        LB_FAIL("The signature and component table do not fit in the header block");
    }
    header block;
    LB_OPEN(block);
    LB_CHECK(block.CreateFromArchive(built));
    LB_CHECK(block.WriteOutput(headerPath));
    LB_CLOSE(block);
    LB_CLOSE(built);
    return true;
}

bool containerBuilder::CollectResults(archive& built)
{
    LB_FUNCTION("bool markforge::containerBuilder::CollectResults(markforge::archive&)");
    _records.clear();
    for (const CompBlock& record : built.CompBlockList) {
        builtRecord entry;
        entry.name = record_name(record);
        entry.size = load_be32(record.bytes + CompBlock::SIZE_OFFSET);
        entry.offset = load_be32(record.bytes + CompBlock::OFFSET_OFFSET);
        const uint32_t length = load_be32(record.bytes + CompBlock::SIGNATURE_LENGTH_OFFSET);
        const uint8_t* signature = record.bytes + CompBlock::SIGNATURE_OFFSET;
        entry.signature.assign(signature, signature + std::min<size_t>(length, CompBlock::SIGNATURE_FIELD_SIZE));
        _records.push_back(std::move(entry));
    }
    lbBytes signature;
    LB_OPEN(signature);
    LB_CHECK(built.GetArchiveSignature(signature));
    _archiveSignature = signature.buffer;
    LB_CLOSE(signature);
    return true;
}

}  // namespace markforge
