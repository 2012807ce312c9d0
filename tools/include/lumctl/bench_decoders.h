// Decoder of the disk benchmark event. Returns the bytes it decoded, or 0
// when the payload is too short for its layout.
#pragma once

#include <cstddef>
#include <cstdint>

#include "lumctl/decoded.h"

namespace lumctl {

// status, progress, speed and processes (big-endian); the two zero bytes of
// the 12-byte variant are left to the rest.
size_t decode_benchmark(const uint8_t* data, size_t len, Decoded* out);

}  // namespace lumctl
