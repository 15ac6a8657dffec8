// markforge::resignCommand: the container's components through the engine
// with the new signer.
#include "resignCommand.h"

#include "containerSource.h"

namespace markforge {

resignCommand::resignCommand(resignOptions options)
    : _options(std::move(options)),
      _signing(_options.signing),
      _output(_options.output, false, _options.signing.requests)
{
}

void resignCommand::Run(std::ostream& report)
{
    _signing.CheckUsage();
    const containerSource source(_options.file);
    const std::vector<std::string> names = source.RecordNames();
    _signing.CheckRequestNames(names, names.size());
    _signing.Prepare();
    _signing.CheckRecordsFit(names.size(), source.HasTable());
    _output.Create();

    engineSettings settings;
    settings.keyName = _options.signing.key;
    settings.mode = _signing.ModeWord();
    settings.hashId = source.HashId();
    settings.table = source.HasTable();
    const engineResult built = _output.BuildSignAndCommit(
        _signing, settings, source.Inputs(), [&source](const engineResult& made) { source.CheckTableKept(made); });
    _output.Report(report, built);
}

}  // namespace markforge
