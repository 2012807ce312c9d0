// The command table of lumstoragectl, made from StorageCmdList.h.
#pragma once

#include <cstddef>
#include <cstdint>

namespace lumctl {

struct CmdRow {
    const char* name;     // e.g. "STORAGE_DEV_MOUNT"
    int32_t value;        // the command word
    const char* request;  // field letters behind the word
    const char* reply;    // reply token
};

const CmdRow* cmd_rows(size_t* count);

// Finds a row by its exact name, by its name without the STORAGE_ (or
// STROAGE_) prefix in any case with '-' for '_' ("dev-mount"), or by its
// number (decimal or 0x hex). Null when nothing matches.
const CmdRow* cmd_find(const char* word);
const CmdRow* cmd_by_value(int32_t value);

// Parses a command word given as a number; false when text is not one.
bool parse_cmd_number(const char* text, int32_t* out);

}  // namespace lumctl
