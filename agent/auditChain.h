// The hash chain of the audit log. Every line carries, as its last member
// "prev", the SHA-256 (lower-case hex) of the line before it, so that a line
// removed, changed or moved breaks the chain at the line after it. The first
// line of a log file has "prev": null when the log starts there, or the hash
// of the last line of the file before it (after a rotation, or when the
// agent starts again on an existing file). What the chain cannot show: lines
// cut off the end, or a file replaced whole by one with a chain of its own;
// the last hash, kept elsewhere, shows both.
#pragma once

#include <cstddef>
#include <string>

namespace agent {

class AuditChain {
public:
    // The hash the next line names: of `line` without its newline.
    static std::string HashOf(const std::string& line);
    // The hash of the last complete line of the file at `path`, or "" when
    // the file is missing or empty. A file that does not end in a newline
    // ends in a cut line: its hash is taken as it is, and `cut` is set.
    static std::string LastHashOf(const std::string& path, bool& cut);
};

// Checks the chain of one or more log files, read line by line in order.
class AuditChainCheck {
public:
    // One line, without its newline. False when it breaks the chain; the
    // reason is in Failure().
    bool Add(const std::string& line);
    // The next line comes from another file (the files are checked in
    // the order given): its first line must name the last hash so far.
    void NextFile() { _lineInFile = 0; }

    size_t Lines() const { return _lines; }
    size_t LineInFile() const { return _lineInFile; }
    size_t Signatures() const { return _signatures; }
    const std::string& LastHash() const { return _last; }
    const std::string& Failure() const { return _failure; }

private:
    size_t _lines = 0;
    size_t _lineInFile = 0;
    size_t _signatures = 0;
    std::string _last;
    std::string _failure;
};

}  // namespace agent
