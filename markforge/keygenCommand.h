// markforge::keygenCommand: `markforge keygen`, a development key pair.
#pragma once

#include <ostream>
#include <string>

class lbRsa;

namespace markforge {

class outputFile;

struct keygenOptions {
    unsigned bits = 0;
    std::string output;
    std::string publicOut;
};

class keygenCommand {
public:
    explicit keygenCommand(keygenOptions options) : _options(std::move(options)) {}

    // Writes the private key as a markforge key file (mode 0600) and, when
    // asked, its public half as PEM. Never overwrites a file. Throws
    // commandFailure.
    void Run(std::ostream& report);

private:
    void CheckOutputsAreNew() const;
    void WritePrivateKey(lbRsa& key, outputFile& file) const;

    keygenOptions _options;
};

}  // namespace markforge
