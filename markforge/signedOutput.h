// markforge::signedOutput: the container that build, resign and attach
// write: the engine's payload into a temporary file, the header block once
// the signatures are checked, for an offline build the requests bound to
// the finished file, and the renames. Until Commit, nothing replaces
// anything; on any failure both temporary files go.
#pragma once

#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "buildEngine.h"
#include "outputFile.h"
#include "signingRequests.h"

namespace markforge {

class signerSetup;

class signedOutput {
public:
    // `requestsPath` only for an offline build.
    signedOutput(std::string path, bool headerOnly, std::string requestsPath);

    // Makes the temporary files. Throws commandFailure (file system).
    void Create();

    using failureTeller = std::function<void(const engineResult&, const engineFailure&)>;
    // Runs the engine onto the temporary file; a failure goes to `tell`,
    // which ends the command.
    engineResult Build(signer& signs, engineSettings settings, const std::vector<engineInput>& inputs,
                       const failureTeller& tell);
    // Writes the header block and, when `requests` is given, the requests
    // bound to the file's SHA-256; then renames. Throws commandFailure.
    void Commit(const engineResult& built, signingRequests* requests);

    // Build, the checks of `signing`'s signer, `check` (which throws to
    // stop), and Commit: all of build and resign after their inputs are open.
    engineResult BuildSignAndCommit(signerSetup& signing, const engineSettings& settings,
                                    const std::vector<engineInput>& inputs,
                                    const std::function<void(const engineResult&)>& check = nullptr);

    // The lines build, resign and attach print on success.
    void Report(std::ostream& report, const engineResult& built) const;

private:
    std::string _path;
    bool _headerOnly;
    std::string _requestsPath;
    outputFile _output;
    outputFile _requests;
};

}  // namespace markforge
