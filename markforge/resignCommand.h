// markforge::resignCommand: `markforge resign`, an existing container signed
// anew with another key. Payload, names, sizes, offsets and the table of
// contents stay; every signature is made anew by the signer the options
// name. The result is byte for byte what `build` makes from the extracted
// components with that key.
#pragma once

#include <ostream>
#include <string>

#include "signedOutput.h"
#include "signerSetup.h"

namespace markforge {

struct resignOptions {
    std::string file;
    std::string output;
    signerOptions signing;
};

class resignCommand {
public:
    explicit resignCommand(resignOptions options);

    // Throws commandFailure on any failure, with the output left untouched.
    void Run(std::ostream& report);

private:
    resignOptions _options;
    signerSetup _signing;
    signedOutput _output;
};

}  // namespace markforge
