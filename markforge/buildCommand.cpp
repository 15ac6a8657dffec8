// markforge::buildCommand: checks, plug-in and key, the library's building
// sequence beside the payload copy, self-verification, and the rename.
#include "buildCommand.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <set>
#include <sstream>

#include "agentTimer.h"
#include "containerBuilder.h"
#include "containerLayout.h"
#include "digestStream.h"
#include "exitStatus.h"
#include "lbGlobal.h"
#include "libraryConsole.h"
#include "payloadCopier.h"
#include "programPaths.h"
#include "selfVerifier.h"
#include "tableOfContents.h"

namespace markforge {
namespace {

// What the library's signer can carry of a key name to the agent.
constexpr size_t MAX_AGENT_KEY_NAME = 30;
// A record's size and offset words are 32 bits wide.
constexpr uint64_t MAX_PAYLOAD = 0xFFFFFFFFull;
// Trace lines that open and close one exchange with the signing agent.
constexpr const char* AGENT_REQUEST_TRACE = "CCA args: ";
constexpr const char* AGENT_ANSWER_TRACE = "CCA sign: signature :";
constexpr const char* AGENT_ADDRESS = "127.0.0.1:8001";

[[noreturn]] void Fail(exitStatus status, const std::string& message)
{
    throw commandFailure(status, message);
}

bool StartsWith(const std::string& text, const char* prefix)
{
    return text.compare(0, std::strlen(prefix), prefix) == 0;
}

bool TrailMentions(const char* message)
{
    for (const lbTrailEntry& entry : lbGlobal.trail)
        if (entry.kind == lbTrailEntry::Kind::Message && entry.text == message) return true;
    return false;
}

std::string SecondsText(double seconds)
{
    std::ostringstream text;
    text << seconds;
    return text.str();
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

std::string ReadBlock(const std::string& path, std::string& reason)
{
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    std::string block(HEADER_SIZE + 1, '\0');
    const ssize_t n = fd < 0 ? -1 : pread(fd, &block[0], block.size(), 0);
    if (fd >= 0) close(fd);
    if (n != static_cast<ssize_t>(HEADER_SIZE)) {
        reason = "the header block was not written whole";
        return {};
    }
    block.resize(HEADER_SIZE);
    return block;
}

}  // namespace

buildCommand::buildCommand(buildOptions options) : _options(std::move(options)), _hashId(HashIdOf(_options.hash))
{
}

buildCommand::~buildCommand()
{
    for (int fd : _componentFds) close(fd);
}

uint32_t buildCommand::HashIdOf(const std::string& word)
{
    if (word == "sha384") return 5;
    if (word == "sha512") return 4;
    return 3;
}

void buildCommand::Run(std::ostream& report)
{
    ParseComponents();
    CheckUsage();
    OpenComponents();
    if (Production())
        PrepareVerifyKey();
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
    if (!_verifyKey.Load(keyPath, reason))
        Fail(exitStatus::signingFailed, "key '" + _options.key + "' (" + where + "): " + reason);
    _keyPaths.push_back(keyPath);
}

void buildCommand::PrepareVerifyKey()
{
    if (_options.verifyKey.empty()) return;
    std::string reason;
    if (!_verifyKey.Load(_options.verifyKey, reason)) Fail(exitStatus::signingFailed, "--verify-key " + reason);
    _keyPaths.push_back(_options.verifyKey);
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
    const size_t used = signature + RecordCount() * CompBlock::BYTES;
    if (used > HEADER_VARIABLE_SPACE) {
        const size_t most = (HEADER_VARIABLE_SPACE - signature) / CompBlock::BYTES;
        Fail(exitStatus::usage, std::to_string(RecordCount()) + " components" +
                                    (_options.table ? " (the table of contents included)" : "") +
                                    " do not fit in the header block with a " + std::to_string(signature) +
                                    "-byte signature (at most " + std::to_string(most) + ")");
    }
}

void buildCommand::BuildAndCommit(std::ostream& report)
{
    outputFile headerFile;
    std::string reason;
    if (!headerFile.Create(_options.output, reason)) Fail(exitStatus::fileSystem, reason);

    payloadCopier payload(_hashId, _options.headerOnly ? -1 : _output.Fd(), HEADER_SIZE);
    std::vector<std::string> names;
    std::vector<containerBuilder::component> parts;
    for (const componentWord& component : _components) {
        names.push_back(component.name);
        parts.push_back({component.name, component.path});
    }
    payload.Start(_componentFds, names, _options.table);

    // The table is made from the digests of the bytes copied, so it waits
    // for the copy; the library reads it, like any component, from a file.
    outputFile tableFile;
    containerBuilder::lastComponentSource table = nullptr;
    if (_options.table) {
        names.push_back(tableOfContents::COMPONENT_NAME);
        table = [&](containerBuilder::component& last) {
            std::string why;
            if (!payload.Finish(why) || !tableFile.Create(_options.output + ".table", why) ||
                pwrite(tableFile.Fd(), payload.TableBytes().data(), payload.TableBytes().size(), 0) !=
                    static_cast<ssize_t>(payload.TableBytes().size()))
                return false;
            last = {tableOfContents::COMPONENT_NAME, tableFile.TempPath()};
            return true;
        };
    }

    containerBuilder builder;
    bool built = false;
    std::string libraryMessages;
    agentTimer timer(_options.agentTimeout);
    {
        libraryConsole console(_options.verbose, [&timer](const std::string& line) {
            if (StartsWith(line, AGENT_REQUEST_TRACE)) timer.Arm();
            if (StartsWith(line, AGENT_ANSWER_TRACE)) timer.Disarm();
        });
        built = builder.Build(_options.key, _options.mode, _hashId, parts, headerFile.TempPath(), table);
        timer.Disarm();
        libraryMessages = console.Messages();
    }
    const bool copied = payload.Finish(reason);
    // A failed copy (a component that starts with the table's label, a read
    // or write error) also stops the table, so it is told first.
    if (!copied) Fail(payload.InputAtFault() ? exitStatus::badInput : exitStatus::fileSystem, reason);
    if (!built) ReportBuildFailure(builder, payload, timer, libraryMessages);
    if (!libraryMessages.empty()) std::cerr << libraryMessages << std::flush;

    SelfVerify(builder, payload, names);
    InstallHeader(headerFile.TempPath());
    if (!_output.Commit(reason)) Fail(exitStatus::fileSystem, reason);

    for (const builtRecord& record : builder.Records())
        report << "component " << record.name << " offset " << record.offset << " size " << record.size
               << " signature " << record.signature.size() << "\n";
    report << "wrote " << _options.output << "\n";
}

std::string buildCommand::SignerText() const
{
    return Production() ? "the signing agent at " + std::string(AGENT_ADDRESS) : "the key file";
}

void buildCommand::SelfVerify(const containerBuilder& builder, const payloadCopier& payload,
                              const std::vector<std::string>& names) const
{
    std::string reason;
    const selfVerifier verifier(builder.Records(), builder.ArchiveSignature(), payload, _hashId);
    if (!verifier.CheckLayout(names, reason)) Fail(exitStatus::signingFailed, reason + "; nothing was written");
    if (!verifier.CheckSignatureLengths(_verifyKey, reason))
        Fail(exitStatus::signingFailed, SignerText() + " gave " + reason + "; nothing was written");
    if (!verifier.CheckSignatures(_verifyKey, reason))
        Fail(exitStatus::signingFailed, reason + " under the " + (Production() ? "--verify-key" : "signing") +
                                            " key; nothing was written");
}

void buildCommand::ReportBuildFailure(const containerBuilder& builder, const payloadCopier& payload,
                                      const agentTimer& timer, const std::string& libraryMessages) const
{
    std::string message;
    exitStatus status = exitStatus::signingFailed;
    const selfVerifier verifier(builder.Records(), builder.ArchiveSignature(), payload, _hashId);
    if (builder.TooLarge() && !verifier.CheckSignatureLengths(_verifyKey, message)) {
        // Signatures of the wrong length are what overran the block.
        message = SignerText() + " gave " + message + "; nothing was written";
    } else if (Production() && timer.Expired()) {
        message = "the signing agent at " + std::string(AGENT_ADDRESS) + " did not answer within " +
                  SecondsText(timer.Seconds()) + " s (--agent-timeout) while signing the " + builder.Stage() + "; check that markforge-agent runs";
    } else if (builder.TooLarge()) {
        status = exitStatus::usage;
        message = "the signature and the table of " + std::to_string(_components.size()) +
                  " components do not fit in the 4096-byte header block; give fewer components";
    } else if (TrailMentions("Unable to read component file")) {
        status = exitStatus::badInput;
        message = "cannot read the " + builder.Stage() + " any more; was it removed while building?";
    } else if (builder.Stage() == "header block") {
        status = exitStatus::fileSystem;
        message = "cannot write the header block beside " + _options.output;
    } else if (Production()) {
        message = "signing the " + builder.Stage() + " through the signing agent at " + AGENT_ADDRESS +
                  " failed; check that markforge-agent runs and serves key '" + _options.key + "'";
    } else {
        message = "signing the " + builder.Stage() + " with key '" + _options.key +
                  "' failed; check that its file is a private markforge key file";
    }
    if (!libraryMessages.empty()) {
        message += "\n" + libraryMessages;
        if (message.back() == '\n') message.pop_back();
    }
    Fail(status, message);
}

void buildCommand::InstallHeader(const std::string& headerPath)
{
    std::string reason;
    const std::string block = ReadBlock(headerPath, reason);
    if (block.empty()) Fail(exitStatus::fileSystem, reason);
    if (pwrite(_output.Fd(), block.data(), block.size(), 0) != static_cast<ssize_t>(block.size()))
        Fail(exitStatus::fileSystem, "cannot write " + _options.output + ": " + std::strerror(errno));
}

}  // namespace markforge
