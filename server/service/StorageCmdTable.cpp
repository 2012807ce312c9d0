#include "StorageCmdTable.h"

#include <cstdlib>
#include <cstring>

#include <cutils/properties.h>
#include <norvfw/NorvMsg.h>

#include "CmdCalls.h"
#include "ServiceLog.h"
#include "SignalNo.h"

#define HLOGW(fmt, ...) SLOG_TAG(ANDROID_LOG_WARN, STORAGE_TAG_HUB, fmt, ##__VA_ARGS__)

#define PROP_PVR_REC_ENABLE "persist.pvr.rec.enable"
#define PROP_PVR_TSHIFT_ENABLE "persist.pvr.tshift.enable"
#define PROP_PVR_DEVICE_SIZE_LIMIT "persist.pvr.device_size_limit"
#define PVR_DEVICE_SIZE_LIMIT_MIN 1800u

namespace {

void reply_false(const android::Parcel&, android::Parcel* reply)
{
    reply->writeBool(false);
}

// Stores a new size limit for the automatic PVR choice. The client hears
// nothing either way: a value below the minimum, the current value, or a
// television that neither records nor timeshifts leaves the property alone.
void set_pvr_dev_size_limit(const android::Parcel& request, android::Parcel*)
{
    bool rec = property_get_bool(PROP_PVR_REC_ENABLE, 0);
    bool tshift = property_get_bool(PROP_PVR_TSHIFT_ENABLE, 0);
    int32_t oldSize = property_get_int32(PROP_PVR_DEVICE_SIZE_LIMIT, 0);
    uint32_t newSize = request.readUint32();
    if ((rec || tshift) && newSize != static_cast<uint32_t>(oldSize) && newSize >= PVR_DEVICE_SIZE_LIMIT_MIN) {
        char value[32];
        snprintf(value, sizeof(value), "%u", newSize);
        property_set(PROP_PVR_DEVICE_SIZE_LIMIT, value);
    }
}

void get_pvr_dev_size_limit(const android::Parcel&, android::Parcel* reply)
{
    reply->writeUint32(static_cast<uint32_t>(property_get_int32(PROP_PVR_DEVICE_SIZE_LIMIT, 0)));
}

#define POST(code, signal, fields) {code, CMD_ROAD_POST, signal, fields, 0, nullptr, nullptr}
#define POST_ALONE(code, signal) {code, CMD_ROAD_POST, signal, "", CMD_POST_NO_PAYLOAD, nullptr, nullptr}
#define CALL(code, fn) {code, CMD_ROAD_CALL, 0, nullptr, 0, nullptr, fn}

const SCmdRow kCmdRows[] = {
    POST(STORAGE_GET_ALLOCATE_BYTES, SIG_ID_STORAGE_GET_ALLOCATE_BYTES, "1"),
    POST(STORAGE_GET_DEVICE_SIZE, SIG_ID_STORAGE_HDD_GET_SIZE, "1i"),
    POST(STORAGE_GET_PARTITION_USE, SIG_ID_STORAGE_GET_PARTITION_USE, "1i"),
    POST(STORAGE_GET_STORAGE_VOLUME, SIG_ID_STORAGE_GET_VOLUME, "1"),
    POST_ALONE(STORAGE_GET_STORAGE_VOLUMES, SIG_ID_STORAGE_GET_VOLUMES),
    POST(STORAGE_GET_UUID_FOR_PATH, SIG_ID_STORAGE_GET_UUID_FOR_PATH, "1"),
    POST(STORAGE_DEV_MOUNT, SIG_ID_STORAGE_MOUNT, "1"),
    POST(STORAGE_DEV_UMOUNT, SIG_ID_STORAGE_UNMOUNT, "1"),
    {STORAGE_DEV_FORMAT, CMD_ROAD_POST, SIG_ID_STORAGE_FORMAT, "1", 0, "[%s, %d] STORAGE_DEV_FORMAT volId:%s len %d\n", nullptr},
    POST(STORAGE_SET_ALL_PARTITION, SIG_ID_STORAGE_SET_ALL_PARTITION, "1i"),
    POST(STORAGE_DEV_BENCHMARK, SIG_ID_STORAGE_BENCHMARK, "1"),
    POST_ALONE(STORAGE_DEV_CANCEL_BENCHMARK, SIG_ID_STORAGE_CANCEL_BENCHMARK),
    CALL(STORAGE_PARTITION_FS_TYPE, cmd_partition_fs_type),
    CALL(STORAGE_PARTITION_TOTAL_SIZE, cmd_partition_total_size),
    CALL(STORAGE_PARTITION_USED_SIZE, cmd_partition_used_size),
    CALL(STORAGE_PVR_DEV_STATE, cmd_pvr_dev_state),
    CALL(STORAGE_PVR_MOUNT_PATH, cmd_pvr_mount_path),
    CALL(STORAGE_PVR_DISK_TOTAL, cmd_pvr_disk_total),
    CALL(STORAGE_PVR_DEV_AVAILABLE, cmd_pvr_dev_available),
    POST(STORAGE_PVR_MARK_DEV, SIG_ID_STORAGE_PVR_MARK_DEV, "1b"),
    CALL(STORAGE_PVR_GET_DEV_GUIDE_INFO, cmd_pvr_guide_info),
    POST(STORAGE_COPY, SIG_ID_STORAGE_COPY, "1it"),
    CALL(STORAGE_COPY_FILE, cmd_copy_file),
    CALL(STORAGE_COPY_DIRS, cmd_copy_dirs),
    CALL(STROAGE_LUM_MOVE, cmd_lum_move),
    CALL(STORAGE_IS_ENCRYPTED, reply_false),
    CALL(STORAGE_PARTITION_PRIVATE, reply_false),
    CALL(STORAGE_PARTITION_MIXED, reply_false),
    CALL(STORAGE_WIPE_ADOPTABLE_DISKS, reply_false),
    CALL(STORAGE_SET_VOLUME_INITED, reply_false),
    CALL(STORAGE_GET_VOLUME_STATE, reply_false),
    CALL(STORAGE_GET_STORAGE_LOW_BYTES, reply_false),
    CALL(STORAGE_GET_STORAGE_FULL_BYTES, reply_false),
    CALL(STORAGE_SET_PVR_DEV_SIZE_LIMIT, set_pvr_dev_size_limit),
    CALL(STORAGE_GET_PVR_DEV_SIZE_LIMIT, get_pvr_dev_size_limit),
    POST(STORAGE_START_HDD, SIG_ID_STORAGE_START_HDD, ""),
    POST(STORAGE_SHUTDOWN, SIG_ID_STORAGE_SHUTDOWN, "c"),
    POST(STORAGE_READ_DIRS, SIG_ID_STORAGE_READ_DIRS, "1iwf"),
    POST(STORAGE_EXTRACT_COVER, SIG_ID_STORAGE_EXTRACT_COVER, "12"),
    CALL(STORAGE_DELETE_DIR, cmd_delete_dir),
    CALL(STORAGE_DELETE_FILE, cmd_delete_file),
    POST(STORAGE_GET_DIR_SIZE, SIG_ID_STORAGE_GET_DIR_SIZE, "1"),
    CALL(STORAGE_RENAME_FILE, cmd_rename_file),
    CALL(STORAGE_CREATE_DIR, cmd_create_dir),
    CALL(STORAGE_WRITE_FILE, cmd_write_file),
    POST(STORAGE_SET_PROTECTED, SIG_ID_STORAGE_SET_PROTECTED, "1"),
    CALL(STORAGE_LUM_EXE_SYS_CMD, cmd_sys_cmd),
    CALL(STORAGE_LUM_EXE_SYS_CMD_RET, cmd_sys_cmd_ret),
    CALL(STORAGE_LUM_CHMOD, cmd_lum_chmod),
    CALL(STROAGE_LUM_OPEN, cmd_lum_open),
    CALL(STROAGE_LUM_CLOSE, cmd_lum_close),
    CALL(STROAGE_LUM_READ, cmd_lum_read),
    CALL(STROAGE_LUM_WRITE, cmd_lum_write),
    CALL(STORAGE_LUM_SYNC, cmd_lum_sync),
};

#undef POST
#undef POST_ALONE
#undef CALL

// The fields of one request, read in order before anything is posted.
struct SPostedFields {
    const char* text[2];
    int32_t intValue;
    bool boolValue;
    int64_t tag;
    char16_t ch;
    bool textMissing;
    bool hasFlags;
    unsigned char flags;
    bool hasRaw;  // 't': bytes follow the int32
};

void read_fields(const char* fields, const android::Parcel& request, SPostedFields* out)
{
    memset(out, 0, sizeof(*out));
    for (const char* f = fields; *f != '\0'; ++f) {
        switch (*f) {
        case '1':
        case '2': {
            const char* text = request.readCString();
            out->text[*f - '1'] = text;
            if (text == nullptr)
                out->textMissing = true;
            break;
        }
        case 'i': out->intValue = request.readInt32(); break;
        case 'b': out->boolValue = request.readBool(); break;
        case 'w': out->tag = request.readInt64(); break;
        case 'c': out->ch = request.readChar(); break;
        case 'f':
            // Optional: clients that send no flags end their request before it.
            if (request.dataAvail() >= sizeof(int32_t)) {
                out->hasFlags = true;
                out->flags = static_cast<unsigned char>(request.readInt32());
            }
            break;
        case 't':
            // Optional: old clients end their request before the bytes.
            out->hasRaw = request.dataAvail() > 0;
            break;
        default: break;
        }
    }
}

// Texts travel up to their first zero and must leave room for it in the
// 100-byte fields; a longer text would name another file than the client
// meant, so it is refused rather than cut.
bool texts_fit(int code, const SPostedFields& in)
{
    if (in.textMissing) {
        HLOGW("[%s, %d] ***W: cmd %d: a text is missing, nothing posted\n", code);
        return false;
    }
    for (const char* text : in.text) {
        // With raw bytes the first text travels whole in them; buf1 keeps
        // its first 99 bytes for the logs.
        if (in.hasRaw && text == in.text[0])
            continue;
        if (text != nullptr && strlen(text) >= STORAGE_ACTION_TEXT_LEN) {
            HLOGW("[%s, %d] ***W: cmd %d: text of %zu bytes does not fit, nothing posted\n", code,
                  strlen(text));
            return false;
        }
    }
    if (in.hasFlags && strlen(in.text[0]) + 1 >= STORAGE_ACTION_TEXT_LEN) {
        HLOGW("[%s, %d] ***W: cmd %d: no room for the flags behind a text of %zu bytes, nothing posted\n",
              code, strlen(in.text[0]));
        return false;
    }
    return true;
}

void fill_record(const char* fields, const SPostedFields& in, StorageManagerAction_t* record)
{
    for (const char* f = fields; *f != '\0'; ++f) {
        switch (*f) {
        case '1': memcpy(record->buf1, in.text[0], strnlen(in.text[0], STORAGE_ACTION_TEXT_LEN - 1)); break;
        case '2': memcpy(record->buf2, in.text[1], strlen(in.text[1])); break;
        case 'i': record->intValue1 = in.intValue; break;
        case 'b': record->boolValue1 = in.boolValue; break;
        case 'w': record->ushortValue1 = static_cast<uint16_t>(in.tag & 0xffff); break;
        case 'c': record->buf1[0] = static_cast<unsigned char>(in.ch); break;
        case 'f': {
            // The flags byte stands behind buf1's terminator, and intValue1
            // says how much of buf1 the service may read: never more than
            // arrived, whatever length the client gave.
            size_t n = strlen(in.text[0]);
            if (in.hasFlags)
                record->buf1[n + 1] = in.flags;
            record->intValue1 = static_cast<int32_t>(n + (in.hasFlags ? 2 : 1));
            break;
        }
        case 't':
            // Never more than arrived: the bytes, or the text and its NUL.
            record->intValue1 = in.hasRaw ? in.intValue : static_cast<int32_t>(strlen(in.text[0]) + 1);
            break;
        default: break;
        }
    }
}

// The raw bytes of a 't' field in a fresh block behind a zeroed record, so
// that the message carries both in one allocation. nullptr (with a warning)
// when the count is out of range, more than the request holds, or the bytes
// do not begin with the first text and its NUL.
StorageManagerAction_t* take_raw_tail(int code, const android::Parcel& request, const SPostedFields& in,
                                      size_t* size)
{
    int32_t len = in.intValue;
    size_t textLen = strlen(in.text[0]) + 1;
    if (len <= 0 || len > CMD_RAW_TAIL_MAX || static_cast<size_t>(len) < textLen) {
        HLOGW("[%s, %d] ***W: cmd %d: %d raw bytes refused, nothing posted\n", code, len);
        return nullptr;
    }
    auto* block = static_cast<StorageManagerAction_t*>(calloc(1, sizeof(StorageManagerAction_t) + len));
    if (block == nullptr)
        return nullptr;
    unsigned char* raw = reinterpret_cast<unsigned char*>(block + 1);
    if (request.read(raw, static_cast<size_t>(len)) != android::OK || memcmp(raw, in.text[0], textLen) != 0) {
        HLOGW("[%s, %d] ***W: cmd %d: the %d raw bytes are missing or do not begin with the text, nothing posted\n",
              code, len);
        free(block);
        return nullptr;
    }
    *size = sizeof(StorageManagerAction_t) + static_cast<size_t>(len);
    return block;
}

}  // namespace

