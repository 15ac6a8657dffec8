// markforge::infoCommand: `markforge info`, what a container holds and,
// with a keyring, which key signed each part.
#pragma once

#include <ostream>
#include <string>

namespace markforge {

struct infoOptions {
    std::string file;
    std::string keyring;
    bool json = false;
};

class infoCommand {
public:
    explicit infoCommand(infoOptions options) : _options(std::move(options)) {}
    // Writes the report to `out`; throws commandFailure on failure.
    void Run(std::ostream& out);

private:
    infoOptions _options;
};

}  // namespace markforge
