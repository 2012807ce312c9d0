// Phones and cameras offered by the MTP/PTP driver under /proc/driver/mptp:
// each run of the mount engine mounts what the driver offers, each unmount run
// takes down what it no longer offers. Nothing is kept between runs.
#include <cstring>

#include "MountLines.h"
#include "MountedVolumes.h"
#include "MountTree.h"
#include "ServiceLog.h"
#include "ShellProbe.h"
#include "StorageManagerService.h"

#define MTP_SLOTS 8
#define MTP_ITEM_LEN 32

namespace {

// The driver's device ids serve as mount source and directory name in shell
// lines: only plain words are taken.
bool is_plain_id(const char* id)
{
    return strncmp(id, "VEN", 3) == 0 && strchr(id, '/') == nullptr && is_plain_word(id);
}

// Is any slot still offering the device id?
bool mtp_id_present(const char* id)
{
    char slotId[MTP_ITEM_LEN];
    for (int minor = 0; minor < MTP_SLOTS; ++minor) {
        if (mtp_read_procfs(minor, "id", slotId, sizeof(slotId)) > 0 && strcmp(slotId, id) == 0)
            return true;
    }
    return false;
}

}  // namespace

int unmount_mtp_devices_callback(void* context, char* line)
{
    SLOGI("[%s, %d] line: '%s'\n", line);
    char* save = nullptr;
    const char* id = strtok_r(line, " ", &save);
    if (id == nullptr || mtp_id_present(id))
        return 0;
    SLOGD("[%s, %d] Need to unmount %s\n", id);
    const char* on = strtok_r(nullptr, " ", &save);
    const char* mountPoint = on != nullptr ? strtok_r(nullptr, " ", &save) : nullptr;
    if (mountPoint == nullptr || !is_plain_word(mountPoint))
        return 0;
    call_system("umount -l %s", mountPoint);
    mounted_volume_remove(mountPoint);
    remove_mount_dir(mountPoint);
    ++*static_cast<int*>(context);
    return 0;
}

int StorageManagerService::MountMtpDevices()
{
    SLOGD("[%s, %d] Mount mtp device!\n");
    int mounted = 0;
    for (int minor = 0; minor < MTP_SLOTS; ++minor) {
        char state[MTP_ITEM_LEN];
        if (mtp_read_procfs(minor, "mount", state, sizeof(state)) < 1 || state[0] != '0')
            continue;
        char id[MTP_ITEM_LEN];
        mtp_read_procfs(minor, "id", id, sizeof(id));
        SLOGD("[%s, %d] need to mount %s\n", id);
        if (!is_plain_id(id)) {
            SLOGE("[%s, %d] ***E: MTP device id '%s' is no plain word, not mounted\n", id);
            continue;
        }
        char mountPoint[256];
        snprintf(mountPoint, sizeof(mountPoint), "%s%s", MOUNT_DIR_EXT_USB, id);
        if (call_system("mkdir -p %s", mountPoint) != 0) {
            SLOGE("[%s, %d] ***E: cannot create %s\n", mountPoint);
            return 0;
        }
        if (call_system("mount -t mptpfs %s %s", id, mountPoint) != 0) {
            SLOGE("[%s, %d] ***E: mount %s %s\n", id, mountPoint);
            return 0;
        }
        // The type that mount shows for it, as "-t" gave it.
        mounted_volume_add(mountPoint, "mptpfs");
        ++mounted;
    }
    return mounted;
}

int StorageManagerService::UnmountMtpDevices()
{
    SLOGI("[%s, %d] Unmount Mtp device!\n");
    int count = 0;
    parse_output_lines(unmount_mtp_devices_callback, &count, "mount | grep \"type mptpfs\"");
    return count;
}

int StorageManagerService::GetMtpDeviceNr(const char* pDeviceName)
{
    if (pDeviceName == nullptr || strncmp(pDeviceName, "VEN", 3) != 0) {
        SLOGD("[%s, %d] This is no MTP/PTP device\n");
        return -1;
    }
    char id[MTP_ITEM_LEN];
    for (int minor = 0; minor < MTP_SLOTS; ++minor) {
        if (mtp_read_procfs(minor, "id", id, sizeof(id)) > 0 && strcmp(id, pDeviceName) == 0) {
            SLOGD("[%s, %d] MTP/PTP device nr found : %s (nr=%d)\n", pDeviceName, minor);
            return minor;
        }
    }
    SLOGE("[%s, %d] MTP/PTP device NOT found : %s\n", pDeviceName);
    return -1;
}
