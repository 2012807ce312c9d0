#include "VolumeQuery.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "ByteOrder.h"
#include "DevIdentify.h"
#include "MountTree.h"
#include "ServiceHandlers.h"
#include "ServiceLog.h"
#include "ShellProbe.h"
#include "ShellQuote.h"
#include "StrUtil.h"

int determine_dev_size_callback(void* context, char* line)
{
    auto* d = static_cast<DETERMINE_DEV_SIZE_CALLBACK_DATA*>(context);
    char* save = nullptr;
    char* tok = strtok_r(line, " ", &save);
    if (tok == nullptr) {
        SLOGE("[%s, %d] --- total=%lu, used=%lu, avail=%lu\n", (unsigned long)d->total, (unsigned long)d->used,
              (unsigned long)d->available);
        return -1;
    }
    // The first column must be the device itself: /dev/sda1 is not /dev/sda.
    if (strcmp(tok, d->devname) != 0)
        return 0;
    uint32_t* fields[] = {&d->total, &d->used, &d->available};
    for (uint32_t* field : fields) {
        tok = strtok_r(nullptr, " ", &save);
        if (tok == nullptr) {
            SLOGE("[%s, %d] --- total=%lu, used=%lu, avail=%lu\n", (unsigned long)d->total,
                  (unsigned long)d->used, (unsigned long)d->available);
            return -1;
        }
        *field = static_cast<uint32_t>(atoi(tok));
    }
    return 1;
}

void get_dev_usage(const char* devname, DETERMINE_DEV_SIZE_CALLBACK_DATA* d)
{
    d->total = d->used = d->available = 0;
    d->devname = devname;
    char quoted[256];
    if (devname == nullptr || shell_escape_dq(devname, quoted, sizeof(quoted)) < 0)
        return;
    parse_output_lines(determine_dev_size_callback, d, "%s df -Pm | grep \"%s\" | grep \"%s\" 2> /dev/null", "",
                       quoted, MOUNT_DIR);
}

uint32_t determine_dev_size1(const char* devname)
{
    DETERMINE_DEV_SIZE_CALLBACK_DATA d;
    get_dev_usage(devname, &d);
    return d.total;
}

uint32_t determine_dev_size(const char* devname)
{
    uint32_t size = determine_dev_size1(devname);
    if (size != 0 || devname == nullptr)
        return size;
    // Not a mounted volume: the raw size of the block device, if it is one.
    int fd = open(devname, O_RDWR | O_CLOEXEC | O_NOCTTY);
    if (fd < 0)
        return 0;
    uint64_t bytes = 0;
    if (ioctl(fd, BLKGETSIZE64, &bytes) == 0)
        size = static_cast<uint32_t>(bytes >> 20);
    close(fd);
    return size;
}

uint32_t determine_dev_used_size(const char* devname)
{
    DETERMINE_DEV_SIZE_CALLBACK_DATA d;
    get_dev_usage(devname, &d);
    return d.used;
}

namespace {

}  // namespace

// Reply: the size big-endian, then the requested name with its NUL. The look
// -up uses at most 63 characters of the name; the reply repeats all of it.
static void send_size_reply(StorageManagerService& s, LUM_EM_TYPE_E event, const unsigned char* buf, uint32_t size)
{
    const char* name = reinterpret_cast<const char*>(buf);
    size_t n = strnlen(name, STORAGE_SEND_BUF_SIZE - 5);
    std::lock_guard<std::mutex> hold(s.m_SendBufLock);
    put_be32(s.m_SendBuf, size);
    memcpy(s.m_SendBuf + 4, name, n);
    s.m_SendBuf[4 + n] = 0;
    s.NotifyToStorageManager(event, s.m_SendBuf, static_cast<int>(n + 5));
}

void StorageManagerService::GetDevSize(const unsigned char* buf, int)
{
    char devname[64];
    lum_strlcpy(devname, reinterpret_cast<const char*>(buf), sizeof(devname));
    uint32_t size = determine_dev_size(devname);
    SLOGD("[%s, %d] get buf: %s\n", reinterpret_cast<const char*>(buf));
    send_size_reply(*this, LUM_TV_EVT_STORAGE_HDD_GET_SIZE, buf, size);
}

void StorageManagerService::GetDevUsedSize(const unsigned char* buf, int)
{
    char devname[64];
    lum_strlcpy(devname, reinterpret_cast<const char*>(buf), sizeof(devname));
    uint32_t used = determine_dev_used_size(devname);
    send_size_reply(*this, LUM_TV_EVT_STORAGE_HDD_GET_PARTITION_USE, buf, used);
}

bool StorageManagerService::GetAllocatableBytes(std::string storageUuid)
{
    if (storageUuid.empty()) {
        SLOGE("[%s, %d] param storageUuid is null!\n");
        return false;
    }
    char devname[30] = {0};
    int rc = get_dev_name_for_uuid(storageUuid.c_str(), devname, sizeof(devname));
    if (rc < 0 || devname[0] == '\0') {
        SLOGE("[%s, %d] get device name failed! (%s)\n", storageUuid.c_str());
        return false;
    }
    int32_t allocatable = static_cast<int32_t>(determine_dev_size(devname) - determine_dev_used_size(devname));
    if (allocatable >= 0)
        SLOGD("[%s, %d] The Storage allocatable bytes: %dMiB\n", allocatable);
    else
        SLOGE("[%s, %d] The Storage allocatable bytes less than 0!\n");
    NotifyToStorageManager(LUM_TV_EVT_STORAGE_GET_ALLOCATE_BYTES, &allocatable, sizeof(allocatable));
    return true;
}

