// The exit statuses of the markforge program, and the failure that carries
// one out of a command.
#pragma once

#include <initializer_list>
#include <stdexcept>
#include <string>

namespace markforge {

enum class exitStatus : int {
    ok = 0,
    problemsFound = 1,   // verify: at least one verdict is not ok
    usage = 2,           // the command line is wrong
    badInput = 3,        // an input is unreadable or malformed
    fileSystem = 4,      // a file or folder cannot be made, or a plug-in not loaded
    signingFailed = 5,   // key, signing agent or self-verification
    // attach: the signatures folder and the requests do not match
    signatureMissing = 6,      // a request has no NAME.sig
    signatureExtra = 7,        // a NAME.sig answers no request
    signatureNotForRequest = 8,  // a NAME.sig is not the key's signature over its request's value
    imageNotRequested = 9,     // the image is not the one the requests were made for
};

// What `status` means, one line for help screens.
const char* ExitStatusMeaning(exitStatus status);
// The "Exit status:" table of a help screen, listing `statuses`.
std::string ExitStatusText(std::initializer_list<exitStatus> statuses);

// Thrown by a command to end it: the status and one line saying what failed
// and what to do.
class commandFailure : public std::runtime_error {
public:
    commandFailure(exitStatus status, const std::string& message) : std::runtime_error(message), _status(status) {}
    exitStatus Status() const { return _status; }

private:
    exitStatus _status;
};

}  // namespace markforge
