// Reply decoding through android::Parcel reads, one row per reply token; a
// read that finds too few bytes stops the decoding and the remaining bytes go
// out as hex.
#include <binder/Parcel.h>

#include "lumctl/wire.h"

namespace lumctl {

namespace {

// Size of the guide record behind "iG".
constexpr size_t kGuideRecordBytes = 63000;

struct Cursor {
    android::Parcel parcel;
    Decoded* out;

    // Each read returns false, and marks the reply incomplete, when too few
    // bytes are left.
    bool ok(bool read)
    {
        out->complete = out->complete && read;
        return read;
    }
    bool take(int32_t* value) { return ok(parcel.readInt32(value) == android::OK); }
    bool i32(const char* name, int32_t* value)
    {
        if (take(value))
            add_int(out, name, *value);
        return out->complete;
    }
    void raw(const char* name, size_t len)
    {
        const void* bytes = len > 0 ? parcel.readInplace(len) : nullptr;
        if (ok(len == 0 || bytes != nullptr))
            add_bytes(out, name, static_cast<const uint8_t*>(bytes), len);
    }
    void cstring(const char* name)
    {
        const char* text = parcel.readCString();
        if (ok(text != nullptr))
            add_string(out, name, text, strlen(text));
    }
};

struct TokenRow {
    const char* token;
    void (*decode)(Cursor& c);
};

const TokenRow kTokens[] = {
    {"", [](Cursor&) {}},
    {"b",
     [](Cursor& c) {
         int32_t v = 0;
         if (c.take(&v))
             add_bool(c.out, "value", v);
     }},
    {"s", [](Cursor& c) { c.cstring("value"); }},
    {"l",
     [](Cursor& c) {
         int64_t v = 0;
         if (c.ok(c.parcel.readInt64(&v) == android::OK))
             add_int(c.out, "value", v);
     }},
    {"u",
     [](Cursor& c) {
         int32_t v = 0;
         if (c.take(&v))
             add_uint(c.out, "value", static_cast<uint32_t>(v));
     }},
    {"i",
     [](Cursor& c) {
         int32_t v = 0;
         c.i32("value", &v);
     }},
    {"i>s",
     [](Cursor& c) {
         int32_t v = 0;
         if (c.i32("value", &v) && v > 0)
             c.cstring("text");
     }},
    {"i<i",
     [](Cursor& c) {
         int32_t v = 0;
         if (c.i32("value", &v) && v < 0)
             c.i32("errno", &v);
     }},
    {"iG",
     [](Cursor& c) {
         int32_t v = 0;
         if (c.i32("value", &v))
             c.raw("guide", kGuideRecordBytes);
     }},
    // int32 count; at 0 or above the length again and that many bytes, else
    // an error number.
    {"R",
     [](Cursor& c) {
         int32_t count = 0, v = 0;
         if (!c.i32("count", &count) || !c.i32(count < 0 ? "errno" : "length", &v) || count < 0)
             return;
         if (c.ok(v >= 0 && static_cast<size_t>(v) <= c.parcel.dataAvail()))
             c.raw("data", static_cast<size_t>(v));
     }},
};

}  // namespace

Decoded decode_reply(const char* token, const uint8_t* data, size_t len)
{
    Decoded out;
    Cursor cursor;
    cursor.out = &out;
    if (len > 0)
        cursor.parcel.setData(data, len);
    size_t pos = 0;
    for (const TokenRow& row : kTokens) {
        if (token != nullptr && strcmp(row.token, token) == 0) {
            row.decode(cursor);
            pos = cursor.parcel.dataPosition();
        }
    }
    if (pos < len)
        out.rest.assign(data + pos, data + len);
    return out;
}

}  // namespace lumctl
