// Reply decoding through android::Parcel reads; a read that finds too few
// bytes stops the decoding and the remaining bytes go out as hex.
#include <binder/Parcel.h>

#include "lumctl/wire.h"

namespace lumctl {

namespace {

// Size of the guide record behind "iG".
constexpr size_t kGuideRecordBytes = 63000;

struct Cursor {
    android::Parcel parcel;
    Decoded* out;
};

bool take_i32(Cursor* c, int32_t* value)
{
    if (c->parcel.readInt32(value) == android::OK)
        return true;
    c->out->complete = false;
    return false;
}

bool field_i32(Cursor* c, const char* name, int32_t* value)
{
    if (!take_i32(c, value))
        return false;
    add_int(c->out, name, *value);
    return true;
}

bool field_raw(Cursor* c, const char* name, size_t len)
{
    const void* bytes = len > 0 ? c->parcel.readInplace(len) : nullptr;
    if (len > 0 && bytes == nullptr) {
        c->out->complete = false;
        return false;
    }
    add_bytes(c->out, name, static_cast<const uint8_t*>(bytes), len);
    return true;
}

void token_none(Cursor*) {}

void token_b(Cursor* c)
{
    int32_t raw = 0;
    if (take_i32(c, &raw))
        add_bool(c->out, "value", raw);
}

void token_i(Cursor* c)
{
    int32_t v = 0;
    field_i32(c, "value", &v);
}

void token_u(Cursor* c)
{
    int32_t v = 0;
    if (take_i32(c, &v))
        add_uint(c->out, "value", static_cast<uint32_t>(v));
}

void token_l(Cursor* c)
{
    int64_t v = 0;
    if (c->parcel.readInt64(&v) == android::OK)
        add_int(c->out, "value", v);
    else
        c->out->complete = false;
}

void field_cstring(Cursor* c, const char* name)
{
    const char* text = c->parcel.readCString();
    if (text == nullptr)
        c->out->complete = false;
    else
        add_string(c->out, name, text, strlen(text));
}

void token_s(Cursor* c)
{
    field_cstring(c, "value");
}

void token_i_then_s(Cursor* c)
{
    int32_t v = 0;
    if (field_i32(c, "value", &v) && v > 0)
        field_cstring(c, "text");
}

void token_i_then_errno(Cursor* c)
{
    int32_t v = 0;
    if (field_i32(c, "value", &v) && v < 0)
        field_i32(c, "errno", &v);
}

void token_guide(Cursor* c)
{
    int32_t v = 0;
    if (field_i32(c, "value", &v))
        field_raw(c, "guide", kGuideRecordBytes);
}

// int32 count; at 0 or above the length again and that many bytes, else an
// error number.
void token_read(Cursor* c)
{
    int32_t count = 0;
    if (!field_i32(c, "count", &count))
        return;
    int32_t v = 0;
    if (count < 0) {
        field_i32(c, "errno", &v);
        return;
    }
    if (!field_i32(c, "length", &v))
        return;
    if (v < 0 || static_cast<size_t>(v) > c->parcel.dataAvail()) {
        c->out->complete = false;
        return;
    }
    field_raw(c, "data", static_cast<size_t>(v));
}

struct TokenRow {
    const char* token;
    void (*decode)(Cursor* c);
};

const TokenRow kTokens[] = {
    {"", token_none},           {"b", token_b},        {"s", token_s},
    {"l", token_l},             {"u", token_u},        {"i", token_i},
    {"i>s", token_i_then_s},    {"i<i", token_i_then_errno},
    {"iG", token_guide},        {"R", token_read},
};

const TokenRow* find_token(const char* token)
{
    for (const TokenRow& row : kTokens) {
        if (token != nullptr && strcmp(row.token, token) == 0)
            return &row;
    }
    return nullptr;
}

}  // namespace

Decoded decode_reply(const char* token, const uint8_t* data, size_t len)
{
    Decoded out;
    Cursor cursor;
    cursor.out = &out;
    if (len > 0)
        cursor.parcel.setData(data, len);
    const TokenRow* row = find_token(token);
    if (row != nullptr)
        row->decode(&cursor);
    size_t pos = row != nullptr ? cursor.parcel.dataPosition() : 0;
    if (pos < len)
        out.rest.assign(data + pos, data + len);
    return out;
}

}  // namespace lumctl
