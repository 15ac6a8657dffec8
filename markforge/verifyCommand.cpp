// markforge::verifyCommand: key, container, one verifying pass, verdicts.
#include "verifyCommand.h"

#include "containerInput.h"
#include "containerReport.h"
#include "containerVerifier.h"
#include "exitStatus.h"

namespace markforge {

void verifyCommand::Run(std::ostream& out)
{
    publicKey key;
    containerInput::LoadKey(key, _options.key, "--key");
    containerReader reader;
    containerInput::Open(reader, _options.file);

    verifyResult result;
    std::string reason;
    if (!containerVerifier(reader.Contents(), reader.File(), key).Run(result, reason))
        throw commandFailure(exitStatus::fileSystem, reason);
    const containerReport report(_options.file, reader.Contents());
    if (_options.json)
        out << containerReport::JsonText(report.VerifyDocument(_options.key, key, result));
    else
        report.WriteVerifyText(out, result);
    out.flush();
    const size_t problems = result.Problems();
    if (problems > 0)
        throw commandFailure(exitStatus::problemsFound, _options.file + ": " + std::to_string(problems) + " of " +
                                                            std::to_string(reader.Contents().components.size() + 1) +
                                                            " signatures did not verify");
}

}  // namespace markforge
