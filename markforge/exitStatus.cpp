// The meanings of markforge's exit statuses, for help screens.
#include "exitStatus.h"

namespace markforge {

const char* ExitStatusMeaning(exitStatus status)
{
    switch (status) {
    case exitStatus::ok: return "success";
    case exitStatus::problemsFound: return "verify found at least one problem";
    case exitStatus::usage: return "usage error";
    case exitStatus::badInput: return "an input is unreadable or malformed";
    case exitStatus::fileSystem: return "file system or plug-in error";
    case exitStatus::signingFailed: return "signing failed (key, signing agent, signing helper, self-verification)";
    case exitStatus::signatureMissing: return "a request has no signature file NAME.sig";
    case exitStatus::signatureExtra: return "a .sig file in the folder answers no request";
    case exitStatus::signatureNotForRequest:
        return "a signature is not the key's over its request's value (another request's, another key's)";
    case exitStatus::imageNotRequested: return "the image is not the one the requests were made for";
    }
    return "";
}

std::string ExitStatusText(std::initializer_list<exitStatus> statuses)
{
    std::string text = "Exit status:\n";
    for (exitStatus status : statuses)
        text += "  " + std::to_string(static_cast<int>(status)) + "  " + ExitStatusMeaning(status) + "\n";
    return text;
}

}  // namespace markforge
