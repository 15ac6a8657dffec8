// markforge::signerSetup: the signer options that build and resign share
// (--key, --mode, --key-dir, --plugin, --verify-key/--public-key,
// --agent-timeout, --signing-helper, --helper-timeout, --requests), checked
// together, and the signer and public key they name.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "buildEngine.h"
#include "pluginHost.h"
#include "publicKey.h"
#include "signer.h"
#include "signingRequests.h"

namespace markforge {

struct signerOptions {
    std::string key;
    std::string mode;  // development, production, offline; empty with a signing helper
    std::string keyDir;
    std::string plugin;
    std::string pluginArg;
    bool pluginArgGiven = false;
    std::string publicKey;  // --verify-key / --public-key
    double agentTimeout = 60;
    std::string helper;     // --signing-helper: the command as one text
    double helperTimeout = 60;
    std::string requests;   // --requests: offline only
    bool verbose = false;
};

class signerSetup {
public:
    explicit signerSetup(signerOptions options);

    // Throws commandFailure (usage) for options that do not go together.
    void CheckUsage() const;
    // Loads the key or plug-in and makes the signer. Throws commandFailure.
    void Prepare();

    bool Offline() const { return _options.mode == "offline"; }
    bool Helper() const { return !_options.helper.empty(); }
    const signerOptions& Options() const { return _options; }
    // The mode word the archive is opened with.
    const std::string& ModeWord() const { return _modeWord; }
    signer& Signer() { return *_signer; }
    // The public half every signature is checked with.
    const publicKey& Key() const { return _key; }
    // The key files read, which no output may replace.
    const std::vector<std::string>& KeyPaths() const { return _keyPaths; }

    // Offline signatures are files NAME.sig beside archive.sig: every name
    // must fit a file and none may be "archive" while the archive has a
    // request of its own. Throws commandFailure (usage) otherwise.
    void CheckRequestNames(const std::vector<std::string>& names, size_t records) const;
    // Throws commandFailure (usage) when `records` records (the table's
    // among them when `withTable`) and a signature by the key do not fit the
    // header block.
    void CheckRecordsFit(size_t records, bool withTable) const;
    // The requests of an offline build: each component, then the archive
    // unless one component signs for it. The image's SHA-256 is left to
    // the writer.
    signingRequests RequestsFor(const engineResult& built, uint32_t hashId) const;
    // Checks the signatures of a fresh build (nothing to check offline).
    // Throws commandFailure (signing failed).
    void SelfVerify(const engineResult& built, uint32_t hashId) const;
    // Ends the command with the engine's failure, told for this signer.
    [[noreturn]] void ReportBuildFailure(const engineResult& built, const engineFailure& failure,
                                         uint32_t hashId) const;

private:
    bool Production() const { return _options.mode == "production"; }
    bool Development() const { return _options.mode == "development"; }
    void CheckModeChoice() const;
    void CheckKeyOptions() const;
    void PrepareDevelopmentKey();
    void PreparePublicKey();
    void PrepareAgent();
    void PrepareHelper();
    // Who made the signatures, for messages.
    std::string SignerText() const;

    signerOptions _options;
    std::string _modeWord;
    pluginHost _plugins;
    std::unique_ptr<signer> _signer;
    publicKey _key;
    std::vector<std::string> _keyPaths;
};

}  // namespace markforge
