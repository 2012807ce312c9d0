// Event names and payload decoders. Decoders are rows of one table in
// event_decoders.cpp; an event without a row is shown as hex.
#pragma once

#include <cstddef>
#include <cstdint>

#include "lumctl/decoded.h"

namespace lumctl {

// Name from StorageEventList.h, or null for an unknown id.
const char* event_name(int32_t id);

// Decodes by the event's row; without one the payload becomes a "hex"
// field. A payload too short for its row gives complete = false and all of
// its bytes in rest.
Decoded decode_event(int32_t id, const uint8_t* data, size_t len);

}  // namespace lumctl
