// What lumstoragectl prints: hex and quoted text, JSON lines, sizes, the
// volume table, the PVR guide and a copy's progress.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "lumctl/wire.h"

namespace lumctl {

// "01 02 ff", at most max_bytes of them, then " ... (N bytes)".
std::string hex_spaced(const uint8_t* data, size_t len, size_t max_bytes);
// Lines of "00000010  01 02 ff ...": the offset, then up to 16 bytes.
std::string hex_dump(const uint8_t* data, size_t len);
std::string hex_compact(const uint8_t* data, size_t len);  // "0102ff"
// Length of a well-formed UTF-8 sequence of two to four bytes at text[i],
// its code point in *code_point; 0 for overlong forms, surrogates and cut
// sequences.
size_t utf8_sequence(const unsigned char* text, size_t i, size_t len, uint32_t* code_point = nullptr);
// A C-style quoted string: printable ASCII and valid UTF-8 as they are, the
// rest as \xNN.
std::string quoted(const char* text, size_t len);
// text with control characters as '?', for a terminal; UTF-8 stays.
std::string printable(const std::string& text);
// "sdb1" for "/dev/sdb1"; any other name as it is.
std::string without_dev(const std::string& name);

// value on one line. A string member that is not valid UTF-8 is printed with
// U+FFFD for each bad byte and gets a member NAMEHex beside it holding all of
// its bytes in hex, so names from a volume come out whole and a valid name is
// never confused with a damaged one.
std::string json_line(Json value);
void print_json(FILE* out, const Json& value);

// value in the largest of units (letters, steps of 1024) that keeps the
// number at 1 or above, one decimal unless it is 0: "48M", "1.9G", "3G";
// human_mb and human_kib for megabytes and kilobytes.
std::string human_units(uint64_t value, const char* units);
std::string human_mb(uint64_t mb);
std::string human_kib(uint64_t kib);

// The decoded volume list (decode_tagged_table's devices) as a table in the
// manner of lsblk, partitions under their disk; "(no devices)" when empty.
std::string render_volume_table(const Json& devices);
// A text element of a device for a terminal, without the blanks that pad
// vendor, model and serial ("" when missing).
std::string device_text(const Json& element, const char* key);

// The decoded guide record (decode_guide): what it asks of the user
// interface in words, and all of it in lines of words.
std::string guide_asks(const Json& guide);
std::string guide_text(const Json& guide);

// A copy's progress, seen on this machine (the service's): the source's
// sizes against the destination's as it grows.
enum class CopyShape { kFile, kRecording, kTree };

struct CopyPlan {
    std::vector<std::pair<std::string, std::string>> files;  // source, destination
    std::vector<uint64_t> sizes;
};

// A file, a recording with the companions it has, or every regular file of a
// tree (at most 100000; a source folder is always one).
CopyPlan plan_copy(CopyShape shape, const std::string& src, const std::string& dst);
// Whether dst's folder lies on another file system than src (a move copies).
bool across_volumes(const std::string& src, const std::string& dst);

// "12.3M of 48M  25%  3 of 10 files  4.1M/s  0:09 left", redrawn in place;
// clear() wipes it before the result is printed.
class ProgressBar {
public:
    ProgressBar(FILE* out, CopyPlan plan);
    void tick();
    void clear();

private:
    FILE* out_;
    CopyPlan plan_;
    double start_;
    bool drawn_ = false;
};

}  // namespace lumctl
