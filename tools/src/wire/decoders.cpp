// Event names and payload decoders, one row per event; an event without a
// row is shown as hex. Each decoder returns the bytes it decoded, or 0 when
// the payload is too short for its layout.
#include <functional>

#include <StorageDevice.h>
#include <StorageEvents.h>
#include <StorageFormatInfo.h>
#include <StoragePvr.h>

#include "lumctl/output.h"

namespace lumctl {

namespace {

using Decoder = size_t (*)(const uint8_t* data, size_t len, Decoded* out);

std::string cut(const char* text, size_t size) { return std::string(text, strnlen(text, size)); }

// One JSON object and its one-line text ("name=value ..."), built together.
struct Object {
    Json json = Json::object();
    std::string text;
    void str(const char* name, const std::string& value) { add(name, value, quoted(value.data(), value.size())); }
    void num(const char* name, long long value) { add(name, value, std::to_string(value)); }
    void add(const char* name, const Json& value, const std::string& shown)
    {
        json[name] = value;
        text += std::string(text.empty() ? "" : " ") + name + "=" + shown;
    }
};

// Appends an object to a field holding a JSON array, text one line each.
void append(Field* field, const Object& obj)
{
    field->json.push_back(obj.json);
    field->text += (field->text.empty() ? "" : "\n  ") + obj.text;
}

// Walks the elements {u16 tag, u16 len, len bytes} (big-endian) until fn
// returns false, an element runs past the end or fewer than 4 bytes are
// left. Returns the bytes of the elements fn took.
size_t walk_elements(const uint8_t* p, size_t len, const std::function<bool(uint32_t, const uint8_t*, size_t)>& fn)
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

const char* const kTagNames[] = {nullptr, nullptr, "node", "conn", "mountPoint", "label", "fsType", nullptr,
                                 "vendor", "model", "serial", "devId", "sizeMB", "usedMB"};

// The children of one element list, the known tags by name, strings up to
// their NUL; false when an element runs past the end.
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

// A string up to its NUL named name; 0 without a NUL.
size_t add_cstring(Decoded* out, const char* name, const uint8_t* data, size_t len)
{
    const void* nul = memchr(data, 0, len);
    if (nul == nullptr)
        return 0;
    size_t n = static_cast<size_t>(static_cast<const uint8_t*>(nul) - data);
    add_string(out, name, reinterpret_cast<const char*>(data), n);
    return n + 1;
}

// One host-order int32 named name.
size_t add_int32(Decoded* out, const char* name, const uint8_t* data, size_t len)
{
    int32_t value = 0;
    if (!read_record(data, len, &value))
        return 0;
    add_int(out, name, value);
    return sizeof(value);
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

// The size in MB (big-endian), then the device with its NUL.
size_t decode_size_reply(const uint8_t* data, size_t len, Decoded* out)
{
    if (len < 5 || memchr(data + 4, 0, len - 4) == nullptr)
        return 0;
    add_uint(out, "sizeMB", be32(data));
    return 4 + add_cstring(out, "device", data + 4, len - 4);
}

const char* const kVerdicts[] = {"success", "capacity smaller than the limit", "format unusable",
                                 "no mount path", "identity failed", "bad parameters"};
const char* const kGuideEvents[] = {"space not enough for timeshift", "request format partition",
                                    "request select partition", "space not enough for record", "nothing"};

// Appends " (NAME)" to the last field's text: names[value], "?" outside.
template <size_t N>
void name_last(Decoded* out, const char* const (&names)[N], int32_t value)
{
    const char* name = value >= 0 && static_cast<size_t>(value) < N ? names[value] : "?";
    out->fields.back().text += std::string(" (") + name + ")";
}

// The rows of one guide table as a field, through the device rows decoder.
void add_rows(Decoded* out, const char* name, const SConnectedDevice* rows, int32_t count)
{
    count = count < 0 ? 0 : count > STORAGE_GUIDE_ROWS ? STORAGE_GUIDE_ROWS : count;
    Decoded rows_out;
    decode_device_rows(reinterpret_cast<const uint8_t*>(rows), sizeof(SConnectedDevice) * static_cast<size_t>(count),
                       &rows_out);
    rows_out.fields.front().name = name;
    out->fields.push_back(rows_out.fields.front());
}

size_t decode_mark_info(const uint8_t* data, size_t len, Decoded* out)
{
    SStorageMarkPvrInfo info;
    if (!read_record(data, len, &info))
        return 0;
    add_bool(out, "isPvrPartition", info.is_pvr_partition);
    add_int(out, "pvrFlag", info.pvr_flag);
    name_last(out, kVerdicts, info.pvr_flag);
    add_chars(out, "partitionId", info.partition_id);
    return sizeof(info);
}

// SStorageFormatInfo: devName (bounded to its 30 bytes), result as a signed
// int, with names for the busy and timeout values.
size_t decode_format_info(const uint8_t* data, size_t len, Decoded* out)
{
    SStorageFormatInfo info;
    if (!read_record(data, len, &info))
        return 0;
    add_chars(out, "devName", info.devName);
    int32_t result = 0;
    memcpy(&result, &info.result, sizeof(result));
    add_int(out, "result", result);
    if (info.result == STORAGE_FORMAT_RESULT_BUSY || info.result == STORAGE_FORMAT_RESULT_TIMEOUT)
        out->fields.back().text += info.result == STORAGE_FORMAT_RESULT_BUSY ? " (busy)" : " (timeout)";
    return sizeof(info);
}

// SetAllPartitions' reply: retVal, the device with its NUL, and when retVal
// is 0 the new size in MB and three zero words, all big-endian.
size_t decode_set_all_partition(const uint8_t* data, size_t len, Decoded* out)
{
    if (len < 2 || memchr(data + 1, 0, len - 1) == nullptr)
        return 0;
    add_uint(out, "retVal", data[0]);
    size_t used = 1 + add_cstring(out, "device", data + 1, len - 1);
    if (data[0] != 0)
        return used;
    if (len < used + 16)
        return 0;
    for (const char* name : {"sizeMB", "part2MB", "part3MB", "part4MB"}) {
        add_uint(out, name, be32(data + used));
        used += 4;
    }
    return used;
}

// Status, progress, speed and processes (big-endian); the two zero bytes of
// the 12-byte variant are left to the rest.
size_t decode_benchmark(const uint8_t* data, size_t len, Decoded* out)
{
    if (len < 10)
        return 0;
    add_uint(out, "status", data[0]);
    add_uint(out, "progress", data[1]);
    add_uint(out, "speed", be32(data + 2));
    add_uint(out, "processes", be32(data + 6));
    return 10;
}

// LUM_TV_EVT_STORAGE_OUT_OF_SPACE: the low byte of the event id of the
// operation that ran out of space (0x11: the copy).
size_t decode_out_of_space(const uint8_t* data, size_t len, Decoded* out)
{
    if (len == 0)
        return 0;
    add_uint(out, "command", data[0]);
    if (data[0] == (LUM_TV_EVT_STORAGE_COPY & 0xFF))
        out->fields.back().text += " (copy)";
    return 1;
}

struct DecoderRow {
    int32_t id;
    Decoder decode;
};

const DecoderRow kDecoders[] = {
    {LUM_TV_EVT_STORAGE_FORMAT, decode_format_info},
    {LUM_TV_EVT_STORAGE_SET_ALL_PARTITION, decode_set_all_partition},
    {LUM_TV_EVT_STORAGE_DEV_BENCHMARK, decode_benchmark},
    {LUM_TV_EVT_STORAGE_DEV_MOUNT, decode_hot_plug_info},
    {LUM_TV_EVT_STORAGE_DEV_UMOUNT, [](const uint8_t* d, size_t n, Decoded* o) { return add_cstring(o, "mountPoint", d, n); }},
    {LUM_TV_EVT_STORAGE_DEV_MOUNT_END, [](const uint8_t* d, size_t n, Decoded* o) { return add_int32(o, "count", d, n); }},
    {LUM_TV_EVT_STORAGE_DEV_UMOUNT_END, [](const uint8_t* d, size_t n, Decoded* o) { return add_int32(o, "count", d, n); }},
    {LUM_TV_EVT_STORAGE_HDD_GET_SIZE, decode_size_reply},
    {LUM_TV_EVT_STORAGE_HDD_GET_PARTITION_USE, decode_size_reply},
    {LUM_TV_EVT_STORAGE_GET_ALLOCATE_BYTES, [](const uint8_t* d, size_t n, Decoded* o) { return add_int32(o, "freeMB", d, n); }},
    {LUM_TV_EVT_STORAGE_GET_STORAGE_VOLUMES, decode_tagged_table},
    {LUM_TV_EVT_STORAGE_GET_DEV_TABLE, decode_device_rows},
    {LUM_TV_EVT_STORAGE_GET_DEV_INFO, decode_dev_info},
    {LUM_TV_EVT_STORAGE_PVR_MARK, decode_mark_info},
    {LUM_TV_EVT_STORAGE_CONNECT_STATE, decode_guide},
    {LUM_TV_EVT_STORAGE_DISCONNECT, decode_guide},
    {LUM_TV_EVT_STORAGE_READ_DIRS, decode_listing_block},
    {LUM_TV_EVT_STORAGE_EXTRACT_COVER, decode_cover},
    {LUM_TV_EVT_STORAGE_OUT_OF_SPACE, decode_out_of_space},
};

// Payloads that are one text, all of it: a uuid, a PVR partition's path.
const std::pair<int32_t, const char*> kTexts[] = {
    {LUM_TV_EVT_STORAGE_GET_UUID_FOR_PATH, "uuid"},
    {LUM_TV_EVT_STORAGE_PVR_DEV_CHANGE, "mountPoint"},
    {LUM_TV_EVT_STORAGE_PVR_PLUG_OUT, "mountPoint"},
};

constexpr int kOther = -1;

// The one-byte results of the file operations: 0 is success for every
// event; kOther words the values without a row of their own (a tool's
// status folded into one byte).
struct ResultRow {
    int32_t id;
    int result;  // 0..255, or kOther
    const char* word;
};

const ResultRow kResults[] = {
    {LUM_TV_EVT_STORAGE_CREATE_DIR, 0, "created or exists"},
    {LUM_TV_EVT_STORAGE_CREATE_DIR, 1, "not enough input"},
    {LUM_TV_EVT_STORAGE_CREATE_DIR, 2, "mkdir failed"},
    {LUM_TV_EVT_STORAGE_CREATE_DIR, kOther, "created, but touch failed"},
    {LUM_TV_EVT_STORAGE_DELETE_DIR, 0, "removed"},
    {LUM_TV_EVT_STORAGE_DELETE_DIR, 1, "not enough input or bad mode"},
    {LUM_TV_EVT_STORAGE_DELETE_DIR, 2, "rmdir or rm -rf failed"},
    {LUM_TV_EVT_STORAGE_DELETE_DIR, kOther, "failed"},
    {LUM_TV_EVT_STORAGE_DELETE_FILE, 0, "removed"},
    {LUM_TV_EVT_STORAGE_DELETE_FILE, 1, "not enough input"},
    {LUM_TV_EVT_STORAGE_DELETE_FILE, 2, "protected"},
    {LUM_TV_EVT_STORAGE_DELETE_FILE, 3, "rm failed"},
    {LUM_TV_EVT_STORAGE_DELETE_FILE, kOther, "failed"},
    {LUM_TV_EVT_STORAGE_SET_PROTECTED, 0, "done"},
    {LUM_TV_EVT_STORAGE_SET_PROTECTED, 1, "bad mode byte"},
    {LUM_TV_EVT_STORAGE_SET_PROTECTED, 2, "chmod failed"},
    {LUM_TV_EVT_STORAGE_SET_PROTECTED, kOther, "failed"},
    {LUM_TV_EVT_STORAGE_COPY, 0, "done"},
    {LUM_TV_EVT_STORAGE_COPY, 1, "refused, cancelled, failed walk or disk full"},
    {LUM_TV_EVT_STORAGE_COPY, 5, "busy: another copy is running"},
    {LUM_TV_EVT_STORAGE_COPY, 6, "failed with 8"},
    {LUM_TV_EVT_STORAGE_COPY, 13, "destination protected"},
    {LUM_TV_EVT_STORAGE_COPY, 255, "source not a directory or destination exists"},
    {LUM_TV_EVT_STORAGE_COPY, kOther, "cp failed"},
    {LUM_TV_EVT_STORAGE_RENAME_FILE, 0, "done"},
    {LUM_TV_EVT_STORAGE_RENAME_FILE, 2, "destination protected"},
    {LUM_TV_EVT_STORAGE_RENAME_FILE, 3, "failed"},
    {LUM_TV_EVT_STORAGE_RENAME_FILE, kOther, "failed"},
    {LUM_TV_EVT_STORAGE_MOVE_FILE, 0, "done"},
    {LUM_TV_EVT_STORAGE_MOVE_FILE, 3, "failed"},
    {LUM_TV_EVT_STORAGE_MOVE_FILE, kOther, "failed"},
    {LUM_TV_EVT_STORAGE_WRITE_FILE, 0, "written"},
    {LUM_TV_EVT_STORAGE_WRITE_FILE, 1, "not enough input data"},
    {LUM_TV_EVT_STORAGE_WRITE_FILE, 2, "protected and not made writable"},
    {LUM_TV_EVT_STORAGE_WRITE_FILE, 3, "failed"},
    {LUM_TV_EVT_STORAGE_WRITE_FILE, kOther, "failed"},
};

struct EventNameRow {
    int32_t id;
    const char* name;
};

#define LUMCTL_EVENT_ROW(name, value) {value, #name},
const EventNameRow kEventNames[] = {LUM_STORAGE_EVENT_LIST(LUMCTL_EVENT_ROW)};
#undef LUMCTL_EVENT_ROW

// Decodes data by the event's row; false when id has none.
bool decode_by_row(int32_t id, const uint8_t* data, size_t len, Decoded* out, size_t* used)
{
    for (const DecoderRow& row : kDecoders) {
        if (row.id == id) {
            *used = row.decode(data, len, out);
            return true;
        }
    }
    for (const auto& row : kTexts) {
        if (row.first == id) {
            add_string(out, row.second, reinterpret_cast<const char*>(data), len);
            *used = len;
            return true;
        }
    }
    // A result event: "result" as a number, its text with the word.
    const char* word = result_word(id, len > 0 ? data[0] : 0);
    if (word == nullptr)
        return false;
    *used = len > 0 ? 1 : 0;
    if (len > 0)
        add_uint(out, "result", data[0]);
    if (len > 0)
        out->fields.back().text += std::string(" (") + word + ")";
    return true;
}

}  // namespace

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

size_t decode_guide(const uint8_t* data, size_t len, Decoded* out)
{
    if (len < sizeof(SStoragePvrDevGuideInfo))
        return 0;
    // 63000 bytes: copied to the heap, not the stack of the caller.
    std::string copy(reinterpret_cast<const char*>(data), sizeof(SStoragePvrDevGuideInfo));
    const auto* g = reinterpret_cast<const SStoragePvrDevGuideInfo*>(copy.data());
    add_bool(out, "show", g->bShow);
    add_int(out, "event", g->enEvt);
    name_last(out, kGuideEvents, g->enEvt);
    add_int(out, "partitionNum", g->s32PartitionNum);
    add_rows(out, "partitions", g->astPartition, g->s32PartitionNum);
    add_int(out, "connectedDevNum", g->s32ConnectedDevNum);
    add_rows(out, "connected", g->astConnectedDev, g->s32ConnectedDevNum);
    return sizeof(SStoragePvrDevGuideInfo);
}

const char* verdict_name(int32_t verdict)
{
    const size_t count = sizeof(kVerdicts) / sizeof(kVerdicts[0]);
    return verdict >= 0 && static_cast<size_t>(verdict) < count ? kVerdicts[verdict] : "unknown";
}

const char* result_word(int32_t id, uint8_t result)
{
    const char* other = nullptr;
    for (const ResultRow& row : kResults) {
        if (row.id == id && row.result == result)
            return row.word;
        if (row.id == id && row.result == kOther)
            other = row.word;
    }
    return other;
}

const char* event_name(int32_t id)
{
    for (const EventNameRow& row : kEventNames) {
        if (row.id == id)
            return row.name;
    }
    return nullptr;
}

Decoded decode_event(int32_t id, const uint8_t* data, size_t len)
{
    Decoded out;
    size_t used = 0;
    if (!decode_by_row(id, data, len, &out, &used)) {
        add_bytes(&out, "hex", data, len);
        return out;
    }
    if (used == 0) {
        out.fields.clear();
        out.complete = false;
    }
    if (used < len)
        out.rest.assign(data + used, data + len);
    return out;
}

}  // namespace lumctl
