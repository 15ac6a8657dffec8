// markforge::buildCommand: `markforge build`, a signed container from
// component files.
#pragma once

#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "buildEngine.h"
#include "componentWord.h"
#include "outputFile.h"
#include "pluginHost.h"
#include "publicKey.h"
#include "signer.h"

namespace markforge {

struct buildOptions {
    std::string output;
    std::string key;
    std::string mode;
    std::string hash = "sha256";
    std::string keyDir;
    std::string plugin;
    std::string pluginArg;
    bool pluginArgGiven = false;
    std::string verifyKey;
    bool headerOnly = false;
    bool table = false;
    bool verbose = false;
    bool allowEmpty = false;
    double agentTimeout = 60;
    std::vector<std::string> components;
};

class buildCommand {
public:
    explicit buildCommand(buildOptions options);
    ~buildCommand();
    buildCommand(const buildCommand&) = delete;
    buildCommand& operator=(const buildCommand&) = delete;

    // Builds, self-verifies and writes the container; the short report goes
    // to `report`. Throws commandFailure on any failure, with the output
    // left untouched.
    void Run(std::ostream& report);


private:
    bool Production() const { return _options.mode == "production"; }
    void ParseComponents();
    void CheckUsage() const;
    void OpenComponents();
    void PrepareDevelopmentKey();
    void PrepareVerifyKey();
    void CheckOutputIsNoInput() const;
    void CheckComponentsFit() const;
    size_t RecordCount() const { return _components.size() + (_options.table ? 1 : 0); }
    void PrepareAgent();
    void BuildAndCommit(std::ostream& report);
    void SelfVerify(const engineResult& built) const;
    [[noreturn]] void ReportBuildFailure(const engineResult& built, const engineFailure& failure) const;
    // Who made the signatures, for messages.
    std::string SignerText() const;

    buildOptions _options;
    uint32_t _hashId;
    std::vector<componentWord> _components;
    std::vector<int> _componentFds;
    std::vector<std::string> _keyPaths;  // inputs the output must not replace
    pluginHost _plugins;
    std::unique_ptr<signer> _signer;
    publicKey _verifyKey;
    outputFile _output;
};

}  // namespace markforge
