// markforge::extractCommand: `markforge extract`, one component's bytes, the
// header signature or the whole payload, to a file.
#pragma once

#include <string>

namespace markforge {

struct extractOptions {
    std::string file;
    std::string component;
    bool componentGiven = false;
    bool headerSignature = false;
    bool payload = false;
    std::string output;
};

class extractCommand {
public:
    explicit extractCommand(extractOptions options) : _options(std::move(options)) {}
    // Writes OUT through a temporary file; throws commandFailure on failure,
    // with OUT left untouched.
    void Run();

private:
    void CheckUsage() const;
    void CheckOutputIsNotTheContainer() const;

    extractOptions _options;
};

}  // namespace markforge
