// Whole writes to a descriptor: every byte, retried after a signal, or false
// with errno saying why.
#pragma once

#include <cstddef>
#include <cstdint>

namespace markforge {

// Writes all `length` bytes at the descriptor's position.
bool WriteAll(int fd, const uint8_t* data, size_t length);
// Writes all `length` bytes at `offset`, leaving the position alone.
bool WriteAllAt(int fd, const uint8_t* data, size_t length, uint64_t offset);

}  // namespace markforge
