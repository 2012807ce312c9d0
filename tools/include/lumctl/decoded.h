// A decoded payload: named fields, each with its text and JSON rendering,
// plus whatever bytes were left over.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace lumctl {

struct Field {
    std::string name;
    std::string text;  // for people
    std::string json;  // a JSON value
};

struct Decoded {
    std::vector<Field> fields;
    bool complete = true;       // false: the payload ended before its layout did
    std::vector<uint8_t> rest;  // bytes not decoded: the tail of a short payload, or extra bytes
};

void add_int(Decoded* out, const char* name, long long value);
void add_uint(Decoded* out, const char* name, unsigned long long value);
void add_bool(Decoded* out, const char* name, int32_t raw);
void add_string(Decoded* out, const char* name, const char* text, size_t len);
// Bytes: the text shows up to 64 of them, the JSON value has them all as hex.
void add_bytes(Decoded* out, const char* name, const uint8_t* data, size_t len);

// "01 02 ff", at most max_bytes of them, then " ... (N bytes)".
std::string hex_spaced(const uint8_t* data, size_t len, size_t max_bytes);
// Lines of "00000010  01 02 ff ...": the offset, then up to 16 bytes.
std::string hex_dump(const uint8_t* data, size_t len);
// "0102ff".
std::string hex_compact(const uint8_t* data, size_t len);
// A JSON string literal; bytes that are not valid UTF-8 become \\u00XX.
std::string json_string(const char* text, size_t len);
// A C-style quoted string: printable ASCII and valid UTF-8 as they are, the
// rest as \\xNN.
std::string quoted(const char* text, size_t len);

// {"name":value,...}
std::string fields_json(const Decoded& decoded);

}  // namespace lumctl
