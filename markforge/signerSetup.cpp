// markforge::signerSetup: option checks, the four signers, and how their
// failures are told.
#include "signerSetup.h"

#include <sys/stat.h>

#include <iostream>

#include "agentSigner.h"
#include "commandWords.h"
#include "containerLayout.h"
#include "digestStream.h"
#include "exitStatus.h"
#include "helperSigner.h"
#include "keyFileSigner.h"
#include "offlineSigner.h"
#include "programPaths.h"
#include "selfVerifier.h"
#include "signAgentProtocol.h"
#include "signingRequests.h"

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

bool IsFolder(const std::string& path)
{
    struct stat info;
    return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

}  // namespace

signerSetup::signerSetup(signerOptions options)
    : _options(std::move(options)), _modeWord(_options.helper.empty() ? _options.mode : "helper")
{
}

void signerSetup::CheckUsage() const
{
    CheckModeChoice();
    if (_options.key.empty()) Fail(exitStatus::usage, "--key must not be empty");
    CheckKeyOptions();
    if (Production() && _options.key.size() > MAX_AGENT_KEY_NAME)
        Fail(exitStatus::usage, "key name '" + _options.key + "' is longer than the " +
                                    std::to_string(MAX_AGENT_KEY_NAME) + " characters the signing agent receives");
    if (!(_options.agentTimeout > 0)) Fail(exitStatus::usage, "--agent-timeout must be above 0 seconds");
    if (!(_options.helperTimeout > 0)) Fail(exitStatus::usage, "--helper-timeout must be above 0 seconds");
    if (Production() && _options.publicKey.empty())
        Fail(exitStatus::usage, "production mode needs --verify-key PUBKEY: any program can answer on " +
                                    std::string(AGENT_ADDRESS) + ", so every signature it gives is checked against " +
                                    "the release key's public half before the output is written");
    if ((Offline() || Helper()) && _options.publicKey.empty())
        Fail(exitStatus::usage, std::string(Offline() ? "offline mode" : "--signing-helper") +
                                    " needs --public-key PUB, the public half of the key that signs");
    if (Offline() != !_options.requests.empty())
        Fail(exitStatus::usage, Offline() ? "offline mode needs --requests REQ.json, where the requests are written"
                                          : "--requests is for offline mode (--mode offline)");
}

void signerSetup::CheckModeChoice() const
{
    if (Helper() && !_options.mode.empty())
        Fail(exitStatus::usage, "--signing-helper is the signer; leave out --mode");
    if (!Helper() && _options.mode.empty())
        Fail(exitStatus::usage, "say how to sign: --mode development|production|offline, or --signing-helper CMD");
}

void signerSetup::CheckKeyOptions() const
{
    const bool hasPlugin = !_options.keyDir.empty() || !_options.plugin.empty();
    if (!Development() && hasPlugin)
        Fail(exitStatus::usage, "--key-dir and --plugin name development keys; production mode signs through the agent");
    if (Development() && !hasPlugin)
        Fail(exitStatus::usage, "development mode needs --key-dir DIR or --plugin FILE.so to find the key");
    if (Development() && !_options.publicKey.empty())
        Fail(exitStatus::usage, "--verify-key is for production mode; development builds verify with the key file itself");
}

void signerSetup::Prepare()
{
    if (Development())
        PrepareDevelopmentKey();
    else
        PreparePublicKey();
    if (Production()) PrepareAgent();
    if (Offline()) _signer = std::make_unique<offlineSigner>(_key.ModulusBytes());
    if (Helper()) PrepareHelper();
}

void signerSetup::PrepareDevelopmentKey()
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
    if (!_key.Load(keyPath, reason) || !keyFile->Load(keyPath, reason))
        Fail(exitStatus::signingFailed, "key '" + _options.key + "' (" + where + "): " + reason);
    _signer = std::move(keyFile);
    _keyPaths.push_back(keyPath);
}

void signerSetup::PreparePublicKey()
{
    std::string reason;
    const std::string option = Production() ? "--verify-key " : "--public-key ";
    if (!_key.Load(_options.publicKey, reason)) Fail(exitStatus::signingFailed, option + reason);
    _keyPaths.push_back(_options.publicKey);
}

