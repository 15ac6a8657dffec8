// markforge::containerSource: an existing container as the input of a new
// build (resign, attach). Its records must tile its payload exactly, name
// distinct components, and, when it has a table of contents, agree with it;
// its signatures are neither needed nor trusted. The components become the
// engine's inputs, read straight from the container file, and the table is
// made anew from them.
#pragma once

#include <string>
#include <vector>

#include "buildEngine.h"
#include "containerReader.h"
#include "tableCheck.h"

namespace markforge {

class containerSource {
public:
    // Reads and checks the container at `path`. Throws commandFailure: file
    // system (4) when it cannot be read, bad input (3) when it is no
    // container or does not hold together.
    explicit containerSource(const std::string& path);

    const containerContents& Contents() const { return _reader.Contents(); }
    bool HasTable() const { return _table.present; }
    // The hash the container's components are hashed with.
    uint32_t HashId() const { return Contents().DigestHashId(); }
    // Every record's name, the table's included.
    std::vector<std::string> RecordNames() const;
    // The components other than the table, as ranges of the container file.
    std::vector<engineInput> Inputs() const;
    // Throws commandFailure (bad input) when the table built anew is not
    // the one the container holds (its digests are not the components').
    void CheckTableKept(const engineResult& built) const;
    // SHA-256 of the whole file.
    std::vector<uint8_t> FileSha256() const;

private:
    void CheckLayout() const;
    void CheckTable();

    std::string _path;
    containerReader _reader;
    tableReport _table;
    std::vector<uint8_t> _tableBytes;
};

}  // namespace markforge
