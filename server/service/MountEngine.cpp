// The mount run: asks blkid for every sd partition, mounts under the tree what
// is not mounted yet, announces each volume, then rebuilds the device table
// and tells the end. A run is idempotent: what is mounted is asked of `mount`.
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "DevIdentify.h"
#include "MountLines.h"
#include "MountedVolumes.h"
#include "MountTree.h"
#include "ServiceHandlers.h"
#include "ServiceLog.h"
#include "ShellProbe.h"
#include "SignalNo.h"
#include "ShellQuote.h"
#include "StorageManagerService.h"
#include "StrUtil.h"

#define MOUNT_PASS_DELAY_US 5000000

namespace {

// How each file-system class is mounted and repaired.
struct SMountRecipe {
    int id;
    const char* command;  // "%s" takes the type
    const char* options;
    const char* repair;
};

const SMountRecipe kRecipes[] = {
    {FS_ID_FAT, "mount -w", "-o rw,utf8,umask=000,fmask=000,dmask=000", ""},
    {FS_ID_NTFS, "ntfs-3g", "-o rw,nls=utf8,umask=000,fmask=000,dmask=000", "ntfsfix"},
    {FS_ID_EXT, "mount -t %s -w", "", "e2fsck -f -p -v"},
    {0, "mount -w", "", ""},
};

const SMountRecipe& recipe_for(int id)
{
    for (const SMountRecipe& r : kRecipes) {
        if (r.id == id)
            return r;
    }
    return kRecipes[sizeof(kRecipes) / sizeof(kRecipes[0]) - 1];
}

void notify_mount_to_observer(SStorageHotPlugInfo* pMountInfo)
{
    if (pMountInfo == nullptr)
        return;
    auto* copy = static_cast<SStorageHotPlugInfo*>(malloc(sizeof(SStorageHotPlugInfo)));
    if (copy == nullptr)
        return;
    memcpy(copy, pMountInfo, sizeof(*copy));
    theStorageManagerService.NotifyToStorageManager(LUM_TV_EVT_STORAGE_DEV_MOUNT, copy, sizeof(*copy));
    free(copy);
}

// The type between ` TYPE="` and the next quote, if it has at most 10
// characters; the leading blank keeps PTTYPE and SEC_TYPE out.
void parse_type(const char* line, char strFileSys[12])
{
    const char* p = strstr(line, " TYPE=\"");
    if (p == nullptr)
        return;
    p += 7;
    const char* end = strchr(p, '"');
    if (end != nullptr && end - p <= 10)
        lum_copy_span(strFileSys, 12, p, static_cast<size_t>(end - p));
}

// True when name is the volume at partitionPath ("/dev/sdb1" or "sdb1").
bool names_volume(const char* partitionPath, const char* name)
{
    if (name == nullptr || name[0] == '\0')
        return false;
    return strcmp(partitionPath, name) == 0 ||
           (strncmp(partitionPath, "/dev/", 5) == 0 && strcmp(partitionPath + 5, name) == 0);
}

bool already_mounted(const char* strPartitionPath)
{
    char out[64];
    return buffer_read_from_command(out, sizeof(out), "mount | grep %s | grep %s", strPartitionPath, MOUNT_DIR) > 0;
}

// Mounts, and for NTFS and ext repairs once and mounts again. 0 on success.
int mount_with_repair(const char* cmd, const char* options, const char* repair, const char* partition,
                      const char* mountDir)
{
    bool bFileSysCheckDone = false;
    for (;;) {
        SLOGD("[%s, %d] mount cmd: %s %s %s %s\n", cmd, options, partition, mountDir);
        int rc = call_system("%s %s %s %s", cmd, options, partition, mountDir);
        if (rc == 0)
            return 0;
        SLOGE("[%s, %d] <FS>: mount was NOT successful (rc=%d)\n", rc);
        SLOGE("[%s, %d] <FS>: or the filesystem needs a check\n");
        SLOGE("[%s, %d] <FS>: or sector size mismatch!\n");
        if (bFileSysCheckDone || repair[0] == '\0')
            return rc;
        SLOGW("[%s, %d] <FS>: try to repair the filesystem:  %s %s\n", repair, partition);
        call_system("%s %s", repair, partition);
        call_system("sync");
        bFileSysCheckDone = true;
    }
}

void announce_volume(MOUNT_USB_DEVICES_CALLBACK_DATA* ctx, const char* partition, const char* mountDir)
{
    SStorageHotPlugInfo info;
    memset(&info, 0, sizeof(info));
    call_system("sync");
    // Names beyond the 32 rows are not recorded; the volume still counts.
    if (ctx->num_new_mounted < MOUNT_MAX_NAMES)
        lum_strlcpy(ctx->volumeName[ctx->num_new_mounted], partition, 32);
    ctx->num_new_mounted++;
    char label[32] = {0};
    get_label_for_dev_name(partition, label, sizeof(label));
    std::string fsType = theStorageManagerService.GetPartitionFsType(mountDir);
    SLOGD("[%s, %d] new mounted %d device %s. fs type: %s\n", ctx->num_new_mounted, partition, fsType.c_str());
    mounted_volume_add(mountDir, fsType.c_str());
    lum_strlcpy(info.mountPoint, mountDir, sizeof(info.mountPoint));
    lum_strlcpy(info.label, label, sizeof(info.label));
    lum_strlcpy(info.fsType, fsType.c_str(), sizeof(info.fsType));
    info.u16LabelLen = static_cast<uint16_t>(strlen(info.label));
    notify_mount_to_observer(&info);
}

// Builds the mount point and mounts one partition. Returns 1 when the tree
// itself is unusable (the pass stops), else 0.
int mount_partition(MOUNT_USB_DEVICES_CALLBACK_DATA* ctx, const char* partition, const char* device,
                    const char* strFileSys, int fileSysId)
{
    AS_HD_DISK_TYPE devConnType = get_dev_connection_type(device);
    char strMountDir[64];
    lum_strlcpy(strMountDir, devConnType == AS_HD_DISK_TYPE_HDD_INTERNAL ? MOUNT_DIR_INT_HDD : MOUNT_DIR_EXT_USB,
                sizeof(strMountDir));
    if (call_system("mkdir -p %s", strMountDir) != 0) {
        SLOGE("[%s, %d] creating '%s' failed\n", strMountDir);
        return 1;
    }
    const SMountRecipe& recipe = recipe_for(fileSysId);
    if (fileSysId == 0)
        SLOGW("[%s, %d] <FS> unknown filesystem id: %02x\n", fileSysId);
    char strMountCmd[64];
    snprintf(strMountCmd, sizeof(strMountCmd), recipe.command, strFileSys);
    size_t base = strlen(strMountDir);
    lum_strlcpy(strMountDir + base, partition + 5, sizeof(strMountDir) - base);
    if (call_system("mkdir -p %s", strMountDir) != 0)
        return 0;
    if (mount_with_repair(strMountCmd, recipe.options, recipe.repair, partition, strMountDir) != 0) {
        remove_mount_dir(strMountDir);
        return 0;
    }
    announce_volume(ctx, partition, strMountDir);
    return 0;
}

}  // namespace

