// markforge::helperSigner: one helper run per signature, its answer checked.
#include "helperSigner.h"

#include "digestStream.h"
#include "helperProcess.h"

namespace markforge {

helperSigner::helperSigner(std::vector<std::string> words, std::string keyName, const publicKey& key,
                           double timeoutSeconds)
    : _words(std::move(words)), _keyName(std::move(keyName)), _key(key), _timeout(timeoutSeconds)
{
}

std::string helperSigner::Describe() const
{
    return "the signing helper " + _words.front();
}

std::string helperSigner::Failure(const std::string& what, const helperRun& run) const
{
    std::string text = Describe() + " " + what;
    const std::string lines = run.LastErrorLines(ERROR_LINES);
    if (!lines.empty()) text += "; its standard error ended with: " + lines;
    return text;
}

signatureResult helperSigner::Sign(const signatureRequest& request)
{
    helperCall call;
    call.words = _words;
    call.environment = {"MARKFORGE_KEY_NAME=" + _keyName,
                        std::string("MARKFORGE_HASH=") + digestStream::WordOf(request.hashId),
                        "MARKFORGE_FIELD_F=" + request.fieldF};
    call.input = request.toSign;
    call.outputLimit = _key.ModulusBytes();
    call.timeoutSeconds = _timeout;
    const helperRun run = helperProcess::Run(call);

    if (!run.started || run.timedOut || run.signal || run.exitCode != 0)
        return signatureResult::Failed(Failure(run.EndText(), run));
    if (run.outputTooLong || run.output.size() != _key.ModulusBytes())
        return signatureResult::Failed(Failure(
            "exited with status 0 but answered " + (run.outputTooLong ? "more than " : std::string()) +
                std::to_string(run.output.size()) + " bytes, where a signature by the key is " +
                std::to_string(_key.ModulusBytes()) + " bytes",
            run));
    if (!_key.Verifies(run.output, request.toSign))
        return signatureResult::Failed(
            Failure("exited with status 0 but its answer is not a signature by the key over the value", run));
    signatureResult result;
    result.signature = run.output;
    return result;
}

}  // namespace markforge
