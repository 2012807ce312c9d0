// The choice of the PVR partition after every mount and unmount run, and the
// guide record that tells the user interface what it may ask after a plug-in
// or plug-out. Works on the rows of the device table only; mounts nothing.
#include <cstring>
#include <memory>
#include <string>

#include <cutils/properties.h>

#include "CmdCalls.h"
#include "PvrIdentity.h"
#include "ServiceLog.h"
#include "StorageManagerService.h"
#include "StoragePvr.h"

namespace {

struct SPvrSettings {
    bool bRecEn;
    bool bTshEn;
    int32_t s32PvrDevSizeLimit;
};

SPvrSettings read_settings()
{
    SPvrSettings s;
    s.bRecEn = property_get_bool("persist.pvr.rec.enable", 0);
    s.bTshEn = property_get_bool("persist.pvr.tshift.enable", 0);
    s.s32PvrDevSizeLimit = property_get_int32("persist.pvr.device_size_limit", 0);
    SLOGE("[%s, %d] s32PvrDevSizeLimit: %d/MB\n", s.s32PvrDevSizeLimit);
    return s;
}

bool large_enough(const SConnectedDevice& row, const SPvrSettings& s)
{
    return static_cast<int64_t>(row.devSize) >= static_cast<int64_t>(s.s32PvrDevSizeLimit);
}

bool is_candidate(const SConnectedDevice& row, const SPvrSettings& s)
{
    if (row.mountPoint[0] == '\0' || !large_enough(row, s))
        return false;
    bool ext4 = strcmp(row.fsType, "ext4") == 0;
    bool vfat = strcmp(row.fsType, "vfat") == 0;
    return (s.bTshEn && (vfat || ext4)) || (s.bRecEn && ext4);
}

// The remembered identity. A value longer than an identity matches nothing.
struct SPropIdentity {
    char value[PROPERTY_VALUE_MAX];
    bool isNo() const { return strcmp(value, "no") == 0; }
    bool matches(const char* found) const
    {
        return strlen(value) == PVR_IDENTITY_NAME_LENGTH && strlen(found) == PVR_IDENTITY_NAME_LENGTH &&
               strcmp(value, found) == 0;
    }
};

SPropIdentity read_identity()
{
    SPropIdentity id;
    property_get(PVR_IDENTITY_PROPERTY, id.value, "no");
    return id;
}

// A consistent copy of the device table's rows and the PVR state.
struct SRowsSnapshot {
    int count;
    SConnectedDevice rows[STORAGE_MAX_CONNECTED_DEVICES];
};

std::unique_ptr<SRowsSnapshot> snapshot_rows(StorageManagerService& s)
{
    std::unique_ptr<SRowsSnapshot> snap(new SRowsSnapshot);
    std::lock_guard<std::mutex> hold(s.m_DevTableLock);
    snap->count = s.m_DeviceCnt;
    memcpy(snap->rows, s.m_ConnectedDevice, sizeof(snap->rows));
    return snap;
}

// The checks every process starts with; false ends the process.
bool pvr_may_act(const SPvrSettings& s)
{
    if (!s.bRecEn && !s.bTshEn) {
        SLOGD("[%s, %d] TV not support Tsh and Rec\n");
        return false;
    }
    if (s.s32PvrDevSizeLimit == 0) {
        SLOGD("[%s, %d] DevSizeLimit: 0/MB\n");
        return false;
    }
    return true;
}

// Walks the candidates in row order: the first one is noted in
// firstAvailable, and the row whose identity file matches the remembered
// identity is returned (-1 if none). With takeFirstIfNew, a television that
// never had a PVR partition takes the first candidate it can give an identity.
int scan_candidates(StorageManagerService& service, const SRowsSnapshot& snap, const SPvrSettings& s,
                    bool takeFirstIfNew, int* firstAvailable)
{
    SPropIdentity prop = read_identity();
    for (int i = 0; i < snap.count; ++i) {
        const SConnectedDevice& row = snap.rows[i];
        if (!is_candidate(row, s))
            continue;
        if (*firstAvailable < 0)
            *firstAvailable = i;
        char found[PVR_IDENTITY_NAME_LENGTH + 1] = {0};
        if (takeFirstIfNew && prop.isNo() && service.CreatePvrIdentity(row.mountPoint))
            return i;
        if (service.FindPvrIdentityFromStorage(row.mountPoint, found, PVR_IDENTITY_NAME_LENGTH) &&
            prop.matches(found))
            return i;
    }
    return -1;
}

void notify_path(StorageManagerService& s, LUM_EM_TYPE_E event, const std::string& path)
{
    s.NotifyToStorageManager(event, const_cast<char*>(path.data()), static_cast<int>(path.size()));
}

}  // namespace