void signerSetup::PrepareAgent()
{
    auto agent = std::make_unique<agentSigner>(_options.key, _options.agentTimeout);
    if (_options.verbose) agent->SetTrace([](const std::string& line) { std::cerr << ("markforge: " + line + "\n"); });
    _signer = std::move(agent);
}

void signerSetup::PrepareHelper()
{
    std::vector<std::string> words;
    std::string reason;
    if (!SplitCommandWords(_options.helper, words, reason)) Fail(exitStatus::usage, "--signing-helper: " + reason);
    _signer = std::make_unique<helperSigner>(std::move(words), _options.key, _key, _options.helperTimeout);
}

void signerSetup::CheckRequestNames(const std::vector<std::string>& names, size_t records) const
{
    if (!Offline()) return;
    for (const std::string& name : names) {
        if (!signingRequests::NameFitsFile(name))
            Fail(exitStatus::usage, "component name '" + name + "' cannot name its signature file NAME.sig " +
                                        "(printable characters without blanks or '/'); offline mode needs that");
        if (name == "archive" && records != 1)
            Fail(exitStatus::usage, "a component named 'archive' would share archive.sig with the archive "
                                    "signature; offline mode needs another name");
    }
}

void signerSetup::CheckRecordsFit(size_t records, bool withTable) const
{
    const size_t signature = _key.ModulusBytes();
    if (FitsInHeader(signature, records)) return;
    Fail(exitStatus::usage, std::to_string(records) + " components" +
                                (withTable ? " (the table of contents included)" : "") +
                                " do not fit in the header block with a " + std::to_string(signature) +
                                "-byte signature (at most " + std::to_string(MostRecords(signature)) + ")");
}

signingRequests signerSetup::RequestsFor(const engineResult& built, uint32_t hashId) const
{
    signingRequests requests;
    requests.keyName = _options.key;
    requests.publicKeyPem = _key.PemText();
    requests.keyFingerprint = _key.Fingerprint();
    requests.modulusBits = static_cast<uint32_t>(_key.ModulusBytes() * 8);
    requests.hashId = hashId;
    const auto add = [&requests, hashId](const std::string& fieldF, const std::vector<uint8_t>& digest) {
        requests.requests.push_back({fieldF, digest, SignedDigestOf(hashId, digest)});
    };
    for (const builtComponent& component : built.components) add(component.name, component.digest);
    if (built.components.size() != 1) add("archive", built.archiveDigest);
    return requests;
}

std::string signerSetup::SignerText() const
{
    if (Production()) return "the signing agent at " + AGENT_ADDRESS;
    if (Helper()) return _signer->Describe();
    return "the key file";
}

void signerSetup::SelfVerify(const engineResult& built, uint32_t hashId) const
{
    if (Offline()) return;
    std::string reason;
    const selfVerifier verifier(built, hashId);
    if (!verifier.CheckSignatureLengths(_key, reason))
        Fail(exitStatus::signingFailed, SignerText() + " gave " + reason + "; nothing was written");
    if (!verifier.CheckSignatures(_key, reason))
        Fail(exitStatus::signingFailed, reason + " under the " +
                                            (Production() ? "--verify-key" : Helper() ? "--public-key" : "signing") +
                                            " key; nothing was written");
}

void signerSetup::ReportBuildFailure(const engineResult& built, const engineFailure& failure, uint32_t hashId) const
{
    switch (failure.what) {
    case engineFailure::kind::input: Fail(exitStatus::badInput, failure.message);
    case engineFailure::kind::output: Fail(exitStatus::fileSystem, failure.message);
    case engineFailure::kind::tooLarge: {
        // Answers of the wrong length are what overran the block.
        std::string reason;
        if (!selfVerifier(built, hashId).CheckSignatureLengths(_key, reason))
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
    if (Helper())
        Fail(exitStatus::signingFailed, "signing the " + failure.stage + " failed: " + failure.message +
                                            "; nothing was written");
    Fail(exitStatus::signingFailed,
         "signing the " + failure.stage + " with key '" + _options.key + "' failed: " + failure.message);
}

}  // namespace markforge
