// Request Parcels from command-line words, in android::Parcel layout.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "lumctl/cmd_table.h"

namespace lumctl {

// Appends one field. Letters: s string, i int32, u uint32, l int64,
// b bool (true/false/1/0), c char (one character, or a number -128..255).
// Returns 0, or -1 with a message in error.
int encode_field(char letter, const std::string& text, std::vector<uint8_t>* out,
                 std::string* error);

// The bytes behind an 'r' field: "@path" reads the file, "@@text" is the
// literal "@text", anything else is the literal text. Bounded by the frame
// limit.
int load_raw_bytes(const std::string& arg, std::vector<uint8_t>* out, std::string* error);

// Builds the request of row from one argument per request letter. "-" for
// the int32 just before an 'r' field puts the raw byte count there.
int build_request(const CmdRow& row, const std::vector<std::string>& args,
                  std::vector<uint8_t>* out, std::string* error);

// Builds a request from TYPE:VALUE items (i s l b u c as above, x hex bytes
// appended exactly as given, without padding) behind the command word.
int build_raw_request(int32_t word, const std::vector<std::string>& items,
                      std::vector<uint8_t>* out, std::string* error);

}  // namespace lumctl