void StorageManagerService::SetPvrDevState(bool state)
{
    std::lock_guard<std::mutex> hold(m_DevTableLock);
    m_PvrDevState = state;
}

bool StorageManagerService::GetPvrDevState()
{
    std::lock_guard<std::mutex> hold(m_DevTableLock);
    return m_PvrDevState;
}

void StorageManagerService::SetPvrMountPath(std::string path)
{
    std::lock_guard<std::mutex> hold(m_DevTableLock);
    m_PvrMountPath = path;
}

std::string StorageManagerService::GetPvrMountPath()
{
    std::lock_guard<std::mutex> hold(m_DevTableLock);
    return m_PvrMountPath;
}

void StorageManagerService::ChoosePvrPartition(const char* mountPoint)
{
    notify_path(*this, LUM_TV_EVT_STORAGE_PVR_DEV_CHANGE, mountPoint);
    SetPvrMountPath(mountPoint);
    SetPvrDevState(true);
}

int StorageManagerService::MountPvrPartitionProcess()
{
    SPvrSettings s = read_settings();
    if (!pvr_may_act(s))
        return 0;
    if (GetPvrDevState()) {
        SLOGD("[%s, %d] PvrDevState = true when new device plugin\n");
        return 0;
    }
    std::unique_ptr<SRowsSnapshot> snap = snapshot_rows(*this);
    if (snap->count < 1) {
        SLOGD("[%s, %d] m_DeviceCnt = 0. No USB Ext device plugin.\n");
        return 0;
    }
    int firstAvailable = -1;
    int markedIdx = scan_candidates(*this, *snap, s, true, &firstAvailable);
    if (markedIdx < 0 && firstAvailable >= 0 && CreatePvrIdentity(snap->rows[firstAvailable].mountPoint))
        markedIdx = firstAvailable;
    if (markedIdx >= 0)
        ChoosePvrPartition(snap->rows[markedIdx].mountPoint);
    return 0;
}

int StorageManagerService::UnmountPvrPartitionProcess()
{
    SPvrSettings s = read_settings();
    std::string pvrMountPath = GetPvrMountPath();
    if (!pvr_may_act(s))
        return 0;
    if (!GetPvrDevState()) {
        SLOGD("[%s, %d] PvrDevState = false when device plugout or partition umount\n");
        return 0;
    }
    std::unique_ptr<SRowsSnapshot> snap = snapshot_rows(*this);
    if (snap->count < 1) {
        SLOGD("[%s, %d] m_DeviceCnt = 0. No USB Ext device plugin.\n");
        notify_path(*this, LUM_TV_EVT_STORAGE_PVR_PLUG_OUT, pvrMountPath);
        SetPvrMountPath("");
        SetPvrDevState(false);
        return 0;
    }
    int firstAvailable = -1;
    int markedIdx = scan_candidates(*this, *snap, s, false, &firstAvailable);
    if (markedIdx >= 0)
        return 0;  // the chosen partition is still there
    notify_path(*this, LUM_TV_EVT_STORAGE_PVR_PLUG_OUT, pvrMountPath);
    if (firstAvailable >= 0 && CreatePvrIdentity(snap->rows[firstAvailable].mountPoint)) {
        ChoosePvrPartition(snap->rows[firstAvailable].mountPoint);
    } else {
        SetPvrMountPath("");
        SetPvrDevState(false);
    }
    return 0;
}

