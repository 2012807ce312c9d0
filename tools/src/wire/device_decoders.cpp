#include "lumctl/device_decoders.h"

#include <cstring>
#include <string>

#include <StorageDevice.h>

namespace lumctl {

namespace {

std::string cut(const char* text, size_t size) { return std::string(text, strnlen(text, size)); }

// Appends an object to a field holding a JSON array, text one line each.
void append(Field* field, const Object& obj)
{
    field->json.push_back(obj.json);
    field->text += (field->text.empty() ? "" : "\n  ") + obj.text;
}

const char* const kTagNames[] = {nullptr, nullptr, "node", "conn", "mountPoint", "label", "fsType", nullptr,
                                 "vendor", "model", "serial", "devId", "sizeMB", "usedMB"};

}  // namespace

void Object::str(const char* name, const std::string& value)
{
    json[name] = value;
    text += std::string(text.empty() ? "" : " ") + name + "=" + quoted(value.data(), value.size());
}

void Object::num(const char* name, long long value)
{
    json[name] = value;
    text += std::string(text.empty() ? "" : " ") + name + "=" + std::to_string(value);
}

bool decode_elements(const uint8_t* p, size_t len, Object* obj)
{
    auto one = [obj](uint32_t tag, const uint8_t* v, size_t clen) {
        const char* name = tag < sizeof(kTagNames) / sizeof(kTagNames[0]) ? kTagNames[tag] : nullptr;
        if (name != nullptr && tag == 3 && clen >= 1)
            obj->num(name, v[0]);
        else if (name != nullptr && tag >= 11 && clen == 4)
            obj->num(name, be32(v));
        else if (name != nullptr && tag != 3 && tag < 11)
            obj->str(name, cut(reinterpret_cast<const char*>(v), clen));
        return true;
    };
    return walk_elements(p, len, one) == len;
}

size_t walk_elements(const uint8_t* p, size_t len, const ElementFn& fn)
{
    size_t at = 0;
    while (at + 4 <= len) {
        size_t clen = be16(p + at + 2);
        if (at + 4 + clen > len || !fn(be16(p + at), p + at + 4, clen))
            break;
        at += 4 + clen;
    }
    return at;
}

size_t decode_hot_plug_info(const uint8_t* data, size_t len, Decoded* out)
{
    SStorageHotPlugInfo info;
    if (!read_record(data, len, &info))
        return 0;
    add_chars(out, "mountPoint", info.mountPoint);
    add_chars(out, "label", info.label);
    add_uint(out, "labelLen", info.u16LabelLen);
    add_chars(out, "fsType", info.fsType);
    return sizeof(info);
}

size_t decode_mount_point(const uint8_t* data, size_t len, Decoded* out)
{
    const void* nul = memchr(data, 0, len);
    if (nul == nullptr)
        return 0;
    size_t n = static_cast<const uint8_t*>(nul) - data;
    add_string(out, "mountPoint", reinterpret_cast<const char*>(data), n);
    return n + 1;
}

size_t decode_count(const uint8_t* data, size_t len, Decoded* out)
{
    return add_int32(out, "count", data, len);
}

size_t decode_size_reply(const uint8_t* data, size_t len, Decoded* out)
{
    if (len < 5 || memchr(data + 4, 0, len - 4) == nullptr)
        return 0;
    add_uint(out, "sizeMB", be32(data));
    size_t n = strlen(reinterpret_cast<const char*>(data + 4));
    add_string(out, "device", reinterpret_cast<const char*>(data + 4), n);
    return 4 + n + 1;
}

size_t decode_free_mb(const uint8_t* data, size_t len, Decoded* out)
{
    return add_int32(out, "freeMB", data, len);
}

size_t decode_uuid(const uint8_t* data, size_t len, Decoded* out)
{
    add_string(out, "uuid", reinterpret_cast<const char*>(data), len);
    return len;
}

size_t decode_tagged_table(const uint8_t* data, size_t len, Decoded* out)
{
    Field devices{"devices", "", Json::array()};
    size_t at = len > 0 ? 1 : 0;  // the leading zero byte
    auto one = [&devices](uint32_t tag, const uint8_t* v, size_t clen) {
        Object obj;
        if (tag == 1 && !decode_elements(v, clen, &obj))
            return false;
        if (tag == 1)
            append(&devices, obj);
        return true;
    };
    if (len > 0)
        at += walk_elements(data + at, len - at, one);
    out->fields.push_back(devices);
    return at;
}

size_t decode_device_rows(const uint8_t* data, size_t len, Decoded* out)
{
    Field rows{"rows", "", Json::array()};
    size_t at = 0;
    for (; at + sizeof(SConnectedDevice) <= len; at += sizeof(SConnectedDevice)) {
        SConnectedDevice row;
        memcpy(&row, data + at, sizeof(row));
        Object obj;
        obj.str("devName", cut(row.devName, sizeof(row.devName)));
        obj.num("conn", row.devConnectionType);
        obj.str("mountPoint", cut(row.mountPoint, sizeof(row.mountPoint)));
        obj.str("fsType", cut(row.fsType, sizeof(row.fsType)));
        obj.str("label", cut(row.volumeName, sizeof(row.volumeName)));
        obj.num("sizeMB", static_cast<long long>(row.devSize));
        obj.num("usedMB", static_cast<long long>(row.devUsedSize));
        obj.str("vendor", cut(row.devVendor, sizeof(row.devVendor)));
        obj.str("model", cut(row.devModel, sizeof(row.devModel)));
        obj.str("serial", cut(row.devSerialNr, sizeof(row.devSerialNr)));
        obj.num("devId", static_cast<long long>(row.devId));
        append(&rows, obj);
    }
    out->fields.push_back(rows);
    return at;
}

size_t decode_dev_info(const uint8_t* data, size_t len, Decoded* out)
{
    if (len < 1)
        return 0;
    add_uint(out, "status", data[0]);
    Object obj;
    if (len > 1 && !decode_elements(data + 1, len - 1, &obj))
        return 1;
    if (len > 1)
        out->fields.push_back(Field{"device", obj.text, obj.json});
    return len;
}

}  // namespace lumctl
