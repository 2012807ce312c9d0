// Text and JSON renderings of decoded values.
#include "lumctl/decoded.h"

#include <cstdio>

namespace lumctl {

namespace {

constexpr size_t kTextBytes = 64;

// Length of the valid UTF-8 sequence at s (of n bytes), or 0.
size_t utf8_length(const unsigned char* s, size_t n)
{
    size_t len = s[0] < 0x80 ? 1 : (s[0] & 0xe0) == 0xc0 ? 2 : (s[0] & 0xf0) == 0xe0 ? 3
                                   : (s[0] & 0xf8) == 0xf0 ? 4 : 0;
    if (len == 0 || len > n || (len == 2 && s[0] < 0xc2) || (len == 4 && s[0] > 0xf4))
        return 0;
    for (size_t i = 1; i < len; ++i) {
        if ((s[i] & 0xc0) != 0x80)
            return 0;
    }
    if ((len == 3 && s[0] == 0xe0 && s[1] < 0xa0) || (len == 3 && s[0] == 0xed && s[1] >= 0xa0) ||
        (len == 4 && s[0] == 0xf0 && s[1] < 0x90) || (len == 4 && s[0] == 0xf4 && s[1] >= 0x90))
        return 0;
    return len;
}

void append_json_char(unsigned char ch, std::string* out)
{
    static const char kEscapes[][3] = {{'"', '"', 0}, {'\\', '\\', 0}, {'\n', 'n', 0},
                                       {'\r', 'r', 0}, {'\t', 't', 0}};
    for (const auto& esc : kEscapes) {
        if (ch == static_cast<unsigned char>(esc[0])) {
            *out += '\\';
            *out += esc[1];
            return;
        }
    }
    if (ch < 0x20 || ch >= 0x7f) {
        char buf[8];
        snprintf(buf, sizeof(buf), "\\u%04x", ch);
        *out += buf;
        return;
    }
    *out += static_cast<char>(ch);
}

}  // namespace

std::string hex_spaced(const uint8_t* data, size_t len, size_t max_bytes)
{
    std::string out;
    size_t shown = len < max_bytes ? len : max_bytes;
    for (size_t i = 0; i < shown; ++i) {
        char buf[4];
        snprintf(buf, sizeof(buf), i == 0 ? "%02x" : " %02x", data[i]);
        out += buf;
    }
    if (shown < len)
        out += " ... (" + std::to_string(len) + " bytes)";
    return out;
}

std::string hex_dump(const uint8_t* data, size_t len)
{
    std::string out;
    for (size_t at = 0; at < len; at += 16) {
        char offset[32];
        snprintf(offset, sizeof(offset), "%08zx  ", at);
        size_t n = len - at < 16 ? len - at : 16;
        out += offset + hex_spaced(data + at, n, n) + "\n";
    }
    return out;
}

std::string hex_compact(const uint8_t* data, size_t len)
{
    static const char kDigits[] = "0123456789abcdef";
    std::string out;
    out.reserve(len * 2);
    for (size_t i = 0; i < len; ++i) {
        out += kDigits[data[i] >> 4];
        out += kDigits[data[i] & 15];
    }
    return out;
}

std::string json_string(const char* text, size_t len)
{
    std::string out = "\"";
    const unsigned char* s = reinterpret_cast<const unsigned char*>(text);
    for (size_t i = 0; i < len;) {
        size_t n = s[i] >= 0x80 ? utf8_length(s + i, len - i) : 0;
        if (n > 0) {
            out.append(text + i, n);
            i += n;
        } else {
            append_json_char(s[i], &out);
            ++i;
        }
    }
    return out + "\"";
}

namespace {

// Length of a well-formed UTF-8 sequence of two to four bytes at text[i], or
// 0 (overlong forms, surrogates and cut sequences included).
size_t utf8_sequence(const unsigned char* text, size_t i, size_t len)
{
    unsigned char c = text[i];
    size_t n = (c & 0xE0) == 0xC0 ? 2 : (c & 0xF0) == 0xE0 ? 3 : (c & 0xF8) == 0xF0 ? 4 : 0;
    if (n == 0 || i + n > len)
        return 0;
    unsigned cp = c & (0x7F >> n);
    for (size_t k = 1; k < n; ++k) {
        if ((text[i + k] & 0xC0) != 0x80)
            return 0;
        cp = (cp << 6) | (text[i + k] & 0x3F);
    }
    static const unsigned kMin[] = {0, 0, 0x80, 0x800, 0x10000};
    if (cp < kMin[n] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))
        return 0;
    return n;
}

}  // namespace

std::string quoted(const char* text, size_t len)
{
    std::string out = "\"";
    const auto* bytes = reinterpret_cast<const unsigned char*>(text);
    for (size_t i = 0; i < len; ++i) {
        unsigned char ch = bytes[i];
        size_t seq = ch >= 0x80 ? utf8_sequence(bytes, i, len) : 0;
        if (seq > 0) {
            // Valid UTF-8 (a converted label) is shown as it is.
            out.append(text + i, seq);
            i += seq - 1;
        } else if (ch >= 0x20 && ch < 0x7f && ch != '"' && ch != '\\') {
            out += static_cast<char>(ch);
        } else {
            char buf[8];
            snprintf(buf, sizeof(buf), "\\x%02x", ch);
            out += buf;
        }
    }
    return out + "\"";
}

void add_int(Decoded* out, const char* name, long long value)
{
    out->fields.push_back(Field{name, std::to_string(value), std::to_string(value)});
}

void add_uint(Decoded* out, const char* name, unsigned long long value)
{
    out->fields.push_back(Field{name, std::to_string(value), std::to_string(value)});
}

// Any non-zero int32 reads as true, as Parcel::readBool does; an odd value
// is shown next to it.
void add_bool(Decoded* out, const char* name, int32_t raw)
{
    std::string text = raw != 0 ? "true" : "false";
    if (raw != 0 && raw != 1)
        text += " (" + std::to_string(raw) + ")";
    out->fields.push_back(Field{name, text, raw != 0 ? "true" : "false"});
}

void add_string(Decoded* out, const char* name, const char* text, size_t len)
{
    out->fields.push_back(Field{name, quoted(text, len), json_string(text, len)});
}

void add_bytes(Decoded* out, const char* name, const uint8_t* data, size_t len)
{
    std::string text = std::to_string(len) + " bytes";
    if (len > 0)
        text += ": " + hex_spaced(data, len, kTextBytes);
    out->fields.push_back(Field{name, text, "\"" + hex_compact(data, len) + "\""});
}

std::string fields_json(const Decoded& decoded)
{
    std::string out = "{";
    for (size_t i = 0; i < decoded.fields.size(); ++i) {
        if (i > 0)
            out += ",";
        const Field& f = decoded.fields[i];
        out += json_string(f.name.data(), f.name.size()) + ":" + f.json;
    }
    return out + "}";
}

}  // namespace lumctl
