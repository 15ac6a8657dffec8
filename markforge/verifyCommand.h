// markforge::verifyCommand: `markforge verify`, a verdict on every component
// signature and on the archive signature under one key.
#pragma once

#include <ostream>
#include <string>

namespace markforge {

struct verifyOptions {
    std::string file;
    std::string key;
    bool json = false;
    bool requireTable = false;
};

class verifyCommand {
public:
    explicit verifyCommand(verifyOptions options) : _options(std::move(options)) {}
    // Writes the verdicts to `out`; throws commandFailure with status 1 when
    // any verdict is not ok, and with its own status on other failures.
    void Run(std::ostream& out);

private:
    verifyOptions _options;
};

}  // namespace markforge
