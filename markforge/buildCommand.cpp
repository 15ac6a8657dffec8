// markforge::buildCommand: checks, plug-in and key, the build engine,
// self-verification, and the rename.
#include "buildCommand.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <set>
#include <sstream>

#include "agentSigner.h"
#include "containerLayout.h"
#include "digestStream.h"
#include "exitStatus.h"
#include "keyFileSigner.h"
#include "programPaths.h"
#include "selfVerifier.h"
#include "signAgentProtocol.h"
#include "tableOfContents.h"
#include "writeAll.h"

namespace markforge {
namespace {

// What the agent's request carries of a key name: its field's bound, less
// the terminator.
constexpr size_t MAX_AGENT_KEY_NAME = signagent::KEY_FIELD_BOUND - 1;
const std::string AGENT_ADDRESS = std::string(SIGN_AGENT_ADDRESS) + ":" + std::to_string(SIGN_AGENT_PORT);

[[noreturn]] void Fail(exitStatus status, const std::string& message)
{
    throw commandFailure(status, message);
}

bool SameFile(const struct stat& a, const struct stat& b)
{
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

bool IsFolder(const std::string& path)
{
    struct stat info;
    return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

}  // namespace

buildCommand::buildCommand(buildOptions options) : _options(std::move(options)), _hashId(digestStream::IdOfWord(_options.hash))
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
    if (Production())
        PrepareAgent();
    else
        PrepareDevelopmentKey();
    CheckOutputIsNoInput();
    CheckComponentsFit();
    std::string reason;
    if (!_output.Create(_options.output, reason)) Fail(exitStatus::fileSystem, reason);
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
    if (_options.key.empty()) Fail(exitStatus::usage, "--key must not be empty");
    const bool hasPlugin = !_options.keyDir.empty() || !_options.plugin.empty();
    if (Production() && hasPlugin)
        Fail(exitStatus::usage, "--key-dir and --plugin name development keys; production mode signs through the agent");
    if (!Production() && !hasPlugin)
        Fail(exitStatus::usage, "development mode needs --key-dir DIR or --plugin FILE.so to find the key");
    if (!Production() && !_options.verifyKey.empty())
        Fail(exitStatus::usage, "--verify-key is for production mode; development builds verify with the key file itself");
    if (Production() && _options.key.size() > MAX_AGENT_KEY_NAME)
        Fail(exitStatus::usage, "key name '" + _options.key + "' is longer than the " +
                                    std::to_string(MAX_AGENT_KEY_NAME) + " characters the signing agent receives");
    if (!(_options.agentTimeout > 0)) Fail(exitStatus::usage, "--agent-timeout must be above 0 seconds");
    if (Production() && _options.verifyKey.empty())
        Fail(exitStatus::usage, "production mode needs --verify-key PUBKEY: any program can answer on " +
                                    std::string(AGENT_ADDRESS) + ", so every signature it gives is checked against " +
                                    "the release key's public half before the output is written");
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

void buildCommand::PrepareDevelopmentKey()
{
    std::string path = _options.plugin;
    const char* argument = _options.pluginArgGiven ? _options.pluginArg.c_str() : nullptr;
    if (!_options.keyDir.empty()) {
        if (!IsFolder(_options.keyDir))
            Fail(exitStatus::fileSystem, "key folder " + _options.keyDir + " is not a readable folder");
        path = programPaths::InstalledPlugin("keydir");
        argument = _options.keyDir.c_str();
    }
    std::string reason;
    if (!_plugins.Load(path, argument, reason)) Fail(exitStatus::fileSystem, reason);

    const std::string where = _options.keyDir.empty() ? "plug-in " + path : "key folder " + _options.keyDir;
    const std::vector<std::string> names = pluginHost::ResolveKeyName(_options.key);
    const std::string keyPath = names.empty() ? std::string() : names.front();
    if (keyPath.empty()) Fail(exitStatus::signingFailed, "key '" + _options.key + "' is refused by the " + where);
    auto keyFile = std::make_unique<keyFileSigner>();
    if (!_verifyKey.Load(keyPath, reason) || !keyFile->Load(keyPath, reason))
        Fail(exitStatus::signingFailed, "key '" + _options.key + "' (" + where + "): " + reason);
    _signer = std::move(keyFile);
    _keyPaths.push_back(keyPath);
}

void buildCommand::PrepareAgent()
{
    std::string reason;
    if (!_verifyKey.Load(_options.verifyKey, reason)) Fail(exitStatus::signingFailed, "--verify-key " + reason);
    _keyPaths.push_back(_options.verifyKey);
    auto agent = std::make_unique<agentSigner>(_options.key, _options.agentTimeout);
    if (_options.verbose) agent->SetTrace([](const std::string& line) { std::cerr << ("markforge: " + line + "\n"); });
    _signer = std::move(agent);
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
    for (const std::string& key : _keyPaths) {
        struct stat input;
        if (stat(key.c_str(), &input) == 0 && SameFile(output, input))
            Fail(exitStatus::usage, "the output " + _options.output + " is the key file " + key);
    }
}

void buildCommand::CheckComponentsFit() const
{
    // With the key at hand the signature length is known; without it the
    // builder checks once the archive is signed.
    const size_t signature = _verifyKey.Loaded() ? _verifyKey.ModulusBytes() : MIN_SIGNATURE_SIZE;
    if (!FitsInHeader(signature, RecordCount())) {
        const size_t most = MostRecords(signature);
        Fail(exitStatus::usage, std::to_string(RecordCount()) + " components" +
                                    (_options.table ? " (the table of contents included)" : "") +
                                    " do not fit in the header block with a " + std::to_string(signature) +
                                    "-byte signature (at most " + std::to_string(most) + ")");
    }
}

void buildCommand::BuildAndCommit(std::ostream& report)
{
    engineSettings settings;
    settings.keyName = _options.key;
    settings.mode = _options.mode;
    settings.hashId = _hashId;
    settings.table = _options.table;
    settings.output = _options.headerOnly ? -1 : _output.Fd();
    std::vector<engineInput> inputs;
    for (size_t i = 0; i < _components.size(); ++i) inputs.push_back({_components[i].name, _componentFds[i]});

    engineResult built;
    engineFailure failure;
    if (!buildEngine(*_signer, settings).Build(inputs, built, failure)) ReportBuildFailure(built, failure);
    SelfVerify(built);
    if (!WriteAllAt(_output.Fd(), built.headerBlock.data(), built.headerBlock.size(), 0))
        Fail(exitStatus::fileSystem, "cannot write " + _options.output + ": " + std::strerror(errno));
    std::string reason;
    if (!_output.Commit(reason)) Fail(exitStatus::fileSystem, reason);

    for (const builtComponent& component : built.components)
        report << "component " << component.name << " offset " << component.offset << " size " << component.size
               << " signature " << component.signature.size() << "\n";
    report << "wrote " << _options.output << "\n";
}

std::string buildCommand::SignerText() const
{
    return Production() ? "the signing agent at " + AGENT_ADDRESS : "the key file";
}

void buildCommand::SelfVerify(const engineResult& built) const
{
    std::string reason;
    const selfVerifier verifier(built, _hashId);
    if (!verifier.CheckSignatureLengths(_verifyKey, reason))
        Fail(exitStatus::signingFailed, SignerText() + " gave " + reason + "; nothing was written");
    if (!verifier.CheckSignatures(_verifyKey, reason))
        Fail(exitStatus::signingFailed, reason + " under the " + (Production() ? "--verify-key" : "signing") +
                                            " key; nothing was written");
}

void buildCommand::ReportBuildFailure(const engineResult& built, const engineFailure& failure) const
{
    switch (failure.what) {
    case engineFailure::kind::input: Fail(exitStatus::badInput, failure.message);
    case engineFailure::kind::output: Fail(exitStatus::fileSystem, failure.message);
    case engineFailure::kind::tooLarge: {
        // Answers of the wrong length are what overran the block.
        std::string reason;
        if (!selfVerifier(built, _hashId).CheckSignatureLengths(_verifyKey, reason))
            Fail(exitStatus::signingFailed, SignerText() + " gave " + reason + "; nothing was written");
        Fail(exitStatus::usage, failure.message + "; give fewer components");
    }
    case engineFailure::kind::container: Fail(exitStatus::signingFailed, failure.message);
    case engineFailure::kind::signing: break;
    }
    if (Production())
        Fail(exitStatus::signingFailed, "signing the " + failure.stage + " through the signing agent at " +
                                            AGENT_ADDRESS + " failed: " + failure.message +
                                            "; check that markforge-agent runs and serves key '" + _options.key + "'");
    Fail(exitStatus::signingFailed,
         "signing the " + failure.stage + " with key '" + _options.key + "' failed: " + failure.message);
}

}  // namespace markforge