int mount_usb_devices_callback(void* context, char* line)
{
    auto* ctx = static_cast<MOUNT_USB_DEVICES_CALLBACK_DATA*>(context);
    SLOGI("[%s, %d] line: '%s'\n", line);
    char strPartitionPath[32] = {0};
    char strDevicePath[32] = {0};
    char strFileSys[12] = {0};

    const char* colon = strchr(line, ':');
    // The path goes into shell lines unquoted: a kernel name under /dev only.
    if (colon == nullptr || colon - line > 31 ||
        !lum_copy_span(strPartitionPath, sizeof(strPartitionPath), line, static_cast<size_t>(colon - line)) ||
        strncmp(strPartitionPath, "/dev/", 5) != 0 || !is_plain_word(strPartitionPath)) {
        SLOGW("[%s, %d] invalid line format: '%s'\n", line);
        return 0;
    }
    lum_strlcpy(strDevicePath, strPartitionPath, sizeof(strDevicePath));
    size_t len = strlen(strDevicePath);
    if (strDevicePath[len - 1] >= '1' && strDevicePath[len - 1] <= '9')
        strDevicePath[len - 1] = '\0';
    parse_type(line, strFileSys);

    if (names_volume(strPartitionPath, ctx->offline)) {
        SLOGI("[%s, %d] %s is being formatted, left off-line\n", strPartitionPath);
        return 0;
    }
    if (already_mounted(strPartitionPath)) {
        ctx->num_already_mounted++;
        SLOGD("[%s, %d] <FS> this partition '%s' is already mounted.\n", strPartitionPath);
        return 0;
    }
    SLOGD("[%s, %d] try to mount: '%s' fs='%s'\n", strPartitionPath, strFileSys);
    int fileSysId = get_fs_id(strFileSys);
    if (fileSysId == 0)
        SLOGW("[%s, %d] unknown filesystem in '%s'\n", strPartitionPath);
    if (fileSysId == FS_ID_REFUSED) {
        SLOGW("[%s, %d] <FS> 'filesystem '%s' not supported\n", strFileSys);
        return 0;
    }
    return mount_partition(ctx, strPartitionPath, strDevicePath, strFileSys, fileSysId);
}