namespace {

// Timeshift: the smallest mounted partition that is large enough, whatever
// its file system; the earlier row wins on equal sizes.
void guide_for_timeshift(const SRowsSnapshot& snap, const SPvrSettings& s, SStoragePvrDevGuideInfo& g)
{
    int best = -1;
    for (int i = 0; i < snap.count; ++i) {
        const SConnectedDevice& row = snap.rows[i];
        if (row.mountPoint[0] != '\0' && large_enough(row, s) && (best < 0 || row.devSize < snap.rows[best].devSize))
            best = i;
    }
    g.bShow = LUM_TRUE;
    if (best < 0) {
        g.enEvt = PLUGIN_EVENT_SPACE_NOT_ENOUGH_FOR_TSH;
        return;
    }
    g.enEvt = PLUGIN_EVENT_REQUEST_FORMAT_PARTITION;
    g.s32PartitionNum = 1;
    g.astPartition[0] = snap.rows[best];
}

// Recording: every mounted partition that is large enough.
void guide_for_recording(const SRowsSnapshot& snap, const SPvrSettings& s, SStoragePvrDevGuideInfo& g)
{
    for (int i = 0; i < snap.count && g.s32PartitionNum < STORAGE_GUIDE_ROWS; ++i) {
        const SConnectedDevice& row = snap.rows[i];
        if (row.mountPoint[0] != '\0' && large_enough(row, s))
            g.astPartition[g.s32PartitionNum++] = row;
    }
    g.bShow = LUM_TRUE;
    if (g.s32PartitionNum == 0)
        g.enEvt = PLUGIN_EVENT_SPACE_NOT_ENOUGH_FOR_RECORD;
    else if (g.s32PartitionNum == 1)
        g.enEvt = PLUGIN_EVENT_REQUEST_FORMAT_PARTITION;
    else
        g.enEvt = PLUGIN_EVENT_REQUEST_SELECT_PARTITION;
}

}  // namespace

int StorageManagerService::GetPvrDevGuideInfo(SStoragePvrDevGuideInfo& stPvrGuideInfo)
{
    SPvrSettings s = read_settings();
    memset(&stPvrGuideInfo, 0, sizeof(stPvrGuideInfo));
    stPvrGuideInfo.bShow = LUM_FALSE;
    stPvrGuideInfo.enEvt = PLUGIN_EVENT_BUTT;
    std::unique_ptr<SRowsSnapshot> snap = snapshot_rows(*this);
    stPvrGuideInfo.s32ConnectedDevNum = snap->count;
    memcpy(stPvrGuideInfo.astConnectedDev, snap->rows, sizeof(SConnectedDevice) * static_cast<size_t>(snap->count));
    if (!pvr_may_act(s))
        return 0;
    if (GetPvrDevState()) {
        SLOGD("[%s, %d] PvrDevState = true when new device plugin\n");
        return 0;
    }
    if (snap->count < 1) {
        SLOGD("[%s, %d] m_DeviceCnt = 0. No USB Ext device plugin.\n");
        return 0;
    }
    if (s.bTshEn)
        guide_for_timeshift(*snap, s, stPvrGuideInfo);
    else if (s.bRecEn)
        guide_for_recording(*snap, s, stPvrGuideInfo);
    return 0;
}

void StorageManagerService::NotifyGuide(LUM_EM_TYPE_E event)
{
    std::unique_ptr<SStoragePvrDevGuideInfo> guide(new SStoragePvrDevGuideInfo);
    GetPvrDevGuideInfo(*guide);
    NotifyToStorageManager(event, guide.get(), sizeof(*guide));
}

void cmd_pvr_dev_state(const android::Parcel&, android::Parcel* reply)
{
    reply->writeBool(theStorageManagerService.GetPvrDevState());
}

void cmd_pvr_mount_path(const android::Parcel&, android::Parcel* reply)
{
    reply->writeCString(theStorageManagerService.GetPvrMountPath().c_str());
}

void cmd_pvr_guide_info(const android::Parcel&, android::Parcel* reply)
{
    std::unique_ptr<SStoragePvrDevGuideInfo> guide(new SStoragePvrDevGuideInfo);
    int result = theStorageManagerService.GetPvrDevGuideInfo(*guide);
    reply->writeInt32(result);
    reply->write(guide.get(), sizeof(*guide));
}
