// Event payload decoders. To decode another event, write a function that
// fills a Decoded from the bytes and add a row to kDecoders; an event whose
// payload is one result byte takes a row in file_results.cpp instead.
#include "lumctl/event_decoders.h"

#include "lumctl/device_decoders.h"
#include "lumctl/file_results.h"
#include "lumctl/listing_decoders.h"

#include <cstring>

#include <StorageEvents.h>
#include <StorageFormatInfo.h>

namespace lumctl {

namespace {

struct EventNameRow {
    int32_t id;
    const char* name;
};

#define LUMCTL_EVENT_ROW(name, value) {value, #name},
const EventNameRow kEventNames[] = {LUM_STORAGE_EVENT_LIST(LUMCTL_EVENT_ROW)};
#undef LUMCTL_EVENT_ROW

struct ResultName {
    unsigned int result;
    const char* name;
};

const ResultName kFormatResults[] = {
    {STORAGE_FORMAT_RESULT_BUSY, "busy"},
    {STORAGE_FORMAT_RESULT_TIMEOUT, "timeout"},
};

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
    for (const ResultName& row : kFormatResults) {
        if (row.result == info.result)
            out->fields.back().text += std::string(" (") + row.name + ")";
    }
    return sizeof(info);
}

// SetAllPartitions' reply: retVal, the device with its NUL, and when retVal
// is 0 the new size in MB and three zero words, all big-endian.
size_t decode_set_all_partition(const uint8_t* data, size_t len, Decoded* out)
{
    if (len < 2 || memchr(data + 1, 0, len - 1) == nullptr)
        return 0;
    size_t n = strlen(reinterpret_cast<const char*>(data + 1));
    add_uint(out, "retVal", data[0]);
    add_string(out, "device", reinterpret_cast<const char*>(data + 1), n);
    size_t used = 1 + n + 1;
    if (data[0] != 0)
        return used;
    if (len < used + 16)
        return 0;
    const char* const names[] = {"sizeMB", "part2MB", "part3MB", "part4MB"};
    for (const char* name : names) {
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

struct DecoderRow {
    int32_t id;
    // Returns the bytes it decoded, or 0 when the payload is too short.
    size_t (*decode)(const uint8_t* data, size_t len, Decoded* out);
};

const DecoderRow kDecoders[] = {
    {LUM_TV_EVT_STORAGE_FORMAT, decode_format_info},
    {LUM_TV_EVT_STORAGE_SET_ALL_PARTITION, decode_set_all_partition},
    {LUM_TV_EVT_STORAGE_DEV_BENCHMARK, decode_benchmark},
    {LUM_TV_EVT_STORAGE_DEV_MOUNT, decode_hot_plug_info},
    {LUM_TV_EVT_STORAGE_DEV_UMOUNT, decode_mount_point},
    {LUM_TV_EVT_STORAGE_DEV_MOUNT_END, decode_count},
    {LUM_TV_EVT_STORAGE_DEV_UMOUNT_END, decode_count},
    {LUM_TV_EVT_STORAGE_HDD_GET_SIZE, decode_size_reply},
    {LUM_TV_EVT_STORAGE_HDD_GET_PARTITION_USE, decode_size_reply},
    {LUM_TV_EVT_STORAGE_GET_ALLOCATE_BYTES, decode_free_mb},
    {LUM_TV_EVT_STORAGE_GET_UUID_FOR_PATH, decode_uuid},
    {LUM_TV_EVT_STORAGE_GET_STORAGE_VOLUMES, decode_tagged_table},
    {LUM_TV_EVT_STORAGE_GET_DEV_TABLE, decode_device_rows},
    {LUM_TV_EVT_STORAGE_GET_DEV_INFO, decode_dev_info},
    {LUM_TV_EVT_STORAGE_PVR_DEV_CHANGE, decode_path_text},
    {LUM_TV_EVT_STORAGE_PVR_PLUG_OUT, decode_path_text},
    {LUM_TV_EVT_STORAGE_PVR_MARK, decode_mark_info},
    {LUM_TV_EVT_STORAGE_CONNECT_STATE, decode_guide},
    {LUM_TV_EVT_STORAGE_DISCONNECT, decode_guide},
    {LUM_TV_EVT_STORAGE_READ_DIRS, decode_listing_block},
    {LUM_TV_EVT_STORAGE_EXTRACT_COVER, decode_cover},
    {LUM_TV_EVT_STORAGE_OUT_OF_SPACE, decode_out_of_space},
};

const DecoderRow* find_decoder(int32_t id)
{
    for (const DecoderRow& row : kDecoders) {
        if (row.id == id)
            return &row;
    }
    return nullptr;
}

}  // namespace

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
    const DecoderRow* row = find_decoder(id);
    if (row == nullptr && !is_result_event(id)) {
        add_bytes(&out, "hex", data, len);
        return out;
    }
    size_t used = row != nullptr ? row->decode(data, len, &out) : decode_result_event(id, data, len, &out);
    if (used == 0) {
        out.fields.clear();
        out.complete = false;
    }
    if (used < len)
        out.rest.assign(data + used, data + len);
    return out;
}

}  // namespace lumctl
