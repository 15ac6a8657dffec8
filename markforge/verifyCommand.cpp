// markforge::verifyCommand: key, container, one verifying pass, verdicts.
#include "verifyCommand.h"

#include "containerInput.h"
#include "containerReport.h"
#include "containerVerifier.h"
#include "exitStatus.h"

namespace markforge {
namespace {

std::string Counted(size_t count, const char* one, const char* many)
{
    return std::to_string(count) + " " + (count == 1 ? one : many);
}

// "2 of 4 signatures did not verify, 1 layout problem", naming only the
// kinds of problem found.
std::string ProblemSummary(const verifyResult& result, size_t records)
{
    const size_t layout = result.layout.size();
    const size_t table = result.TableProblems();
    const size_t signatures = result.Problems() - layout - table;
    std::string text;
    const auto add = [&text](const std::string& part) { text += (text.empty() ? "" : ", ") + part; };
    if (signatures) add(std::to_string(signatures) + " of " + std::to_string(records + 1) + " signatures did not verify");
    if (layout) add(Counted(layout, "layout problem", "layout problems"));
    if (table) add(Counted(table, "table problem", "table problems"));
    return text;
}

}  // namespace

void verifyCommand::Run(std::ostream& out)
{
    publicKey key;
    containerInput::LoadKey(key, _options.key, "--key");
    containerReader reader;
    containerInput::Open(reader, _options.file);

    verifyResult result;
    std::string reason;
    verifyPolicy policy;
    policy.requireTable = _options.requireTable;
    if (!containerVerifier(reader.Contents(), reader.File(), key, policy).Run(result, reason))
        throw commandFailure(exitStatus::fileSystem, reason);
    const containerReport report(_options.file, reader.Contents());
    if (_options.json)
        out << containerReport::JsonText(report.VerifyDocument(_options.key, key, result));
    else
        report.WriteVerifyText(out, result);
    out.flush();
    if (result.Problems() > 0)
        throw commandFailure(exitStatus::problemsFound,
                             _options.file + ": " + ProblemSummary(result, reader.Contents().components.size()));
}

}  // namespace markforge