const SCmdRow* find_cmd_row(int code)
{
    for (const SCmdRow& row : kCmdRows) {
        if (row.code == code)
            return &row;
    }
    return nullptr;
}

bool post_cmd_row(const SCmdRow& row, const android::Parcel& request,
                  StorageManagerAction_t* record, bool* bFree, CThreadObjectWithQueue& target)
{
    SPostedFields in;
    read_fields(row.fields, request, &in);
    if (row.logFormat != nullptr && in.text[0] != nullptr)
        SLOG_TAG(ANDROID_LOG_DEBUG, STORAGE_TAG_HUB, row.logFormat, in.text[0], static_cast<int>(strlen(in.text[0])));
    if (record == nullptr || !texts_fit(row.code, in))
        return false;
    StorageManagerAction_t* payload = record;
    size_t size = sizeof(*record);
    if (in.hasRaw && (payload = take_raw_tail(row.code, request, in, &size)) == nullptr)
        return false;

    CNorvMsg msg;
    msg.SetSignalName(row.signal);
    if ((row.flags & CMD_POST_NO_PAYLOAD) == 0) {
        fill_record(row.fields, in, payload);
        msg.SetSignalPtr(payload, size);
        // A block of its own leaves the record with the caller.
        *bFree = payload != record;
    }
    return target.SendCmd(&msg) == 0;
}
