// The unmount run: walks every mount under the tree and takes down those whose
// device blkid no longer lists, or which the caller named; then rebuilds the
// device table and tells the end.
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

#include <norvfw/FileUtils.h>

#include "MountLines.h"
#include "MountedVolumes.h"
#include "MountTree.h"
#include "ServiceHandlers.h"
#include "ServiceLog.h"
#include "ShellProbe.h"
#include "SignalNo.h"
#include "StorageManagerService.h"
#include "StrUtil.h"

#define UNMOUNT_PASS_DELAY_US 5000000
#define UNMOUNT_RETRY_DELAY_US 2000000
#define UNMOUNT_TRIES 2

namespace {

void notify_unmount_to_observer(const char* mountpoint)
{
    size_t n = strlen(mountpoint) + 1;
    char* copy = static_cast<char*>(malloc(n));
    if (copy == nullptr)
        return;
    memcpy(copy, mountpoint, n);
    theStorageManagerService.NotifyToStorageManager(LUM_TV_EVT_STORAGE_DEV_UMOUNT, copy, static_cast<int>(n));
    free(copy);
}

// The device (first word) and the mount point (from the tree's root to the
// next blank) of one `mount` line. Both go into shell lines unquoted, so
// only plain words are taken.
bool split_mount_line(const char* line, char strPartition[32], char strMountPoint[64])
{
    const char* blank = strchr(line, ' ');
    if (blank != nullptr && blank - line <= 31)
        lum_copy_span(strPartition, 32, line, static_cast<size_t>(blank - line));
    const char* mp = strstr(line, MOUNT_DIR);
    const char* end = mp != nullptr ? strchr(mp, ' ') : nullptr;
    if (end != nullptr && end - mp <= 63)
        lum_copy_span(strMountPoint, 64, mp, static_cast<size_t>(end - mp));
    return is_plain_word(strPartition) && is_plain_word(strMountPoint);
}

bool device_is_gone(const UNMOUNT_USB_DEVICES_CALLBACK_DATA* ctx, const char* strPartition)
{
    char strScratch[32];
    if (buffer_read_from_command(strScratch, sizeof(strScratch), "%s blkid | grep ^%s", "", strPartition) <= 0)
        return true;
    return ctx->unmount_connected_device != nullptr && strstr(strPartition, ctx->unmount_connected_device) != nullptr;
}

}  // namespace

int unmount_usb_devices_callback(void* context, char* line)
{
    auto* ctx = static_cast<UNMOUNT_USB_DEVICES_CALLBACK_DATA*>(context);
    char strPartition[32] = {0};
    char strMountPoint[64] = {0};
    SLOGI("[%s, %d] line: %s \n", line);
    if (!split_mount_line(line, strPartition, strMountPoint)) {
        SLOGW("[%s, %d] line: %s\n", line);
        return 0;
    }
    if (!device_is_gone(ctx, strPartition)) {
        SLOGI("[%s, %d]  Device %s is still active\n ", strPartition);
        return 0;
    }
    SLOGD("[%s, %d] umount %s from %s \n", strPartition, strMountPoint);
    // A benchmark's tool on a volume that has gone waits for ever; stopped
    // now, it also takes its work files away while it still can.
    theStorageManagerService.StopBenchmarkOn(strMountPoint);
    // Swapping to a file on the volume would keep it busy.
    std::string swapFile = std::string(strMountPoint) + "/.swapfile";
    if (utils::file::isFileExisting(swapFile))
        utils::file::swapoff(swapFile);
    for (int numTries = 0; numTries < UNMOUNT_TRIES;) {
        int wasUmountSuccessful = call_system("umount -fl %s", strMountPoint);
        if (wasUmountSuccessful == 0) {
            ctx->num_unmounted++;
            mounted_volume_remove(strMountPoint);
            utils::file::remove(strMountPoint);
            notify_unmount_to_observer(strMountPoint);
            return 0;
        }
        ++numTries;
        SLOGW("[%s, %d] umount %s failed (after 2s retry %d)\n", strMountPoint, numTries);
        usleep(UNMOUNT_RETRY_DELAY_US);
    }
    return 0;
}

int StorageManagerService::UnmountUsbDevices(const char* pDevName)
{
    std::lock_guard<std::mutex> run(m_RunLock);
    return UnmountRunLocked(pDevName);
}

int StorageManagerService::TakeOffline(const char* volume)
{
    std::lock_guard<std::mutex> run(m_RunLock);
    m_OfflineVolume = volume != nullptr ? volume : "";
    return UnmountRunLocked(volume);
}

int StorageManagerService::UnmountRunLocked(const char* pDevName)
{
    bool sysNodeCheckDone = false;
    if (pDevName != nullptr)
        SLOGI("[%s, %d] --- force unmount of '%s'\n", pDevName);
    UNMOUNT_USB_DEVICES_CALLBACK_DATA context = {0, pDevName};
    for (;;) {
        parse_output_lines(unmount_usb_devices_callback, &context, "mount | grep \"%s\"", MOUNT_DIR);
        context.num_unmounted += UnmountMtpDevices();
        SLOGD("[%s, %d] unmounted devices: %d\n", context.num_unmounted);
        if (context.num_unmounted != 0 || sysNodeCheckDone)
            break;
        SLOGI("[%s, %d] Unmount again after blkid!\n");
        sysNodeCheckDone = true;
        usleep(UNMOUNT_PASS_DELAY_US);
    }
    GetDevTable();
    UnmountPvrPartitionProcess();
    if (pDevName == nullptr)
        NotifyGuide(LUM_TV_EVT_STORAGE_DISCONNECT);
    NotifyToStorageManager(LUM_TV_EVT_STORAGE_DEV_UMOUNT_END, &context.num_unmounted, sizeof(context.num_unmounted));
    return context.num_unmounted;
}

void handle_plug_out(StorageManagerService& service, CNorvMsg*, StorageManagerAction_t*)
{
    SLOGD("[%s, %d] UnmountUsbDevices!\n");
    // Taken before the run looks at the devices: an event from now on gets
    // a run of its own.
    service.m_HotPlug.Taken(SIG_ID_STORAGE_PLUG_OUT);
    service.UnmountUsbDevices(nullptr);
}

void handle_unmount(StorageManagerService& service, CNorvMsg*, StorageManagerAction_t* action)
{
    service.UnmountUsbDevices(reinterpret_cast<const char*>(action->buf1));
}
