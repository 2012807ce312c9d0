// A decoded payload: named fields, each with its text and JSON rendering,
// plus whatever bytes were left over.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace lumctl {

// Members stay in the order they were added, which is the order printed.
using Json = nlohmann::ordered_json;

struct Field {
    std::string name;
    std::string text;  // for people
    Json json;         // the same value for programs
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
// A fixed char array of a record, up to its first NUL or its end.
template <size_t N>
void add_chars(Decoded* out, const char* name, const char (&text)[N])
{
    add_string(out, name, text, strnlen(text, N));
}
// One host-order int32 named name; returns the bytes decoded (0 when fewer
// than 4 are there).
size_t add_int32(Decoded* out, const char* name, const uint8_t* data, size_t len);

// Big-endian numbers of the payloads.
inline uint32_t be16(const uint8_t* p) { return static_cast<uint32_t>(p[0]) << 8 | p[1]; }
inline uint32_t be32(const uint8_t* p) { return be16(p) << 16 | be16(p + 2); }

// Copies a record of fixed size from the start of a payload; false when the
// payload is shorter.
template <typename T>
bool read_record(const uint8_t* data, size_t len, T* record)
{
    if (len < sizeof(T))
        return false;
    memcpy(record, data, sizeof(T));
    return true;
}

// "01 02 ff", at most max_bytes of them, then " ... (N bytes)".
std::string hex_spaced(const uint8_t* data, size_t len, size_t max_bytes);
// Lines of "00000010  01 02 ff ...": the offset, then up to 16 bytes.
std::string hex_dump(const uint8_t* data, size_t len);
// "0102ff".
std::string hex_compact(const uint8_t* data, size_t len);
// A C-style quoted string: printable ASCII and valid UTF-8 as they are, the
// rest as \\xNN.
std::string quoted(const char* text, size_t len);

// {"name":value,...}
Json fields_json(const Decoded& decoded);

// value on one line. A string member that is not valid UTF-8 is printed with
// U+FFFD for each bad byte and gets a member NAMEHex beside it holding all of
// its bytes in hex, so names from a volume come out whole and a valid name is
// never confused with a damaged one.
std::string json_line(Json value);
// json_line(value) and a newline on out.
void print_json(FILE* out, const Json& value);

}  // namespace lumctl