bool StorageManagerService::GetStorageVolumes()
{
    // The answer is the table of the last run, copied out under the lock so
    // that a run on another thread cannot change it half way.
    static thread_local unsigned char devTab[STORAGE_DEV_TAB_BUF_SIZE];
    static thread_local SConnectedDevice rows[STORAGE_MAX_CONNECTED_DEVICES];
    int devTabLen, count;
    {
        std::lock_guard<std::mutex> hold(m_DevTableLock);
        devTabLen = m_DevTabBufLen;
        count = m_DeviceCnt;
        memcpy(devTab, m_DevTabBuf, static_cast<size_t>(devTabLen));
        memcpy(rows, m_ConnectedDevice, sizeof(SConnectedDevice) * static_cast<size_t>(count));
    }
    NotifyToStorageManager(LUM_TV_EVT_STORAGE_GET_STORAGE_VOLUMES, devTab, devTabLen);
    NotifyToStorageManager(LUM_TV_EVT_STORAGE_GET_DEV_TABLE, rows, static_cast<int>(sizeof(SConnectedDevice)) * count);
    return true;
}

bool StorageManagerService::GetUuidForPath(std::string mountPoint)
{
    if (mountPoint.empty()) {
        SLOGE("[%s, %d] Param mountPoint is null!\n");
        return false;
    }
    char devname[30] = {0};
    int rc = get_dev_name_for_mount_point(mountPoint.c_str(), devname, sizeof(devname));
    if (rc < 0 || devname[0] == '\0') {
        SLOGE("[%s, %d] Get dev name failed!\n");
        return false;
    }
    char uuid[50] = {0};
    rc = get_uuid_for_dev_name(devname, uuid, sizeof(uuid));
    if (rc < 0 || uuid[0] == '\0') {
        SLOGE("[%s, %d] Get uuid failed!\n");
        return false;
    }
    {
        std::lock_guard<std::mutex> hold(m_SendBufLock);
        size_t n = strlen(uuid);
        memcpy(m_SendBuf, uuid, n);
        NotifyToStorageManager(LUM_TV_EVT_STORAGE_GET_UUID_FOR_PATH, m_SendBuf, static_cast<int>(n));
    }
    SLOGD("[%s, %d] Mount point: %s -> uuid: %s \n", mountPoint.c_str(), uuid);
    return true;
}

std::string StorageManagerService::GetPartitionFsType(const char* partitionId)
{
    char fsType[32] = {0};
    char quoted[256];
    if (partitionId != nullptr && shell_escape_dq(partitionId, quoted, sizeof(quoted)) >= 0)
        parse_output_lines(get_fs_type_callback, fsType, "mount | grep \"%s\"", quoted);
    return fsType;
}

uint64_t StorageManagerService::GetPartitionTotalSize(const char* path)
{
    if (path == nullptr || path[0] == '\0') {
        SLOGE("[%s, %d] param is null!\n");
        return 0;
    }
    char devName[30] = {0};
    get_dev_name_for_mount_point(path, devName, sizeof(devName));
    if (devName[0] == '\0') {
        SLOGE("[%s, %d] Get dev name failed! path: %s\n", path);
        return 0;
    }
    uint64_t size = determine_dev_size(devName);
    SLOGD("[%s, %d] %s -> %s size: %lld\n", path, devName, static_cast<long long>(size));
    return size;
}

uint64_t StorageManagerService::GetPartitionUsedSize(const char* path)
{
    if (path == nullptr || path[0] == '\0') {
        SLOGE("[%s, %d] param is null!\n");
        return 0;
    }
    char partPath[100];
    if (lum_strlcpy(partPath, path, sizeof(partPath)) >= sizeof(partPath)) {
        SLOGE("[%s, %d] ***E: path too long: %s\n", path);
        return 0;
    }
    size_t len = strlen(partPath);
    if (partPath[len - 1] == '/')
        partPath[len - 1] = '\0';
    char devName[30] = {0};
    get_dev_name_for_mount_point(partPath, devName, sizeof(devName));
    if (devName[0] == '\0') {
        SLOGE("[%s, %d] Get dev name failed! path: %s\n", partPath);
        return 0;
    }
    uint64_t used = determine_dev_used_size(devName);
    SLOGD("[%s, %d] %s -> %s used size: %lld\n", partPath, devName, static_cast<long long>(used));
    return used;
}

// Signal handlers.

static const char* text_of(StorageManagerAction_t* action)
{
    return reinterpret_cast<const char*>(action->buf1);
}

void handle_get_allocate_bytes(StorageManagerService& s, CNorvMsg*, StorageManagerAction_t* action)
{
    SLOGD("[%s, %d] Get uuid from storageManager: %s\n", text_of(action));
    s.GetAllocatableBytes(text_of(action));
}

void handle_get_volumes(StorageManagerService& s, CNorvMsg*, StorageManagerAction_t*)
{
    s.GetStorageVolumes();
}

void handle_get_uuid_for_path(StorageManagerService& s, CNorvMsg*, StorageManagerAction_t* action)
{
    s.GetUuidForPath(text_of(action));
}

void handle_hdd_get_size(StorageManagerService& s, CNorvMsg*, StorageManagerAction_t* action)
{
    SLOGD("[%s, %d] Get device size: %s\n", text_of(action));
    s.GetDevSize(action->buf1, static_cast<int>(strlen(text_of(action))));
}

void handle_get_partition_use(StorageManagerService& s, CNorvMsg*, StorageManagerAction_t* action)
{
    SLOGD("[%s, %d] Get device used: %s\n", text_of(action));
    s.GetDevUsedSize(action->buf1, static_cast<int>(strlen(text_of(action))));
}
