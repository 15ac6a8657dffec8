// markforge::outputFile: an output written through a temporary file in the
// same folder, renamed over its final path only when everything succeeded.
#pragma once

#include <string>

namespace markforge {

class outputFile {
public:
    outputFile() = default;
    // Removes the temporary file unless it was committed.
    ~outputFile();
    outputFile(const outputFile&) = delete;
    outputFile& operator=(const outputFile&) = delete;

    // Creates an empty temporary file beside `finalPath`. False, with a
    // one-line reason, when the folder does not allow it.
    bool Create(const std::string& finalPath, std::string& reason);

    int Fd() const { return _fd; }
    const std::string& TempPath() const { return _tempPath; }
    const std::string& FinalPath() const { return _finalPath; }

    // Gives the file the mode a new file gets under the umask, closes it and
    // renames it over the final path.
    bool Commit(std::string& reason);
    // The same, but fails when the final path exists: nothing is replaced.
    // A private file keeps mode 0600; any other gets the umask's mode.
    bool CommitWithoutReplacing(bool keepPrivate, std::string& reason);

    // Removes the temporary files of every live outputFile, and then ends the
    // process by the signal's default action: Ctrl-C leaves nothing behind.
    static void RemoveTemporariesOnSignals();

private:
    bool CloseFile(std::string& reason);
    bool SetUmaskMode(std::string& reason);
    void Discard();

    int _fd = -1;
    int _slot = -1;
    bool _committed = false;
    std::string _tempPath;
    std::string _finalPath;
};

}  // namespace markforge
