// The inputs of the unpackers' fuzz programs: a byte that chooses the message and whether the
// allocator refuses, then the message.
#pragma once

#include <cstdint>

#include "fuzz/messages.hpp"

namespace kel::fuzz {

const Message& chosenMessage(uint8_t choice);
inline bool refusesAllocations(uint8_t choice) { return choice >= 0xE0; }

}  // namespace kel::fuzz
