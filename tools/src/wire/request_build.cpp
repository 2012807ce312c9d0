// Every field is written through android::Parcel and appended, so the bytes
// are the Parcel layout the service reads (4-byte aligned items). Because
// every Parcel item is a multiple of 4 bytes, appending items one by one
// gives the same bytes as one Parcel, except after an unpadded x: item,
// which is the point of x:.
#include "lumctl/request_build.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include <binder/Parcel.h>

#include "lumproto/frame.h"

namespace lumctl {

namespace {

void append_parcel(const android::Parcel& parcel, std::vector<uint8_t>* out)
{
    out->insert(out->end(), parcel.data(), parcel.data() + parcel.dataSize());
}

bool parse_integer(const std::string& text, long long low, long long high, long long* out)
{
    const char* s = text.c_str();
    const char* digits = (s[0] == '-' || s[0] == '+') ? s + 1 : s;
    int base = strncasecmp(digits, "0x", 2) == 0 ? 16 : 10;
    if (text.empty() || !isxdigit(static_cast<unsigned char>(digits[0])))
        return false;
    char* end = nullptr;
    errno = 0;
    long long value = strtoll(s, &end, base);
    if (errno != 0 || *end != '\0' || value < low || value > high)
        return false;
    *out = value;
    return true;
}

bool parse_bool(const std::string& text, bool* out)
{
    if (strcasecmp(text.c_str(), "true") == 0 || text == "1") {
        *out = true;
        return true;
    }
    if (strcasecmp(text.c_str(), "false") == 0 || text == "0") {
        *out = false;
        return true;
    }
    return false;
}

// A char field goes out as an int32, like Parcel::writeChar/writeByte: one
// character is its byte value, a longer word is a number.
bool parse_char(const std::string& text, int32_t* out)
{
    if (text.size() == 1) {
        *out = static_cast<unsigned char>(text[0]);
        return true;
    }
    long long value = 0;
    if (!parse_integer(text, -128, 255, &value))
        return false;
    *out = static_cast<int32_t>(value);
    return true;
}

// Field writers return 0, or -1 when the text is not a value of their type.
int write_s(const std::string& text, android::Parcel* parcel)
{
    return parcel->writeCString(text.c_str()) == android::OK ? 0 : -1;
}

int write_i(const std::string& text, android::Parcel* parcel)
{
    long long v = 0;
    return parse_integer(text, INT32_MIN, INT32_MAX, &v) ? parcel->writeInt32(static_cast<int32_t>(v)) : -1;
}

int write_u(const std::string& text, android::Parcel* parcel)
{
    long long v = 0;
    return parse_integer(text, 0, UINT32_MAX, &v) ? parcel->writeUint32(static_cast<uint32_t>(v)) : -1;
}

int write_l(const std::string& text, android::Parcel* parcel)
{
    long long v = 0;
    return parse_integer(text, INT64_MIN, INT64_MAX, &v) ? parcel->writeInt64(v) : -1;
}

int write_b(const std::string& text, android::Parcel* parcel)
{
    bool v = false;
    return parse_bool(text, &v) ? parcel->writeBool(v) : -1;
}

int write_c(const std::string& text, android::Parcel* parcel)
{
    int32_t v = 0;
    return parse_char(text, &v) ? parcel->writeInt32(v) : -1;
}

struct FieldType {
    char letter;
    const char* what;
    int (*write)(const std::string& text, android::Parcel* parcel);
};

const FieldType kFieldTypes[] = {
    {'s', "a string", write_s},
    {'i', "an int32", write_i},
    {'u', "a uint32", write_u},
    {'l', "an int64", write_l},
    {'b', "true/false/1/0", write_b},
    {'c', "one character or a number -128..255", write_c},
};

const FieldType* find_type(char letter)
{
    for (const FieldType& row : kFieldTypes) {
        if (row.letter == letter)
            return &row;
    }
    return nullptr;
}

int hex_value(char ch)
{
    if (ch >= '0' && ch <= '9')
        return ch - '0';
    ch = static_cast<char>(tolower(static_cast<unsigned char>(ch)));
    return (ch >= 'a' && ch <= 'f') ? ch - 'a' + 10 : -1;
}

// Hex digits, optionally separated by spaces, colons or dashes.
int decode_hex(const std::string& text, std::vector<uint8_t>* out)
{
    int high = -1;
    for (char ch : text) {
        if (ch == ' ' || ch == ':' || ch == '-')
            continue;
        int v = hex_value(ch);
        if (v < 0)
            return -1;
        if (high < 0) {
            high = v;
        } else {
            out->push_back(static_cast<uint8_t>(high << 4 | v));
            high = -1;
        }
    }
    return high < 0 ? 0 : -1;
}


}  // namespace

int encode_field(char letter, const std::string& text, std::vector<uint8_t>* out,
                 std::string* error)
{
    const FieldType* type = find_type(letter);
    if (type == nullptr) {
        *error = std::string("unknown field type '") + letter + "'";
        return -1;
    }
    android::Parcel parcel;
    if (type->write(text, &parcel) != 0) {
        *error = "'" + text + "' is not " + type->what;
        return -1;
    }
    append_parcel(parcel, out);
    return 0;
}

int load_raw_bytes(const std::string& arg, std::vector<uint8_t>* out, std::string* error)
{
    out->clear();
    if (arg.compare(0, 2, "@@") == 0 || arg.empty() || arg[0] != '@') {
        size_t skip = arg.compare(0, 2, "@@") == 0 ? 1 : 0;
        out->assign(arg.begin() + static_cast<long>(skip), arg.end());
        return 0;
    }
    FILE* file = fopen(arg.c_str() + 1, "rb");
    if (file == nullptr) {
        *error = arg.substr(1) + ": " + strerror(errno);
        return -1;
    }
    uint8_t chunk[65536];
    size_t n = 0;
    while ((n = fread(chunk, 1, sizeof(chunk), file)) > 0 && out->size() <= lumproto::kMaxPayload)
        out->insert(out->end(), chunk, chunk + n);
    bool failed = ferror(file) != 0;
    fclose(file);
    if (failed || out->size() > lumproto::kMaxPayload) {
        *error = arg.substr(1) + (failed ? ": read error" : ": larger than the frame limit");
        return -1;
    }
    return 0;
}

namespace {

int check_size(const std::vector<uint8_t>& out, std::string* error)
{
    if (out.size() <= lumproto::kMaxPayload)
        return 0;
    *error = "request of " + std::to_string(out.size()) + " bytes is above the frame limit";
    return -1;
}

// Writes raw bytes padded to 4 and, when the int32 before them was "-",
// puts their count into it.
int encode_raw(const std::string& arg, long count_at, std::vector<uint8_t>* out, std::string* error)
{
    std::vector<uint8_t> bytes;
    if (load_raw_bytes(arg, &bytes, error) != 0)
        return -1;
    if (count_at >= 0) {
        android::Parcel count;
        count.writeInt32(static_cast<int32_t>(bytes.size()));
        memcpy(out->data() + count_at, count.data(), 4);
    }
    android::Parcel parcel;
    if (!bytes.empty() && parcel.write(bytes.data(), bytes.size()) != android::OK) {
        *error = "raw bytes could not be written";
        return -1;
    }
    append_parcel(parcel, out);
    return 0;
}

int check_arg_count(const CmdRow& row, size_t given, std::string* error)
{
    size_t want = strlen(row.request);
    if (given == want)
        return 0;
    *error = std::string(row.name) + " takes " + std::to_string(want) + " argument(s)" +
             (want > 0 ? std::string(" (") + row.request + ")" : std::string()) + ", not " +
             std::to_string(given);
    return -1;
}

}  // namespace

int build_request(const CmdRow& row, const std::vector<std::string>& args,
                  std::vector<uint8_t>* out, std::string* error)
{
    out->clear();
    if (check_arg_count(row, args.size(), error) != 0)
        return -1;
    encode_field('i', std::to_string(row.value), out, error);
    long count_at = -1;
    for (size_t k = 0; k < args.size(); ++k) {
        char letter = row.request[k];
        int rc = 0;
        if (letter == 'r') {
            rc = encode_raw(args[k], count_at, out, error);
        } else if (letter == 'i' && args[k] == "-" && row.request[k + 1] == 'r') {
            count_at = static_cast<long>(out->size());
            rc = encode_field('i', "0", out, error);
        } else {
            rc = encode_field(letter, args[k], out, error);
        }
        if (rc != 0)
            return -1;
    }
    return check_size(*out, error);
}

int build_raw_request(int32_t word, const std::vector<std::string>& items,
                      std::vector<uint8_t>* out, std::string* error)
{
    out->clear();
    encode_field('i', std::to_string(word), out, error);
    for (const std::string& item : items) {
        if (item.size() < 2 || item[1] != ':') {
            *error = "'" + item + "' is not TYPE:VALUE (types i u l b c s x)";
            return -1;
        }
        std::string value = item.substr(2);
        if (item[0] == 'x' && decode_hex(value, out) != 0) {
            *error = "'" + value + "' is not hex bytes";
            return -1;
        }
        if (item[0] != 'x' && encode_field(item[0], value, out, error) != 0)
            return -1;
    }
    return check_size(*out, error);
}

}  // namespace lumctl
