// Decoders of the PVR events: the chosen partition's path, the marking's
// verdict and the guide record. Each returns the bytes it decoded, or 0 when
// the payload is too short for its layout.
#pragma once

#include <cstddef>
#include <cstdint>

#include "lumctl/decoded.h"

namespace lumctl {

// The name of an EStoragePvrFlag ("capacity smaller than the limit"), or
// null for a number outside the enumeration.
const char* pvr_verdict_name(int32_t verdict);

size_t decode_path_text(const uint8_t* data, size_t len, Decoded* out);
size_t decode_mark_info(const uint8_t* data, size_t len, Decoded* out);
size_t decode_guide(const uint8_t* data, size_t len, Decoded* out);

}  // namespace lumctl
