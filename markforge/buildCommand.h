// markforge::buildCommand: `markforge build`, a signed container from
// component files.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "componentWord.h"
#include "signedOutput.h"
#include "signerSetup.h"

namespace markforge {

struct buildOptions {
    std::string output;
    signerOptions signing;
    std::string hash = "sha256";
    bool headerOnly = false;
    bool table = false;
    bool allowEmpty = false;
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
    void ParseComponents();
    void CheckUsage() const;
    void OpenComponents();
    void CheckOutputIsNoInput() const;
    size_t RecordCount() const { return _components.size() + (_options.table ? 1 : 0); }
    void BuildAndCommit(std::ostream& report);

    buildOptions _options;
    uint32_t _hashId;
    std::vector<componentWord> _components;
    std::vector<int> _componentFds;
    signerSetup _signing;
    signedOutput _output;
};

}  // namespace markforge
