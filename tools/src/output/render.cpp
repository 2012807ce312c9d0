// Text and JSON renderings: decoded values, replies and events.
#include "lumctl/ctl.h"

namespace lumctl {

namespace {

constexpr size_t kTextBytes = 64;

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

size_t utf8_sequence(const unsigned char* text, size_t i, size_t len, uint32_t* code_point)
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
    if (code_point != nullptr)
        *code_point = cp;
    return n;
}

namespace {

bool valid_utf8(const std::string& text)
{
    const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
    for (size_t i = 0; i < text.size(); ++i) {
        size_t seq = bytes[i] >= 0x80 ? utf8_sequence(bytes, i, text.size()) : 1;
        if (seq == 0)
            return false;
        i += seq - 1;
    }
    return true;
}

// Adds NAMEHex behind each string member that is not valid UTF-8, at any depth.
void add_hex_twins(Json* value)
{
    if (value->is_array()) {
        for (Json& item : *value)
            add_hex_twins(&item);
    }
    if (!value->is_object())
        return;
    Json out = Json::object();
    for (auto it = value->begin(); it != value->end(); ++it) {
        add_hex_twins(&it.value());
        const std::string* text = it.value().get_ptr<const std::string*>();
        if (text != nullptr && !valid_utf8(*text)) {
            out[it.key()] = it.value();
            out[it.key() + "Hex"] = hex_compact(reinterpret_cast<const uint8_t*>(text->data()), text->size());
        } else {
            out[it.key()] = std::move(it.value());
        }
    }
    *value = std::move(out);
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
    out->fields.push_back(Field{name, std::to_string(value), value});
}

void add_uint(Decoded* out, const char* name, unsigned long long value)
{
    out->fields.push_back(Field{name, std::to_string(value), value});
}

// Any non-zero int32 reads as true, as Parcel::readBool does; an odd value
// is shown next to it.
void add_bool(Decoded* out, const char* name, int32_t raw)
{
    std::string text = raw != 0 ? "true" : "false";
    if (raw != 0 && raw != 1)
        text += " (" + std::to_string(raw) + ")";
    out->fields.push_back(Field{name, text, raw != 0});
}

void add_string(Decoded* out, const char* name, const char* text, size_t len)
{
    out->fields.push_back(Field{name, quoted(text, len), std::string(text, len)});
}

void add_bytes(Decoded* out, const char* name, const uint8_t* data, size_t len)
{
    std::string text = std::to_string(len) + " bytes";
    if (len > 0)
        text += ": " + hex_spaced(data, len, kTextBytes);
    out->fields.push_back(Field{name, text, hex_compact(data, len), Bytes(data, data + len)});
}

Json fields_json(const Decoded& decoded)
{
    Json out = Json::object();
    for (const Field& f : decoded.fields)
        out[f.name] = f.json;
    return out;
}

std::string json_line(Json value)
{
    add_hex_twins(&value);
    // The replace handler cannot fail: dump() never throws here.
    return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

void print_json(FILE* out, const Json& value)
{
    fprintf(out, "%s\n", json_line(value).c_str());
}

namespace {

constexpr size_t kTextRestBytes = 256;

Json json_name(const char* name)
{
    return name != nullptr ? Json(name) : Json(nullptr);
}

// The decoded payload under key, then whether it was whole and what was left.
void add_decoded(Json* line, const char* key, const Decoded& decoded)
{
    (*line)[key] = fields_json(decoded);
    (*line)["complete"] = decoded.complete;
    (*line)["rest"] = hex_compact(decoded.rest.data(), decoded.rest.size());
}

}  // namespace

void print_reply(const CtlContext& ctx, const CmdRow* row, int32_t word, const CtlReply& reply)
{
    Decoded decoded = decode_reply(row != nullptr ? row->reply : nullptr, reply.bytes.data(), reply.bytes.size());
    if (ctx.json) {
        Json line = {{"command", json_name(row != nullptr ? row->name : nullptr)}, {"code", word}, {"result", reply.result}};
        add_decoded(&line, "reply", decoded);
        print_json(ctx.out, line);
        return;
    }
    fprintf(ctx.out, "%s (%d): result %d\n", row != nullptr ? row->name : "(unknown command)", word, reply.result);
    if (reply.bytes.empty() && decoded.fields.empty())
        fprintf(ctx.out, "  (no reply)\n");
    for (const Field& f : decoded.fields)
        fprintf(ctx.out, "  %s: %s\n", f.name.c_str(), f.text.c_str());
    if (!decoded.complete)
        fprintf(ctx.out, "  (reply ends early for \"%s\")\n", row != nullptr ? row->reply : "");
    if (!decoded.rest.empty())
        fprintf(ctx.out, "  rest: %s\n", hex_spaced(decoded.rest.data(), decoded.rest.size(), kTextRestBytes).c_str());
}

void print_line(const CtlContext& ctx, const std::string& text, const Json& json)
{
    fprintf(ctx.out, "%s\n", ctx.json ? json_line(json).c_str() : text.c_str());
}

void print_event(const CtlContext& ctx, const CtlEvent& event)
{
    if (event.dropped) {
        if (ctx.json)
            print_json(ctx.out, Json{{"dropped", event.count}});
        else
            fprintf(ctx.out, "(%u events dropped)\n", event.count);
        fflush(ctx.out);
        return;
    }
    const char* name = event_name(event.id);
    Decoded decoded = decode_event(event.id, event.data.data(), event.data.size());
    std::string line;
    if (ctx.json) {
        Json obj = {{"event", json_name(name)}, {"id", event.id}, {"len", event.data.size()}};
        if (ctx.hex)
            obj["hex"] = hex_compact(event.data.data(), event.data.size());
        add_decoded(&obj, "data", decoded);
        line = json_line(obj);
    } else {
        line = (name != nullptr ? std::string(name) : "event") + " (" + std::to_string(event.id) + "):";
        for (const Field& f : decoded.fields)
            line += " " + f.name + "=" + f.text;
        if (!decoded.complete)
            line += " (payload ends early)";
        if (!decoded.rest.empty())
            line += " rest=" + hex_spaced(decoded.rest.data(), decoded.rest.size(), kTextRestBytes);
        if (ctx.hex)
            line += "\n" + hex_dump(event.data.data(), event.data.size()) + "(" +
                    std::to_string(event.data.size()) + " bytes)";
    }
    fprintf(ctx.out, "%s\n", line.c_str());
    fflush(ctx.out);
}

}  // namespace lumctl
