// Hub rows of the file operations. Each hands its operation a buffer and a
// length that reach no further than what arrived, and answers the operation's
// bool; the operation sends its event from this thread. A missing path is not
// enough input data: the operation gets an empty text of length 0 and sends
// its result-1 event, so a client waiting for the event hears of it.
#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>

#include "CmdCalls.h"
#include "PathPair.h"
#include "ServiceLog.h"
#include "StorageManagerService.h"
#include "StorageModuleCmd.h"

#define HLOGW(fmt, ...) SLOG_TAG(ANDROID_LOG_WARN, STORAGE_TAG_HUB, fmt, ##__VA_ARGS__)
#define HLOGE(fmt, ...) SLOG_TAG(ANDROID_LOG_ERROR, STORAGE_TAG_HUB, fmt, ##__VA_ARGS__)

// The most data bytes STORAGE_WRITE_FILE takes; more counts as an allocation
// that failed.
#define WRITE_FILE_DATA_MAX (64u << 20)

namespace {

using android::Parcel;

// The path, or the empty text of length 0 when it is missing.
const char* path_or_empty(const char* path, int cmd, int32_t* len)
{
    if (path != nullptr)
        return path;
    warn_missing_text(cmd);
    *len = 0;
    return "";
}

int32_t clamp_len(size_t n)
{
    return static_cast<int32_t>(std::min<size_t>(n, INT32_MAX));
}

}  // namespace

void cmd_delete_dir(const Parcel& request, Parcel* reply)
{
    const char* pPath = request.readCString();
    int32_t cMode = request.readInt32();
    int32_t len = request.readInt32();
    pPath = path_or_empty(pPath, STORAGE_DELETE_DIR, &len);
    reply->writeBool(theStorageManagerService.DeleteDir(pPath, cMode, len));
}

// The recording flag travels as an optional int32 behind len; its low byte
// goes behind the path's terminator. len then reaches that byte (a len of 0
// or less stays as sent); without the int32 it reaches the terminator at
// most, so the flag reads 0.
void cmd_delete_file(const Parcel& request, Parcel* reply)
{
    const char* pPath = request.readCString();
    int32_t len = request.readInt32();
    bool hasFlag = request.dataAvail() >= sizeof(int32_t);
    int32_t flag = hasFlag ? request.readInt32() : 0;
    pPath = path_or_empty(pPath, STORAGE_DELETE_FILE, &len);
    size_t n = strlen(pPath);
    std::string buf(pPath, n);
    buf.push_back('\0');
    buf.push_back(static_cast<char>(flag & 0xff));
    int32_t reach = clamp_len(n + (hasFlag ? 2 : 1));
    if (len > 0)
        len = hasFlag ? reach : std::min(len, reach);
    reply->writeBool(theStorageManagerService.DeleteFile(buf.data(), len));
}

// Paths that cannot be packed get RenameFile's own refusal: its result-3
// event goes out and nothing is renamed.
void cmd_rename_file(const Parcel& request, Parcel* reply)
{
    const char* pSrc = request.readCString();
    const char* pDst = request.readCString();
    bool isPvrRec = request.readBool();
    unsigned char buf[PATH_PAIR_BUF_LEN];
    bool packed = pack_path_pair(STORAGE_RENAME_FILE, pSrc, pDst, isPvrRec, buf);
    int len = packed ? PATH_PAIR_BUF_LEN : 0;
    reply->writeBool(theStorageManagerService.RenameFile(packed ? buf : nullptr, len));
}

void cmd_create_dir(const Parcel& request, Parcel* reply)
{
    const char* pFilePath = request.readCString();
    int32_t len = request.readInt32();
    pFilePath = path_or_empty(pFilePath, STORAGE_CREATE_DIR, &len);
    reply->writeBool(theStorageManagerService.CreateDir(pFilePath, len));
}

// size counts the data alone: WriteFile gets "path NUL data" and all of it.
// A size that is negative or larger than what arrived leaves the path alone
// (not enough input data); one that cannot be allocated is answered false.
void cmd_write_file(const Parcel& request, Parcel* reply)
{
    const char* pSrcPath = request.readCString();
    int32_t size = request.readInt32();
    if (pSrcPath == nullptr) {
        warn_missing_text(STORAGE_WRITE_FILE);
        theStorageManagerService.WriteFile(reinterpret_cast<const unsigned char*>(""), 0);
        reply->writeBool(false);
        return;
    }
    size_t pathLen = strlen(pSrcPath) + 1;
    size_t dataLen = raw_bytes_arrived(request, STORAGE_WRITE_FILE, size) ? static_cast<size_t>(size) : 0;
    auto* buf = dataLen <= WRITE_FILE_DATA_MAX && pathLen <= INT32_MAX - dataLen
                    ? static_cast<unsigned char*>(calloc(1, pathLen + dataLen))
                    : nullptr;
    if (buf == nullptr) {
        reply->writeBool(false);
        HLOGE("[%s, %d] malloc failed!\n");
        return;
    }
    memcpy(buf, pSrcPath, pathLen - 1);
    if (dataLen > 0 && request.read(buf + pathLen, dataLen) != android::OK)
        dataLen = 0;
    reply->writeBool(theStorageManagerService.WriteFile(buf, static_cast<int>(pathLen + dataLen)));
    free(buf);
}
