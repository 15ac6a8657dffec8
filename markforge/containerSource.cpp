// markforge::containerSource: the checks a container passes before it is
// built anew, and its components as engine inputs.
#include "containerSource.h"

#include <cerrno>
#include <cstring>

#include "containerInput.h"
#include "containerReport.h"
#include "digestStream.h"
#include "exitStatus.h"
#include "lbHashId.h"
#include "recordLayout.h"

namespace markforge {
namespace {

[[noreturn]] void Refuse(const std::string& message)
{
    throw commandFailure(exitStatus::badInput, message);
}

}  // namespace

containerSource::containerSource(const std::string& path) : _path(path)
{
    containerInput::Open(_reader, path);
    CheckLayout();
    CheckTable();
}

void containerSource::CheckLayout() const
{
    const containerReport report(_path, Contents());
    for (const layoutFinding& finding : CheckRecordLayout(Contents()))
        Refuse(_path + ": the records do not cover the payload exactly (" + LayoutKindName(finding.what) + ": " +
               report.LayoutText(finding) + "); only a container that verify finds whole can be built anew");
    for (const componentEntry& component : Contents().components)
        if (!component.insideFile) Refuse(_path + ": component " + component.name + " runs past the end of the file");
}

void containerSource::CheckTable()
{
    _table = tableCheck::Read(Contents(), _reader.File());
    if (!_table.present) return;
    if (!_table.Holds())
        Refuse(_path + ": its table of contents does not hold (" +
               (_table.findings.empty() ? std::string("unreadable") : _table.findings.front()) + ")");
    std::string reason;
    const componentEntry& record = Contents().components[_table.record];
    if (!_reader.File().Read(record.fileOffset, record.size, _tableBytes, reason)) Refuse(_path + ": " + reason);
}

std::vector<std::string> containerSource::RecordNames() const
{
    std::vector<std::string> names;
    for (const componentEntry& component : Contents().components) names.push_back(component.name);
    return names;
}

std::vector<engineInput> containerSource::Inputs() const
{
    std::vector<engineInput> inputs;
    const std::vector<componentEntry>& records = Contents().components;
    const size_t count = records.size() - (_table.present ? 1 : 0);
    for (size_t i = 0; i < count; ++i)
        inputs.push_back({records[i].name, _reader.File().Fd(), records[i].fileOffset, records[i].size});
    return inputs;
}

void containerSource::CheckTableKept(const engineResult& built) const
{
    if (!_table.present) return;
    const std::vector<uint8_t> old = digestStream::Of(HashId(), _tableBytes.data(), _tableBytes.size());
    if (built.components.empty() || built.components.back().digest != old)
        Refuse(_path + ": its table of contents lists other digests than its components' bytes have; "
                       "it is not the container that was built");
}

std::vector<uint8_t> containerSource::FileSha256() const
{
    std::vector<uint8_t> digest;
    if (!digestStream::OfFile(lbHashId::SHA256, _reader.File().Fd(), digest))
        throw commandFailure(exitStatus::fileSystem, "cannot read " + _path + ": " + std::strerror(errno));
    return digest;
}

}  // namespace markforge
