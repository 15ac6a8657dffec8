// markforge::buildCommand: component files, the signer, the build engine,
// and the output.
#include "buildCommand.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <set>

#include "containerLayout.h"
#include "digestStream.h"
#include "exitStatus.h"
#include "tableOfContents.h"

namespace markforge {
namespace {

[[noreturn]] void Fail(exitStatus status, const std::string& message)
{
    throw commandFailure(status, message);
}

bool SameFile(const struct stat& a, const struct stat& b)
{
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

}  // namespace

buildCommand::buildCommand(buildOptions options)
    : _options(std::move(options)),
      _hashId(digestStream::IdOfWord(_options.hash)),
      _signing(_options.signing),
      _output(_options.output, _options.headerOnly, _options.signing.requests)
{
}

buildCommand::~buildCommand()
{
    for (int fd : _componentFds) close(fd);
}

void buildCommand::Run(std::ostream& report)
{
    ParseComponents();
    CheckUsage();
    OpenComponents();
    _signing.Prepare();
    CheckOutputIsNoInput();
    _signing.CheckRecordsFit(RecordCount(), _options.table);
    _output.Create();
    BuildAndCommit(report);
}

void buildCommand::ParseComponents()
{
    std::set<std::string> seen;
    for (const std::string& word : _options.components) {
        componentWord component;
        std::string reason;
        if (!component.Parse(word, reason)) Fail(exitStatus::usage, reason);
        if (component.name == tableOfContents::COMPONENT_NAME)
            Fail(exitStatus::usage, "component name '" + component.name +
                                        "' is kept for the table of contents that --table adds");
        if (!seen.insert(component.name).second)
            Fail(exitStatus::usage, "component name '" + component.name + "' is given twice");
        _components.push_back(component);
    }
}

void buildCommand::CheckUsage() const
{
    if (_components.empty() && !_options.allowEmpty)
        Fail(exitStatus::usage, "no components given (NAME=FILE...); --allow-empty builds a container without any");
    _signing.CheckUsage();
    if (_signing.Offline() && _options.headerOnly)
        Fail(exitStatus::usage, "--header-only leaves out the payload that attach needs; offline builds write it all");
    std::vector<std::string> names;
    for (const componentWord& component : _components) names.push_back(component.name);
    if (_options.table) names.push_back(tableOfContents::COMPONENT_NAME);
    _signing.CheckRequestNames(names, RecordCount());
}

void buildCommand::OpenComponents()
{
    uint64_t total = 0;
    for (const componentWord& component : _components) {
        const int fd = open(component.path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0)
            Fail(exitStatus::badInput,
                 "cannot read component " + component.name + ": " + component.path + ": " + std::strerror(errno));
        _componentFds.push_back(fd);
        struct stat info;
        if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode))
            Fail(exitStatus::badInput,
                 "component " + component.name + ": " + component.path + " is not a regular file");
        total += static_cast<uint64_t>(info.st_size);
        if (total >= MAX_PAYLOAD)
            Fail(exitStatus::badInput, "the components add up to 4 GiB or more; a container's offsets are 32-bit");
    }
}

void buildCommand::CheckOutputIsNoInput() const
{
    struct stat output;
    if (stat(_options.output.c_str(), &output) != 0) return;
    for (size_t i = 0; i < _componentFds.size(); ++i) {
        struct stat input;
        if (fstat(_componentFds[i], &input) == 0 && SameFile(output, input))
            Fail(exitStatus::usage, "the output " + _options.output + " is the file of component " + _components[i].name);
    }
    for (const std::string& key : _signing.KeyPaths()) {
        struct stat input;
        if (stat(key.c_str(), &input) == 0 && SameFile(output, input))
            Fail(exitStatus::usage, "the output " + _options.output + " is the key file " + key);
    }
}

void buildCommand::BuildAndCommit(std::ostream& report)
{
    engineSettings settings;
    settings.keyName = _options.signing.key;
    settings.mode = _signing.ModeWord();
    settings.hashId = _hashId;
    settings.table = _options.table;
    std::vector<engineInput> inputs;
    for (size_t i = 0; i < _components.size(); ++i) inputs.push_back({_components[i].name, _componentFds[i]});
    _output.Report(report, _output.BuildSignAndCommit(_signing, settings, inputs));
}

}  // namespace markforge
