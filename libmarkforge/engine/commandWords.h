// markforge::commandWords: a command line given as one text (a signing
// helper's), split into words the way a POSIX shell splits a simple command,
// without running a shell and without expanding anything: blanks separate
// words; '...' keeps everything literally; "..." keeps everything but
// lets a backslash escape ", \, $ and `; a backslash outside quotes keeps
// the next character. A user who wants a shell writes `sh -c '...'`.
#pragma once

#include <string>
#include <vector>

namespace markforge {

// False, with a one-line reason, for an unterminated quote, a trailing
// backslash or a text without any word.
bool SplitCommandWords(const std::string& text, std::vector<std::string>& words, std::string& reason);

}  // namespace markforge
