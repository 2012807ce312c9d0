// Canned PVR replies and format event sequences. Payloads are assembled by
// hand from the layouts (host-order counts and records, big-endian sizes in
// SET_ALL_PARTITION, the guide record at its fixed offsets), independently
// of lumctl's decoders.
#include "fake_pvr.h"

#include <cstdio>
#include <string>

#include <StorageDevice.h>
#include <StorageEvents.h>
#include <StorageFormatInfo.h>
#include <StorageModuleCmd.h>
#include <StoragePvr.h>

#include "fake_bytes.h"

namespace fakesvc {

std::atomic<bool> g_pvr_present{true};
std::atomic<int32_t> g_guide_event{PLUGIN_EVENT_BUTT};
std::atomic<uint32_t> g_size_limit{4096};
std::atomic<bool> g_pvr_enabled{true};

void reset_pvr()
{
    g_pvr_present = true;
    g_guide_event = PLUGIN_EVENT_BUTT;
    g_size_limit = 4096;
    g_pvr_enabled = true;
}

namespace {

struct Step {
    int32_t id;
    Bytes data;
};
using Steps = std::vector<Step>;

void play(const Steps& steps)
{
    for (const Step& s : steps)
        notify(s.id, s.data);
}

std::string operand(const android::Parcel& request)
{
    const char* text = request.readCString();
    return text != nullptr ? text : "";
}

// --- event payloads ---

Bytes format_info(const std::string& volume, int32_t result)
{
    SStorageFormatInfo info;
    memset(&info, 0, sizeof(info));
    snprintf(info.devName, sizeof(info.devName), "%s", volume.c_str());
    memcpy(&info.result, &result, sizeof(result));
    return image_of(info);
}

Bytes hot_plug(const std::string& mount_point, const char* fs, const char* label)
{
    SStorageHotPlugInfo info;
    memset(&info, 0, sizeof(info));
    info.u16LabelLen = static_cast<uint16_t>(strlen(label));
    snprintf(info.mountPoint, sizeof(info.mountPoint), "%s", mount_point.c_str());
    snprintf(info.label, sizeof(info.label), "%s", label);
    snprintf(info.fsType, sizeof(info.fsType), "%s", fs);
    return image_of(info);
}

// retVal, the device and its NUL; on success the size in MB and three zero
// words, big-endian.
Bytes partition_reply(uint8_t ret_val, const std::string& device, uint32_t size_mb)
{
    Bytes out = join({Bytes{ret_val}, c_string(device.c_str())});
    if (ret_val == 0) {
        for (uint32_t v : {size_mb, 0u, 0u, 0u})
            put_be32(&out, v);
    }
    return out;
}

Bytes mark_info(const std::string& disk, int32_t verdict)
{
    SStorageMarkPvrInfo info;
    memset(&info, 0, sizeof(info));
    info.is_pvr_partition = verdict == PVR_SUCCESS ? 1 : 0;
    info.pvr_flag = static_cast<EStoragePvrFlag>(verdict);
    snprintf(info.partition_id, sizeof(info.partition_id), "%s", disk.c_str());
    return image_of(info);
}

// --- format sequences ---

Steps unmount_steps(const std::string& mount_point)
{
    return {{LUM_TV_EVT_STORAGE_DEV_UMOUNT, c_string(mount_point.c_str())},
            {LUM_TV_EVT_STORAGE_DEV_UMOUNT_END, host_count(1)}};
}

Steps mount_steps(const std::string& mount_point, const char* fs, const char* label)
{
    return {{LUM_TV_EVT_STORAGE_DEV_MOUNT, hot_plug(mount_point, fs, label)},
            {LUM_TV_EVT_STORAGE_DEV_MOUNT_END, host_count(1)}};
}

Steps cat(std::initializer_list<Steps> parts)
{
    Steps out;
    for (const Steps& p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

// A format that succeeds with 1234 MB; the volume was the PVR partition.
Steps success_steps(const std::string& volume, const std::string& mount_point)
{
    return {{LUM_TV_EVT_STORAGE_DEV_UMOUNT, c_string(mount_point.c_str())},
            {LUM_TV_EVT_STORAGE_PVR_PLUG_OUT, text_bytes(mount_point.c_str())},
            {LUM_TV_EVT_STORAGE_DEV_UMOUNT_END, host_count(1)},
            {LUM_TV_EVT_STORAGE_DEV_MOUNT, hot_plug(mount_point, "vfat", "PVRDISK")},
            {LUM_TV_EVT_STORAGE_PVR_DEV_CHANGE, text_bytes(mount_point.c_str())},
            {LUM_TV_EVT_STORAGE_DEV_MOUNT_END, host_count(1)},
            {LUM_TV_EVT_STORAGE_SET_ALL_PARTITION, partition_reply(0, volume, 1234)},
            {LUM_TV_EVT_STORAGE_FORMAT, format_info(volume, 0)}};
}

// The success of sdb1 with other clients' events between its own: formats
// of other volumes (one whose name starts like sdb1), an event nobody
// waits for, and mount and unmount events outside their phase.
Steps interleaved_success()
{
    Steps own = success_steps("sdb1", "/mnt/pvr/shared/sdb1");
    Steps out;
    const Step others[] = {
        {LUM_TV_EVT_STORAGE_FORMAT, format_info("sdb10", 0)},
        {LUM_TV_EVT_STORAGE_DEV_MOUNT, hot_plug("/mnt/usb/sdz1", "ntfs", "STRAY")},
        {LUM_TV_EVT_STORAGE_FORMAT, format_info("sdz1", -2)},
        {LUM_TV_EVT_STORAGE_DEV_UMOUNT, c_string("/mnt/usb/sdz2")},
        {LUM_TV_EVT_STORAGE_SET_ALL_PARTITION, partition_reply(5, "sdb10", 0)},
        {LUM_TV_EVT_STORAGE_FORMAT, format_info("sdz1", -3)},
        {LUM_TV_EVT_STORAGE_GET_ALLOCATE_BYTES, host_count(77)},
        {LUM_TV_EVT_STORAGE_FORMAT, format_info("sdz1", -1)},
    };
    // others[1] lands before the end of the unmount run, others[3] after it.
    for (size_t i = 0; i < own.size(); ++i) {
        out.push_back(own[i]);
        out.push_back(others[i]);
    }
    return out;
}

Steps failing_steps(const std::string& volume, uint8_t ret_val)
{
    std::string mount_point = "/mnt/usb/" + volume;
    return cat({unmount_steps(mount_point), mount_steps(mount_point, "ext4", ""),
                {{LUM_TV_EVT_STORAGE_SET_ALL_PARTITION, partition_reply(ret_val, volume, 0)},
                 {LUM_TV_EVT_STORAGE_FORMAT, format_info(volume, -1)}}});
}

// The watchdog expires while the tool runs; another client's request for
// the same volume is answered busy meanwhile; the format then succeeds.
Steps watchdog_steps(const std::string& volume)
{
    std::string mount_point = "/mnt/usb/" + volume;
    return cat({unmount_steps(mount_point),
                {{LUM_TV_EVT_STORAGE_FORMAT, format_info(volume, -2)},
                 {LUM_TV_EVT_STORAGE_FORMAT, format_info(volume, -3)}},
                mount_steps(mount_point, "vfat", "BIG"),
                {{LUM_TV_EVT_STORAGE_SET_ALL_PARTITION, partition_reply(0, volume, 953869)},
                 {LUM_TV_EVT_STORAGE_FORMAT, format_info(volume, 0)}}});
}

Steps format_steps(const std::string& volume)
{
    if (volume == "sdb1")
        return interleaved_success();
    if (volume == "sdc1")
        return failing_steps(volume, 5);
    if (volume == "sde1")
        return failing_steps(volume, 4);
    if (volume == "sdd1")
        return watchdog_steps(volume);
    if (volume == "busy")
        return {{LUM_TV_EVT_STORAGE_FORMAT, format_info(volume, -2)}};
    return {{LUM_TV_EVT_STORAGE_FORMAT, format_info(volume, 0)}};
}

// The bool reply; false when the operand asks for no event at all.
bool answer(const std::string& name, android::Parcel* reply)
{
    reply->writeBool(name != kRefused);
    return name != kRefused && name != kSilent;
}

int dev_format(const android::Parcel& request, android::Parcel* reply)
{
    std::string volume = operand(request);
    if (answer(volume, reply))
        play(format_steps(volume));
    return 0;
}

struct VerdictRow {
    const char* disk;
    int32_t verdict;
};

const VerdictRow kVerdicts[] = {{"sdb", 0}, {"small", 1}, {"ntfs", 2}, {"nomount", 3},
                                {"noid", 4}, {"", 5},     {"odd", 9}};

int32_t verdict_of(const std::string& disk)
{
    for (const VerdictRow& row : kVerdicts) {
        if (disk == row.disk)
            return row.verdict;
    }
    return PVR_FORMAT_UNUSABLE;
}

int mark_dev(const android::Parcel& request, android::Parcel* reply)
{
    std::string disk = operand(request);
    bool with_format = request.readBool();
    if (!answer(disk, reply))
        return 0;
    if (with_format)
        play(success_steps(disk, "/mnt/pvr/shared/" + disk + "1"));
    play({{LUM_TV_EVT_STORAGE_PVR_MARK, mark_info("sdz", 0)},
          {LUM_TV_EVT_STORAGE_PVR_MARK, mark_info(disk, verdict_of(disk))}});
    return 0;
}

// --- direct replies ---

int dev_state(const android::Parcel&, android::Parcel* reply)
{
    reply->writeBool(g_pvr_present.load());
    return 0;
}

int mount_path(const android::Parcel&, android::Parcel* reply)
{
    reply->writeCString(g_pvr_present.load() ? kPvrPath : "");
    return 0;
}

int dev_available(const android::Parcel& request, android::Parcel* reply)
{
    reply->writeInt32(verdict_of(operand(request)));
    return 0;
}

int disk_total(const android::Parcel& request, android::Parcel* reply)
{
    reply->writeInt64(operand(request) == "sdb" ? 29822 : 0);
    return 0;
}

int set_limit(const android::Parcel& request, android::Parcel*)
{
    uint32_t mb = request.readUint32();
    if (g_pvr_enabled.load() && mb >= 1800 && mb != g_size_limit.load())
        g_size_limit = mb;
    return 0;
}

int get_limit(const android::Parcel&, android::Parcel* reply)
{
    reply->writeUint32(g_size_limit.load());
    return 0;
}

// --- the guide record ---

struct Partition {
    const char* dev;
    const char* fs;
    uint64_t size_mb;
    const char* mount_point;
    const char* label;
};

Bytes guide_row(const Partition& p)
{
    SConnectedDevice row;
    memset(&row, 0, sizeof(row));
    snprintf(row.devName, sizeof(row.devName), "%s", p.dev);
    snprintf(row.fsType, sizeof(row.fsType), "%s", p.fs);
    snprintf(row.mountPoint, sizeof(row.mountPoint), "%s", p.mount_point);
    snprintf(row.volumeName, sizeof(row.volumeName), "%s", p.label);
    row.devSize = p.size_mb;
    row.devUsedSize = p.size_mb / 4;
    return image_of(row);
}

void put_host32(Bytes* record, size_t at, int32_t v)
{
    memcpy(record->data() + at, &v, sizeof(v));
}

// The record at its fixed offsets: bShow 0, enEvt 4, s32PartitionNum 8,
// partition rows from 16, s32ConnectedDevNum 31504, connected rows from
// 31512; 984 bytes a row.
Bytes guide_record(int32_t show, int32_t event, std::initializer_list<Partition> parts, int32_t connected)
{
    Bytes record(63000, 0);
    put_host32(&record, 0, show);
    put_host32(&record, 4, event);
    put_host32(&record, 8, static_cast<int32_t>(parts.size()));
    size_t at = 16;
    for (const Partition& p : parts) {
        Bytes row = guide_row(p);
        memcpy(record.data() + at, row.data(), row.size());
        at += 984;
    }
    put_host32(&record, 31504, connected);
    return record;
}

const Partition kSdb1 = {"/dev/sdb1", "vfat", 29773, "/mnt/usb/sdb1", "PVRDISK"};
const Partition kSdc1 = {"/dev/sdc1", "ext4", 953869, "/mnt/usb/sdc1", ""};

Bytes guide_for(int32_t event)
{
    if (event == PLUGIN_EVENT_REQUEST_FORMAT_PARTITION)
        return guide_record(1, event, {kSdb1}, 3);
    if (event == PLUGIN_EVENT_REQUEST_SELECT_PARTITION)
        return guide_record(1, event, {kSdb1, kSdc1}, 4);
    if (event == PLUGIN_EVENT_BUTT)
        return guide_record(0, event, {}, 2);
    return guide_record(1, event, {}, 1);
}

int guide_info(const android::Parcel&, android::Parcel* reply)
{
    Bytes record = guide_for(g_guide_event.load());
    reply->writeInt32(0);
    reply->write(record.data(), record.size());
    return 0;
}

// --- benchmark ---

Bytes bench_event(uint8_t status, uint8_t progress, uint32_t speed, uint32_t processes)
{
    Bytes out{status, progress};
    put_be32(&out, speed);
    put_be32(&out, processes);
    return out;
}

int dev_benchmark(const android::Parcel& request, android::Parcel* reply)
{
    std::string path = operand(request);
    if (!answer(path, reply))
        return 0;
    Steps steps;
    for (uint8_t progress : {1, 50, 75, 100})
        steps.push_back({LUM_TV_EVT_STORAGE_DEV_BENCHMARK, bench_event(8, progress, 0, 0)});
    bool works = path == kBenchPath;
    steps.push_back({LUM_TV_EVT_STORAGE_DEV_BENCHMARK, bench_event(works ? 0 : 19, 100, works ? 4694719 : 0, 2)});
    play(steps);
    return 0;
}

int cancel_benchmark(const android::Parcel&, android::Parcel* reply)
{
    reply->writeBool(true);
    return 0;
}

const Row kPvrRows[] = {
    {STORAGE_PVR_DEV_STATE, dev_state},
    {STORAGE_PVR_MOUNT_PATH, mount_path},
    {STORAGE_PVR_DEV_AVAILABLE, dev_available},
    {STORAGE_PVR_DISK_TOTAL, disk_total},
    {STORAGE_SET_PVR_DEV_SIZE_LIMIT, set_limit},
    {STORAGE_GET_PVR_DEV_SIZE_LIMIT, get_limit},
    {STORAGE_PVR_GET_DEV_GUIDE_INFO, guide_info},
    {STORAGE_PVR_MARK_DEV, mark_dev},
    {STORAGE_DEV_FORMAT, dev_format},
    {STORAGE_DEV_BENCHMARK, dev_benchmark},
    {STORAGE_DEV_CANCEL_BENCHMARK, cancel_benchmark},
};

}  // namespace

const Row* pvr_rows(size_t* count)
{
    *count = sizeof(kPvrRows) / sizeof(kPvrRows[0]);
    return kPvrRows;
}

}  // namespace fakesvc
