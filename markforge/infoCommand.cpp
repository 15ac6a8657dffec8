// markforge::infoCommand: read, look up signers, print.
#include "infoCommand.h"

#include "containerInput.h"
#include "containerReport.h"
#include "exitStatus.h"
#include "keyring.h"
#include "tableCheck.h"

namespace markforge {

void infoCommand::Run(std::ostream& out)
{
    keyring signers;
    std::string reason;
    const bool withKeyring = !_options.keyring.empty();
    if (withKeyring && !signers.Load(_options.keyring, reason)) throw commandFailure(exitStatus::fileSystem, reason);

    containerReader reader;
    containerInput::Open(reader, _options.file);
    const containerReport report(_options.file, reader.Contents());
    const keyring* used = withKeyring ? &signers : nullptr;
    const tableReport table = tableCheck::Read(reader.Contents(), reader.File());
    if (_options.json)
        out << containerReport::JsonText(report.InfoDocument(used, table));
    else
        report.WriteInfoText(out, used, table);
}

}  // namespace markforge
