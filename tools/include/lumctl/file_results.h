// The one-byte results of the file operations' events: each event's bytes
// and their words, one table, for watch and for the file subcommands.
#pragma once

#include <cstddef>
#include <cstdint>

#include "lumctl/decoded.h"

namespace lumctl {

// True when id is one of the events whose payload is one result byte
// (CREATE_DIR, DELETE_DIR, DELETE_FILE, SET_PROTECTED, COPY, RENAME_FILE,
// MOVE_FILE, WRITE_FILE).
bool is_result_event(int32_t id);

// The word of result for the event ("protected"); values without a row of
// their own get the event's word for the others ("cp failed"). Null when id
// is not a result event.
const char* result_word(int32_t id, uint8_t result);

// A result event's payload: "result" as a number, its text with the word
// ("2 (protected)"). Returns the bytes decoded: 1, or 0 for an empty payload.
size_t decode_result_event(int32_t id, const uint8_t* data, size_t len, Decoded* out);

// LUM_TV_EVT_STORAGE_OUT_OF_SPACE: "command", the low byte of the event id
// of the operation that ran out of space (0x11: the copy).
size_t decode_out_of_space(const uint8_t* data, size_t len, Decoded* out);

}  // namespace lumctl
