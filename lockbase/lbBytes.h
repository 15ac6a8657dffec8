// lbBytes: the framework's byte buffer, an ordinary growable byte vector.
#pragma once

#include <cstdint>
#include <vector>

#include "lbBase.h"

class lbBytes : public lbBase {
public:
    lbBytes() { LB_CONSTRUCTOR(); }
    virtual ~lbBytes() { LB_DESTRUCTOR_CHECK("virtual lbBytes::~lbBytes()"); }

    // Replaces the buffer's content with `bytes`.
    bool ImportFromV(std::vector<uint8_t> bytes)
    {
        buffer = std::move(bytes);
        return true;
    }

    // The bytes, read and appended to directly.
    std::vector<uint8_t> buffer;
};
