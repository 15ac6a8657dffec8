// markforge::containerInput: opening the container a reading command names,
// with the exit status each failure ends in.
#pragma once

#include <string>

#include "containerReader.h"
#include "publicKey.h"

namespace markforge {

class containerInput {
public:
    // Reads `path` into `reader`. Throws commandFailure: file system (4) when
    // the file cannot be read, bad input (3) when it is no container, with
    // the library's own messages after our line.
    static void Open(containerReader& reader, const std::string& path);
    // Reads the key file `path` named by `option`. Throws commandFailure:
    // file system (4) when it cannot be read, bad input (3) when it holds no
    // key.
    static void LoadKey(publicKey& key, const std::string& path, const std::string& option);
};

}  // namespace markforge
