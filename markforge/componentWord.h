// markforge::componentWord: one NAME=FILE word of the build command line.
#pragma once

#include <string>

#include "containerLayout.h"

namespace markforge {

class componentWord {
public:
    // The longest component name a builder accepts.
    static constexpr size_t MAX_NAME = MAX_COMPONENT_NAME;

    // Splits `word` at its first '='. False, with a one-line reason, when
    // there is no '=', the name is empty, longer than MAX_NAME or holds a
    // character other than printable ASCII without blanks, or the file part
    // is empty.
    bool Parse(const std::string& word, std::string& reason);

    std::string name;
    std::string path;
};

}  // namespace markforge
