// Whether a disk can serve the PVR, and marking it as the PVR device, if
// wanted after a format.
#include <cstring>
#include <string>

#include <cutils/properties.h>

#include "CmdCalls.h"
#include "DevIdentify.h"
#include "ServiceHandlers.h"
#include "ServiceLog.h"
#include "ShellProbe.h"
#include "ShellQuote.h"
#include "StorageManagerService.h"
#include "VolumeQuery.h"

// The scratch record of the partition count.
typedef struct {
    LUM_BOOL is_ignore;
    LUM_BOOL is_pvr_partition;
    EStoragePvrFlag pvr_flag;
    int index;
    int partition_num;
    char partition_id[32];
} SStorageDiskInfo;

int get_partition_info_callback(void* context, char* line)
{
    auto* info = static_cast<SStorageDiskInfo*>(context);
    if (line == nullptr || line[0] == '\0')
        return -1;
    const char* dev = strstr(line, "/dev/sd");
    const char* blank = dev != nullptr ? strchr(dev, ' ') : nullptr;
    if (blank == nullptr)
        return -1;
    // Written over the previous name without a terminator of its own: the
    // caller uses the name only when exactly one line was counted.
    size_t n = static_cast<size_t>(blank - dev);
    if (n > sizeof(info->partition_id) - 1)
        n = sizeof(info->partition_id) - 1;
    memcpy(info->partition_id, dev, n);
    info->partition_num++;
    SLOGD("[%s, %d] The %d partition is %s\n", info->partition_num, info->partition_id);
    return 0;
}

namespace {

bool empty_id(const char* diskId)
{
    if (diskId != nullptr && diskId[0] != '\0')
        return false;
    SLOGE("[%s, %d] diskId is NULL!\n");
    return true;
}

}  // namespace

uint64_t StorageManagerService::GetDiskTotalSize(const char* diskId)
{
    if (empty_id(diskId))
        return 0;
    return determine_dev_size(diskId);
}

bool StorageManagerService::CheckDiskEnoughForPvr(const char* diskId)
{
    bool bRecEn = property_get_bool("persist.pvr.rec.enable", 0);
    bool bTshEn = property_get_bool("persist.pvr.tshift.enable", 0);
    int32_t s32PvrDevSizeLimit = property_get_int32("persist.pvr.device_size_limit", 0);
    SLOGD("[%s, %d] s32PvrDevSizeLimit: %d/MB\n", s32PvrDevSizeLimit);
    if (empty_id(diskId))
        return false;
    if (!bRecEn && !bTshEn) {
        SLOGD("[%s, %d] TV not support Tsh and Rec\n");
        return true;
    }
    long long total = static_cast<long long>(GetDiskTotalSize(diskId));
    if (total >= s32PvrDevSizeLimit) {
        SLOGD("[%s, %d] %s total size is %lld, available for pvr\n", diskId, total);
        return true;
    }
    SLOGD("[%s, %d] %s DiskTotalSize: %lld/MB < PvrDevSizeLimit: %d/MB\n", diskId, total, s32PvrDevSizeLimit);
    return false;
}

bool StorageManagerService::CheckDiskPartition(const char* diskId)
{
    SStorageDiskInfo info;
    memset(&info, 0, sizeof(info));
    char fs_type[32] = {0};
    char quoted[256];
    if (diskId == nullptr || shell_escape_dq(diskId, quoted, sizeof(quoted)) < 0)
        return false;
    parse_output_lines(get_partition_info_callback, &info, "%s df | grep \"%s\" | grep \"%s\" ", "", quoted,
                       "/mnt/pvr/shared/");
    if (info.partition_num != 1) {
        SLOGD("[%s, %d] Disk %s exists %d partition\n", diskId, info.partition_num);
        return false;
    }
    char partition[sizeof(quoted)];
    if (shell_escape_dq(info.partition_id, partition, sizeof(partition)) < 0)
        return false;
    parse_output_lines(get_fs_type_callback, fs_type, "mount | grep \"%s\"", partition);
    if (strncmp(fs_type, "ext4", 4) == 0 || strncmp(fs_type, "vfat", 4) == 0)
        return true;
    SLOGD("[%s, %d] The partition type is %s, not usable!\n", fs_type);
    return false;
}