namespace {

int clear_mount_path(void* context, char* line)
{
    char path[64];
    snprintf(path, sizeof(path), "%s/%s", MOUNT_DIR, line);
    if (!is_plain_word(line)) {
        SLOGW("[%s, %d] ***W: '%s' is no name the service made, left alone\n", line);
        return 0;
    }
    char out[64];
    if (buffer_read_from_command(out, sizeof(out), "mount | grep \"%s\"", line) < 1) {
        SLOGD("[%s, %d] clear path: %s\n", path);
        remove_mount_dir(path);
        ++*static_cast<int*>(context);
    } else {
        SLOGD("[%s, %d] %s is used!\n", path);
    }
    return 0;
}

}  // namespace

int StorageManagerService::MountUsbDevices(const char* pDevName)
{
    std::lock_guard<std::mutex> run(m_RunLock);
    return MountRunLocked(pDevName);
}

int StorageManagerService::BringOnline(const char* volume)
{
    std::lock_guard<std::mutex> run(m_RunLock);
    m_OfflineVolume.clear();
    return MountRunLocked(volume);
}

int StorageManagerService::MountRunLocked(const char* pDevName)
{
    MOUNT_USB_DEVICES_CALLBACK_DATA context;
    memset(&context, 0, sizeof(context));
    context.offline = m_OfflineVolume.c_str();
    bool sysNodeCheckDone = false;
    for (;;) {
        parse_output_lines(mount_usb_devices_callback, &context, "%s blkid -d | grep /dev/sd", "");
        context.num_new_mounted += MountMtpDevices();
        SLOGD("[%s, %d] mounted new devices: %d\n", context.num_new_mounted);
        // A disk that was just plugged in may not show its partitions yet.
        if (context.num_new_mounted != 0 || sysNodeCheckDone)
            break;
        SLOGI("[%s, %d] Mount again after blkid!\n");
        sysNodeCheckDone = true;
        usleep(MOUNT_PASS_DELAY_US);
    }
    GetDevTable();
    MountPvrPartitionProcess();
    // A hot-plug run tells the user interface what it may offer; a client's
    // request does not.
    if ((pDevName == nullptr || pDevName[0] == '\0') && context.num_new_mounted > 0)
        NotifyGuide(LUM_TV_EVT_STORAGE_CONNECT_STATE);
    NotifyToStorageManager(LUM_TV_EVT_STORAGE_DEV_MOUNT_END, &context.num_new_mounted,
                           sizeof(context.num_new_mounted));
    return context.num_new_mounted;
}

void StorageManagerService::ClearMountPath()
{
    int counter = 0;
    parse_output_lines(clear_mount_path, &counter, "ls %s | grep sd", MOUNT_DIR);
    SLOGD("[%s, %d] clear %d file in mount path\n", counter);
}

void handle_plug_in(StorageManagerService& service, CNorvMsg*, StorageManagerAction_t*)
{
    SLOGD("[%s, %d] MountUsbDevices!\n");
    // Taken before the run looks at the devices: an event from now on gets
    // a run of its own.
    service.m_HotPlug.Taken(SIG_ID_STORAGE_PLUG_IN);
    service.MountUsbDevices(nullptr);
}

void handle_mount(StorageManagerService& service, CNorvMsg*, StorageManagerAction_t* action)
{
    service.MountUsbDevices(reinterpret_cast<const char*>(action->buf1));
}
