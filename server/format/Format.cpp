// Formatting a volume: the request on the service thread, the watchdog, and
// the format thread, which takes the volume off-line, runs one file-system
// tool on the device and brings it back. Partition tables are not touched.
#include "Format.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <pthread.h>

#include <cutils/properties.h>

#include "ByteOrder.h"
#include "MountTree.h"
#include "ServiceHandlers.h"
#include "ServiceLog.h"
#include "ShellProbe.h"
#include "SignalNo.h"
#include "StorageFormatInfo.h"
#include "StorageManagerService.h"
#include "StrUtil.h"
#include "VolumeQuery.h"

#define PROP_PVR_REC_ENABLE "persist.pvr.rec.enable"
// Format hands SetAllPartitions the name in a zeroed buffer of this size.
#define FORMAT_NAME_BUF_LEN 65
#define FORMAT_RESULT_OK 0u
#define FORMAT_RESULT_FAILED ((unsigned int)-1)
// What df's size is lowered by in Format's log line.
#define FORMAT_SIZE_LOG_MARGIN_MB 5

namespace {

// The row "ext2" formats with ext4: the key is what recording televisions
// have always asked for, the tool is what they use. No request selects
// "ntfs"; it stays for the day one does.
const GuidPartitionInfo kPartitionInfo[] = {
    {"ext2", "8300", "0FC63DAF-8483-4772-8E79-3D69D8477DE4", "Linux filesystem", "mkfs.ext4 -T largefile %s"},
    {"ntfs", "0700", "EBD0A0A2-B9E5-4433-87C0-68B6B72699C7", "Microsoft basic data",
     "/lumicore/middleware/bin/mkntfs -Q -F --verbose %s"},
    {"vfat", "0700", "EBD0A0A2-B9E5-4433-87C0-68B6B72699C7", "Microsoft basic data", "mkfs -V -t vfat -F 32  %s"},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

// Guards m_FormatDev, and orders the arming and stopping of TosvFormat with
// it: a format is claimed (flag set, watchdog armed) and released (flag
// cleared, watchdog stopped) as one step each, so a new format's watchdog
// can't be stopped by the end of the one before.
std::mutex g_format_lock;
std::atomic<int> g_format_threads_alive{0};

void send_format_info(StorageManagerService& service, const char* volume, unsigned int result)
{
    SStorageFormatInfo info;
    memset(&info, 0, sizeof(info));
    lum_strlcpy(info.devName, volume, sizeof(info.devName));
    info.result = result;
    service.NotifyToStorageManager(LUM_TV_EVT_STORAGE_FORMAT, &info, sizeof(info));
}

void send_set_all_partition_reply(StorageManagerService& service, int retVal, const char* name, uint32_t sizeMB)
{
    std::lock_guard<std::mutex> hold(service.m_SendBufLock);
    size_t len = build_set_all_partition_reply(service.m_SendBuf, sizeof(service.m_SendBuf), retVal, name, sizeMB);
    service.NotifyToStorageManager(LUM_TV_EVT_STORAGE_SET_ALL_PARTITION, service.m_SendBuf, static_cast<int>(len));
}

struct SFormatJob {
    StorageManagerService* service;
    char volume[STORAGE_ACTION_TEXT_LEN];
};

// The format thread: formats the volume it was started for, then gives the
// busy flag back and stops the watchdog, in that order, and ends.
void* format_thread(void* arg)
{
    auto* job = static_cast<SFormatJob*>(arg);
    StorageManagerService& service = *job->service;
    std::string volume(job->volume);
    free(job);
    service.Format(volume);
    format_release(service, volume);
    g_format_threads_alive.fetch_sub(1);
    return nullptr;
}

bool start_format_thread(StorageManagerService& service, const char* volume)
{
    auto* job = static_cast<SFormatJob*>(calloc(1, sizeof(SFormatJob)));
    if (job == nullptr)
        return false;
    job->service = &service;
    lum_strlcpy(job->volume, volume, sizeof(job->volume));
    pthread_attr_t attr;
    if (pthread_attr_init(&attr) != 0) {
        free(job);
        return false;
    }
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    g_format_threads_alive.fetch_add(1);
    pthread_t tid;
    int rc = pthread_create(&tid, &attr, format_thread, job);
    pthread_attr_destroy(&attr);
    if (rc != 0) {
        g_format_threads_alive.fetch_sub(1);
        free(job);
        return false;
    }
    return true;
}

}  // namespace

const GuidPartitionInfo* GetPartitionInfo(const char* fstype)
{
    if (fstype == nullptr)
        return nullptr;
    for (const GuidPartitionInfo* row = kPartitionInfo; row->fstype != nullptr; ++row) {
        if (strcmp(row->fstype, fstype) == 0)
            return row;
    }
    return nullptr;
}

size_t build_set_all_partition_reply(unsigned char* out, size_t size, int retVal, const char* name, uint32_t sizeMB)
{
    size_t n = strlen(name) + 1;
    size_t len = 1 + n + (retVal == SET_ALL_PARTITION_OK ? 16 : 0);
    if (len > size)
        return 0;
    out[0] = static_cast<unsigned char>(retVal);
    memcpy(out + 1, name, n);
    if (retVal == SET_ALL_PARTITION_OK) {
        // The size of the one file system, then partitions 2 to 4, which a
        // format never makes.
        put_be32(out + 1 + n, sizeMB);
        memset(out + 5 + n, 0, 12);
    }
    return len;
}

bool format_claim(StorageManagerService& service, const std::string& volume, std::string* running)
{
    std::lock_guard<std::mutex> hold(g_format_lock);
    if (!service.m_FormatDev.empty()) {
        *running = service.m_FormatDev;
        return false;
    }
    SLOGD("[%s, %d] Format: %s\n", volume.c_str());
    bool recording = property_get_bool(PROP_PVR_REC_ENABLE, 0) != 0;
    // A recording television formats a larger disk with ext4: it gets longer.
    service.TosvFormat.StartTimer(recording ? STORAGE_PVR_FORMAT_TIMEOUT_IN_MS : STORAGE_TSH_FORMAT_TIMEOUT_IN_MS,
                                  SIG_ID_STORAGE_FORMAT_TIMEOUT, service.GetQueueHandle(), 0);
    service.m_FormatDev = volume;
    return true;
}

void format_release(StorageManagerService& service, const std::string& volume)
{
    std::lock_guard<std::mutex> hold(g_format_lock);
    if (service.m_FormatDev != volume)
        return;
    service.m_FormatDev.clear();
    service.TosvFormat.StopTimer();
}

std::string format_running_volume(StorageManagerService& service)
{
    std::lock_guard<std::mutex> hold(g_format_lock);
    return service.m_FormatDev;
}

int format_threads_alive()
{
    return g_format_threads_alive.load();
}

bool StorageManagerService::Format(std::string volId)
{
    if (volId.size() + 1 > STORAGE_FORMAT_DEVNAME_LEN) {
        SLOGW("[%s, %d] ***W: volume name of %zu characters is too long, not formatted\n", volId.size());
        return false;
    }
    SLOGD("[%s, %d] Device/Partiton: %s, size: %d MB.\n", volId.c_str(),
          static_cast<int>(determine_dev_size(volId.c_str())) - FORMAT_SIZE_LOG_MARGIN_MB);
    unsigned char buf[FORMAT_NAME_BUF_LEN];
    memset(buf, 0, sizeof(buf));
    memcpy(buf, volId.c_str(), strlen(volId.c_str()));
    bool ok = SetAllPartitions(buf, sizeof(buf));
    send_format_info(*this, volId.c_str(), ok ? FORMAT_RESULT_OK : FORMAT_RESULT_FAILED);
    return true;
}

bool StorageManagerService::SetAllPartitions(const unsigned char* buf, int len)
{
    (void)len;
    if (buf == nullptr) {
        SLOGE("[%s, %d] invalid params.");
        return false;
    }
    // The name must end inside the largest buffer it comes in, the record's.
    const char* name = reinterpret_cast<const char*>(buf);
    char dev[STORAGE_ACTION_TEXT_LEN];
    size_t nameLen = strnlen(name, sizeof(dev));
    if (nameLen == sizeof(dev)) {
        SLOGE("[%s, %d] invalid params.");
        return false;
    }
    memcpy(dev, name, nameLen + 1);
    SLOGD("[%s, %d] -- %s\n", dev);

    // The device goes into the tool's command line unquoted: a name that is
    // not a plain path is refused before any volume is taken off-line, and
    // the client hears it as a failed tool.
    if (!is_plain_word(dev)) {
        SLOGE("[%s, %d] ***E: '%s' is no device path, not formatted\n", dev);
        send_set_all_partition_reply(*this, SET_ALL_PARTITION_TOOL_FAILED, dev, 0);
        return false;
    }

    // A television that records formats ext4, any other one FAT32.
    bool recording = property_get_bool(PROP_PVR_REC_ENABLE, 0) != 0;
    const GuidPartitionInfo* part_info = GetPartitionInfo(recording ? "ext2" : "vfat");

    TakeOffline(dev);

    int retVal;
    if (part_info == nullptr) {
        SLOGE("[%s, %d] part_info is NULL!\n");
        retVal = SET_ALL_PARTITION_NO_TABLE_ROW;
    } else {
        SLOGD("[%s, %d] start format '%s' (%s)\n", dev, part_info->fstype);
        retVal = call_system(part_info->format, dev) == 0 ? SET_ALL_PARTITION_OK : SET_ALL_PARTITION_TOOL_FAILED;
    }
    call_system("sync");

    // The volume comes back whether the tool ran or not.
    BringOnline(dev);

    uint32_t sizeMB = determine_dev_size(dev);
    SLOGD("[%s, %d] new partition size=%d\n", static_cast<int>(sizeMB));

    send_set_all_partition_reply(*this, retVal, dev, sizeMB);
    return retVal == SET_ALL_PARTITION_OK;
}

void handle_format(StorageManagerService& service, CNorvMsg*, StorageManagerAction_t* action)
{
    char volume[STORAGE_ACTION_TEXT_LEN];
    lum_copy_span(volume, sizeof(volume), reinterpret_cast<const char*>(action->buf1),
                  strnlen(reinterpret_cast<const char*>(action->buf1), sizeof(volume) - 1));
    std::string running;
    if (!format_claim(service, volume, &running)) {
        SLOGD("[%s, %d] Formatting: %s ....\n", running.c_str());
        send_format_info(service, volume, STORAGE_FORMAT_RESULT_BUSY);
        return;
    }
    if (!start_format_thread(service, volume)) {
        // Nothing will end this format: give the flag back so that the next
        // request is not refused for good.
        SLOGE("[%s, %d] ***E: no format thread for %s\n", volume);
        format_release(service, volume);
    }
}

void handle_format_timeout(StorageManagerService& service, CNorvMsg* msg, StorageManagerAction_t*)
{
    std::string volume;
    {
        // Checked with the flag held: a format that ended has stopped the
        // timer already, and this expiry is stale.
        std::lock_guard<std::mutex> hold(g_format_lock);
        if (service.TosvFormat.TimerIsValid(msg) == 0)
            return;
        volume = service.m_FormatDev;
    }
    // The watchdog only reports; the format goes on and sends its own result.
    SLOGD("[%s, %d] SIG_ID_STORAGE_FORMAT_TIMEOUT: %s\n", volume.c_str());
    send_format_info(service, volume.c_str(), STORAGE_FORMAT_RESULT_TIMEOUT);
}

void handle_set_all_partition(StorageManagerService& service, CNorvMsg*, StorageManagerAction_t* action)
{
    service.SetAllPartitions(action->buf1, action->intValue1);
}
