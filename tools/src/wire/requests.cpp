// The command table of StorageCmdList.h, looked up by name or number, and
// requests built from command-line words. Every field is written through
// android::Parcel and appended, so the bytes are the Parcel layout the
// service reads (4-byte aligned items); appending items one by one gives the
// same bytes as one Parcel, except after an unpadded x: item, which is the
// point of x:.
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <strings.h>

#include <binder/Parcel.h>
#include <StorageCmdList.h>

#include "lumctl/wire.h"
#include "lumproto/frame.h"

namespace lumctl {

namespace {

#define LUMCTL_CMD_ROW(name, value, request, reply) {#name, value, request, reply},
const CmdRow kRows[] = {LUM_STORAGE_CMD_LIST(LUMCTL_CMD_ROW)};
#undef LUMCTL_CMD_ROW

// The name without its STORAGE_/STROAGE_ prefix (case-insensitive).
const char* strip_prefix(const char* name)
{
    for (const char* prefix : {"STORAGE_", "STROAGE_"}) {
        if (strncasecmp(name, prefix, strlen(prefix)) == 0)
            return name + strlen(prefix);
    }
    return name;
}

// Compares ignoring case, with '-' standing for '_'.
bool loose_equal(const char* a, const char* b)
{
    for (; *a != '\0' && *b != '\0'; ++a, ++b) {
        char ca = *a == '-' ? '_' : static_cast<char>(toupper(static_cast<unsigned char>(*a)));
        char cb = *b == '-' ? '_' : static_cast<char>(toupper(static_cast<unsigned char>(*b)));
        if (ca != cb)
            return false;
    }
    return *a == *b;
}

void append_parcel(const android::Parcel& parcel, Bytes* out)
{
    out->insert(out->end(), parcel.data(), parcel.data() + parcel.dataSize());
}

// An integer field of the given range, written as int32 or int64.
template <long long Low, long long High, bool Wide = false>
bool write_integer(const std::string& text, android::Parcel* parcel)
{
    long long v = 0;
    if (!parse_number(text, Low, High, &v))
        return false;
    return (Wide ? parcel->writeInt64(v) : parcel->writeInt32(static_cast<int32_t>(v))) == android::OK;
}

bool write_bool(const std::string& text, android::Parcel* parcel)
{
    const bool yes = strcasecmp(text.c_str(), "true") == 0 || text == "1";
    if (!yes && strcasecmp(text.c_str(), "false") != 0 && text != "0")
        return false;
    return parcel->writeBool(yes) == android::OK;
}

// A char field goes out as an int32, like Parcel::writeChar/writeByte: one
// character is its byte value, a longer word is a number.
bool write_char(const std::string& text, android::Parcel* parcel)
{
    if (text.size() == 1)
        return parcel->writeInt32(static_cast<unsigned char>(text[0])) == android::OK;
    return write_integer<-128, 255>(text, parcel);
}

struct FieldType {
    char letter;
    const char* what;
    bool (*write)(const std::string& text, android::Parcel* parcel);
};

const FieldType kFieldTypes[] = {
    {'s', "a string",
     [](const std::string& text, android::Parcel* p) { return p->writeCString(text.c_str()) == android::OK; }},
    {'i', "an int32", write_integer<INT32_MIN, INT32_MAX>},
    {'u', "a uint32", write_integer<0, UINT32_MAX>},
    {'l', "an int64", write_integer<INT64_MIN, INT64_MAX, true>},
    {'b', "true/false/1/0", write_bool},
    {'c', "one character or a number -128..255", write_char},
};

// Hex digits, optionally separated by spaces, colons or dashes.
int decode_hex(const std::string& text, Bytes* out)
{
    int high = -1;
    for (char ch : text) {
        if (ch == ' ' || ch == ':' || ch == '-')
            continue;
        if (!isxdigit(static_cast<unsigned char>(ch)))
            return -1;
        int v = isdigit(static_cast<unsigned char>(ch)) ? ch - '0' : tolower(static_cast<unsigned char>(ch)) - 'a' + 10;
        if (high < 0) {
            high = v;
        } else {
            out->push_back(static_cast<uint8_t>(high << 4 | v));
            high = -1;
        }
    }
    return high < 0 ? 0 : -1;
}

// The bytes behind an 'r' field: "@path" reads the file, "@@text" is the
// literal "@text", anything else is the literal text; padded to 4. When the
// int32 before them was "-", their count goes there.
int encode_raw(const std::string& arg, long count_at, Bytes* out, std::string* error)
{
    Bytes bytes;
    if (arg.compare(0, 2, "@@") == 0 || arg.empty() || arg[0] != '@')
        bytes.assign(arg.begin() + (arg.compare(0, 2, "@@") == 0 ? 1 : 0), arg.end());
    else if (read_data(arg.substr(1), nullptr, &bytes, error) != 0)
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

}  // namespace

const CmdRow* cmd_rows(size_t* count)
{
    *count = sizeof(kRows) / sizeof(kRows[0]);
    return kRows;
}

bool parse_number(const std::string& text, long long low, long long high, long long* out, int base)
{
    const char* s = text.c_str();
    const char* digits = s[0] == '-' && low < 0 ? s + 1 : s;
    if (!isxdigit(static_cast<unsigned char>(digits[0])))
        return false;
    if (base == kDecimalOrHex)
        base = strncasecmp(digits, "0x", 2) == 0 ? 16 : 10;
    char* end = nullptr;
    errno = 0;
    long long value = strtoll(s, &end, base);
    if (errno != 0 || *end != '\0' || value < low || value > high)
        return false;
    *out = value;
    return true;
}

const CmdRow* cmd_find(const char* word)
{
    long long number = 0;
    const bool by_number = parse_number(word, 0, INT32_MAX, &number);
    for (const CmdRow& row : kRows) {
        if (by_number ? row.value == number : strcmp(row.name, word) == 0)
            return &row;
    }
    for (const CmdRow& row : kRows) {
        if (!by_number && loose_equal(strip_prefix(row.name), strip_prefix(word)))
            return &row;
    }
    return nullptr;
}

int encode_field(char letter, const std::string& text, Bytes* out, std::string* error)
{
    for (const FieldType& type : kFieldTypes) {
        if (type.letter != letter)
            continue;
        android::Parcel parcel;
        if (!type.write(text, &parcel)) {
            *error = "'" + text + "' is not " + type.what;
            return -1;
        }
        append_parcel(parcel, out);
        return 0;
    }
    *error = std::string("unknown field type '") + letter + "'";
    return -1;
}

int build_request(const CmdRow& row, const std::vector<std::string>& args, Bytes* out, std::string* error)
{
    out->clear();
    size_t want = strlen(row.request);
    if (args.size() != want) {
        *error = std::string(row.name) + " takes " + std::to_string(want) + " argument(s)" +
                 (want > 0 ? std::string(" (") + row.request + ")" : std::string()) + ", not " +
                 std::to_string(args.size());
        return -1;
    }
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
    return check_frame(out->size(), error);
}

int build_raw_request(int32_t word, const std::vector<std::string>& items, Bytes* out, std::string* error)
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
    return check_frame(out->size(), error);
}

int check_frame(size_t size, std::string* error)
{
    if (size <= lumproto::kMaxPayload)
        return 0;
    *error = "the request of " + std::to_string(size) + " bytes is above the frame limit of " +
             std::to_string(lumproto::kMaxPayload) + " bytes";
    return -1;
}

int read_data(const std::string& file, FILE* in, Bytes* out, std::string* error)
{
    const bool from_in = in != nullptr && file == "-";
    const std::string name = from_in ? "standard input" : file;
    FILE* stream = from_in ? in : fopen(file.c_str(), "rb");
    if (stream == nullptr) {
        *error = name + ": " + strerror(errno);
        return -1;
    }
    out->clear();
    uint8_t chunk[65536];
    size_t n = 0;
    while (out->size() <= lumproto::kMaxPayload && (n = fread(chunk, 1, sizeof(chunk), stream)) > 0)
        out->insert(out->end(), chunk, chunk + n);
    const bool failed = ferror(stream) != 0;
    if (!from_in)
        fclose(stream);
    if (!failed && out->size() <= lumproto::kMaxPayload)
        return 0;
    *error = name + (failed ? ": read error" : ": larger than the frame limit");
    return -1;
}

}  // namespace lumctl
