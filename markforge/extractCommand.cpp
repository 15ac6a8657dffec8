// markforge::extractCommand: pick the range, stream it out, rename.
#include "extractCommand.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "containerInput.h"
#include "containerReport.h"
#include "exitStatus.h"
#include "outputFile.h"
#include "recordLayout.h"
#include "writeAll.h"

namespace markforge {
namespace {

// The names a container holds, for the message when NAME is not one of them.
std::string NamesOf(const containerContents& contents)
{
    std::string names;
    for (const componentEntry& component : contents.components)
        names += (names.empty() ? "" : ", ") + std::string(containerReport::IsPrintable(component.name)
                                                                ? component.name
                                                                : "(a name that is not printable text)");
    return names.empty() ? "none" : names;
}

// The payload that the records cover: from its first byte to where the last
// record ends. Refused when the records do not tile it, since then no one
// range is both whole and signed.
uint64_t CoveredPayload(const std::string& file, const containerContents& contents)
{
    const containerReport report(file, contents);
    for (const layoutFinding& finding : CheckRecordLayout(contents)) {
        if (finding.what == layoutFinding::kind::trailingBytes || finding.what == layoutFinding::kind::duplicateName)
            continue;
        throw commandFailure(exitStatus::badInput, file + ": the records do not cover the payload exactly (" +
                                                       std::string(LayoutKindName(finding.what)) + ": " +
                                                       report.LayoutText(finding) +
                                                       "); extract the components one by one");
    }
    const uint64_t end = CoveredEnd(contents);
    if (end > contents.payloadLength)
        throw commandFailure(exitStatus::badInput, file + ": the last component runs past the end of the file");
    return end;
}

// The one component called `name`; two of that name are refused, since
// the records' names are not what a signature covers.
const componentEntry& OnlyComponentNamed(const std::string& file, const containerContents& contents,
                                         const std::string& name)
{
    const componentEntry* found = contents.Find(name);
    if (!found)
        throw commandFailure(exitStatus::usage,
                             file + " has no component named '" + name + "' (it has: " + NamesOf(contents) + ")");
    for (const componentEntry& component : contents.components)
        if (component.name == name && &component != found)
            throw commandFailure(exitStatus::badInput, file + " has more than one component named '" + name +
                                                           "'; it is not the container that was built");
    return *found;
}

}  // namespace

void extractCommand::CheckUsage() const
{
    const int chosen = int(_options.componentGiven) + int(_options.headerSignature) + int(_options.payload);
    if (chosen != 1)
        throw commandFailure(exitStatus::usage, "extract needs exactly one of --component NAME, --header-signature "
                                                "and --payload");
}

void extractCommand::CheckOutputIsNotTheContainer() const
{
    struct stat output;
    struct stat input;
    if (stat(_options.output.c_str(), &output) != 0 || stat(_options.file.c_str(), &input) != 0) return;
    if (output.st_dev == input.st_dev && output.st_ino == input.st_ino)
        throw commandFailure(exitStatus::usage, "the output " + _options.output + " is the container " + _options.file +
                                                    " itself; write the extracted bytes elsewhere");
}

void extractCommand::Run()
{
    CheckUsage();
    CheckOutputIsNotTheContainer();
    containerReader reader;
    containerInput::Open(reader, _options.file);
    const containerContents& contents = reader.Contents();

    outputFile output;
    std::string reason;
    if (!output.Create(_options.output, reason)) throw commandFailure(exitStatus::fileSystem, reason);
    bool written = true;
    int writeError = 0;
    const fileReader::sink toOutput = [&](const uint8_t* data, size_t length) {
        if (!writeError && !WriteAll(output.Fd(), data, length)) writeError = errno ? errno : EIO;
    };
    if (_options.headerSignature) {
        toOutput(contents.signature.data(), contents.signature.size());
    } else if (_options.payload) {
        written = reader.File().Stream(contents.payloadOffset, CoveredPayload(_options.file, contents), toOutput,
                                       reason);
    } else {
        const componentEntry& component = OnlyComponentNamed(_options.file, contents, _options.component);
        if (!component.insideFile)
            throw commandFailure(exitStatus::badInput, "component " + _options.component + " of " + _options.file +
                                                           " runs past the end of the file");
        written = reader.File().Stream(component.fileOffset, component.size, toOutput, reason);
    }
    if (!written) throw commandFailure(exitStatus::fileSystem, reason);
    if (writeError)
        throw commandFailure(exitStatus::fileSystem,
                             "cannot write " + _options.output + ": " + std::strerror(writeError));
    if (!output.Commit(reason)) throw commandFailure(exitStatus::fileSystem, reason);
}

}  // namespace markforge
