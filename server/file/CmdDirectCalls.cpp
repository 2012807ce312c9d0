// Hub rows of the direct primitives: the answer is the result, and the
// error number after a failure. Sizes are checked where they are read: a
// negative one or more raw bytes than arrived is EINVAL, more than 8 MiB
// counts as a failed allocation (ENOMEM).
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "CmdCalls.h"
#include "ServiceLog.h"
#include "StorageManagerService.h"
#include "StorageModuleCmd.h"

#define HLOGI(fmt, ...) SLOG_TAG(ANDROID_LOG_INFO, STORAGE_TAG_HUB, fmt, ##__VA_ARGS__)
#define HLOGE(fmt, ...) SLOG_TAG(ANDROID_LOG_ERROR, STORAGE_TAG_HUB, fmt, ##__VA_ARGS__)

// Bytes of one read or write: a read's reply must fit one frame of the
// host's socket protocol (16 MiB) with room to spare.
#define LUM_IO_MAX (8 << 20)

namespace {

using android::Parcel;

// The result, and err behind it when the result is negative.
void reply_result(Parcel* reply, int ret, int err)
{
    reply->writeInt32(ret);
    if (ret < 0)
        reply->writeInt32(err);
}

// A missing path is answered -1 and EINVAL; true when the path is there.
bool path_arrived(const char* path, int cmd, Parcel* reply)
{
    if (path != nullptr)
        return true;
    warn_missing_text(cmd);
    reply_result(reply, -1, EINVAL);
    return false;
}

}  // namespace

void cmd_sys_cmd(const Parcel& request, Parcel* reply)
{
    int32_t len = request.readInt32();
    const char* pBuf = request.readCString();
    if (pBuf == nullptr)
        warn_missing_text(STORAGE_LUM_EXE_SYS_CMD);
    reply->writeInt32(pBuf != nullptr ? theStorageManagerService.systemCmd(pBuf, len) : -1);
}

void cmd_sys_cmd_ret(const Parcel& request, Parcel* reply)
{
    const char* pExeCmd = request.readCString();
    std::string str;
    if (pExeCmd == nullptr)
        warn_missing_text(STORAGE_LUM_EXE_SYS_CMD_RET);
    int ret = pExeCmd != nullptr ? theStorageManagerService.systemCmd(pExeCmd, str) : -1;
    reply->writeInt32(ret);
    if (ret > 0)
        reply->writeCString(str.c_str());
}

void cmd_lum_chmod(const Parcel& request, Parcel* reply)
{
    const char* pBuf = request.readCString();
    int32_t mode = request.readInt32();
    if (!path_arrived(pBuf, STORAGE_LUM_CHMOD, reply))
        return;
    int err = 0;
    int len = static_cast<int>(strnlen(pBuf, INT32_MAX));
    int ret = theStorageManagerService.LumChmod(pBuf, static_cast<mode_t>(mode), len, &err);
    reply_result(reply, ret, err);
}

void cmd_lum_open(const Parcel& request, Parcel* reply)
{
    const char* pBuf = request.readCString();
    int32_t flags = request.readInt32();
    int32_t mode = request.readInt32();
    if (!path_arrived(pBuf, STROAGE_LUM_OPEN, reply))
        return;
    int err = 0;
    int ret = theStorageManagerService.LumOpen(pBuf, flags, static_cast<mode_t>(mode), &err);
    reply_result(reply, ret, err);
}

void cmd_lum_close(const Parcel& request, Parcel* reply)
{
    int32_t fd = request.readInt32();
    int err = 0;
    int ret = theStorageManagerService.LumClose(fd, &err);
    reply_result(reply, ret, err);
}

// The count twice, then the bytes; at the end of a file 0, 0 and nothing.
void cmd_lum_read(const Parcel& request, Parcel* reply)
{
    int32_t fd = request.readInt32();
    int32_t bytes = request.readInt32();
    int ret = -1;
    int err = EINVAL;
    void* pBuf = nullptr;
    if (bytes >= 0) {
        pBuf = bytes <= LUM_IO_MAX ? malloc(bytes > 0 ? static_cast<size_t>(bytes) : 1) : nullptr;
        err = bytes <= LUM_IO_MAX ? errno : ENOMEM;
        if (pBuf == nullptr)
            HLOGE("[%s, %d] malloc failed!\n");
    }
    if (pBuf != nullptr)
        ret = theStorageManagerService.LumRead(fd, pBuf, static_cast<size_t>(bytes), &err);
    if (ret >= 0) {
        reply->writeInt32(ret);
        reply->writeInt32(ret);
        reply->write(pBuf, static_cast<size_t>(ret));
        HLOGI("[%s, %d] Get report reply from storageManager %d\n", ret);
    } else {
        reply_result(reply, ret, err);
    }
    free(pBuf);
}

void cmd_lum_write(const Parcel& request, Parcel* reply)
{
    int32_t fd = request.readInt32();
    int32_t bytes = request.readInt32();
    int ret = -1;
    int err = EINVAL;
    if (raw_bytes_arrived(request, STROAGE_LUM_WRITE, bytes)) {
        size_t n = static_cast<size_t>(bytes);
        auto* pBuf = bytes <= LUM_IO_MAX ? static_cast<unsigned char*>(calloc(1, n + 1)) : nullptr;
        err = bytes <= LUM_IO_MAX ? errno : ENOMEM;
        if (pBuf != nullptr && request.read(pBuf, n) == android::OK)
            ret = theStorageManagerService.LumWrite(fd, pBuf, n, &err);
        free(pBuf);
    }
    reply_result(reply, ret, err);
}

void cmd_lum_sync(const Parcel& request, Parcel* reply)
{
    int32_t fd = request.readInt32();
    reply->writeBool(theStorageManagerService.LumSync(fd) == 0);
}