EStoragePvrFlag StorageManagerService::CheckDevAvailableForPvr(const char* diskId)
{
    if (diskId == nullptr || diskId[0] == '\0')
        return PVR_ERROR_PARAMS;
    if (!CheckDiskEnoughForPvr(diskId)) {
        SLOGD("[%s, %d] Disk %s total size smaller 4G!\n", diskId);
        return PVR_CAPACITY_SMALLER_4G;
    }
    if (!CheckDiskPartition(diskId)) {
        SLOGD("[%s, %d] Disk %s format unusable!\n", diskId);
        return PVR_FORMAT_UNUSABLE;
    }
    return PVR_SUCCESS;
}

EStoragePvrFlag mark_pvr_dev(const char* diskId)
{
    StorageManagerService& s = theStorageManagerService;
    if (empty_id(diskId))
        return PVR_ERROR_PARAMS;
    EStoragePvrFlag verdict = s.CheckDevAvailableForPvr(diskId);
    if (verdict != PVR_SUCCESS) {
        SLOGD("[%s, %d] Check dev available failed!\n");
        return verdict;
    }
    char mountPath[256] = {0};
    if (get_mount_path_of_device(diskId, mountPath, sizeof(mountPath)) <= 0) {
        SLOGD("[%s, %d] Not get mount path of %s!\n", diskId);
        return PVR_MOUNTPATH_NOT_EXIST;
    }
    if (!s.CreatePvrIdentity(mountPath)) {
        SLOGD("[%s, %d] Create pvr identity failed !\n");
        return PVR_IDENTITY_FAIL;
    }
    // Replacing a working choice is news for every client; a first marking
    // is told by the marking's own result.
    if (s.GetPvrDevState())
        s.NotifyToStorageManager(LUM_TV_EVT_STORAGE_PVR_DEV_CHANGE, mountPath, static_cast<int>(strlen(mountPath)));
    s.SetPvrMountPath(mountPath);
    s.SetPvrDevState(true);
    SLOGD("[%s, %d] Pvr dev is marked! pvr mountpath %s\n", s.GetPvrMountPath().c_str());
    return PVR_SUCCESS;
}

bool StorageManagerService::MarkPvrDev(const char* diskId, bool isFormat)
{
    if (empty_id(diskId))
        return false;
    // The format runs here to its end, with its events, without the busy
    // check and the watchdog of a format request; the checks see its outcome.
    if (isFormat)
        Format(diskId);
    EStoragePvrFlag verdict = mark_pvr_dev(diskId);
    SStorageMarkPvrInfo info;
    memset(&info, 0, sizeof(info));
    info.is_pvr_partition = verdict == PVR_SUCCESS ? LUM_TRUE : LUM_FALSE;
    info.pvr_flag = verdict;
    strncpy(info.partition_id, diskId, sizeof(info.partition_id) - 1);
    NotifyToStorageManager(LUM_TV_EVT_STORAGE_PVR_MARK, &info, sizeof(info));
    return true;
}

void handle_pvr_mark_dev(StorageManagerService& service, CNorvMsg*, StorageManagerAction_t* action)
{
    service.MarkPvrDev(reinterpret_cast<const char*>(action->buf1), action->boolValue1);
}

void cmd_pvr_disk_total(const android::Parcel& request, android::Parcel* reply)
{
    reply->writeInt64(static_cast<int64_t>(theStorageManagerService.GetDiskTotalSize(request.readCString())));
}

void cmd_pvr_dev_available(const android::Parcel& request, android::Parcel* reply)
{
    reply->writeInt32(theStorageManagerService.CheckDevAvailableForPvr(request.readCString()));
}
