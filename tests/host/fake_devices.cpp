// Canned device events. Payloads are assembled byte by byte from the event
// layouts (big-endian tagged elements, big-endian sizes, host-order counts,
// the record structures), independently of lumctl's decoders.
#include "fake_devices.h"

#include "fake_bytes.h"

#include <cstring>
#include <string>
#include <vector>

#include <StorageDevice.h>
#include <StorageEvents.h>
#include <StorageFormatInfo.h>
#include <StorageModuleCmd.h>
#include <lumemclient/EMALClient.h>

namespace fakesvc {

namespace {

Bytes elem(uint16_t tag, const Bytes& value)
{
    Bytes out;
    put_be16(&out, tag);
    put_be16(&out, static_cast<uint32_t>(value.size()));
    out.insert(out.end(), value.begin(), value.end());
    return out;
}

// A string element: its length counts the NUL.
Bytes str_elem(uint16_t tag, const char* text)
{
    return elem(tag, Bytes(text, text + strlen(text) + 1));
}

Bytes u32_elem(uint16_t tag, uint32_t v)
{
    Bytes value;
    put_be32(&value, v);
    return elem(tag, value);
}

// Another client's work, for the client to skip.
void unrelated_event()
{
    SStorageFormatInfo info{};
    snprintf(info.devName, sizeof(info.devName), "sdz");
    notify(LUM_TV_EVT_STORAGE_FORMAT, image_of(info));
}

struct Device {
    const char* node;
    uint8_t conn;
    const char* mount_point;
    const char* label;
    const char* fs_type;
    const char* vendor;
    const char* model;
    const char* serial;
    uint32_t dev_id;
    uint32_t size_mb;
    int64_t used_mb;  // below 0: no used element
};

// Vendor and model are blank-padded, as USB devices report them.
const Device kDevices[] = {
    {"/dev/sdb", 6, "", "", "", "SanDisk ", "Cruzer Blade    ", "4C530001", 0x0781556B, 29822, -1},
    {"/dev/sdb1", 0, "/mnt/usb/sdb1", "KINGSTON", "vfat", "", "", "", 0, 48, 12},
    {"/dev/sdb2", 0, "/mnt/usb/sdb2", "", "ext4", "", "", "", 0, 29773, 1945},
    {"VEN_04E8_PID_6860", 7, "/mnt/mtp/phone", "", "mtpfs", "Samsung", "Galaxy S9", "R58M1234", 0x04E86860,
     57000, 100},
};

Bytes device_entry(const Device& d)
{
    Bytes children = join({str_elem(2, d.node), elem(3, Bytes{d.conn}), str_elem(4, d.mount_point),
                           str_elem(5, d.label), str_elem(6, d.fs_type), str_elem(8, d.vendor),
                           str_elem(9, d.model), str_elem(10, d.serial), u32_elem(11, d.dev_id),
                           u32_elem(12, d.size_mb)});
    if (d.used_mb >= 0)
        children = join({children, u32_elem(13, static_cast<uint32_t>(d.used_mb))});
    return elem(1, children);
}

void copy_text(char* to, size_t size, const char* text)
{
    snprintf(to, size, "%s", text);
}

Bytes device_row(const Device& d)
{
    SConnectedDevice row;
    memset(&row, 0, sizeof(row));
    copy_text(row.devName, sizeof(row.devName), d.node);
    copy_text(row.mountPoint, sizeof(row.mountPoint), d.mount_point);
    copy_text(row.fsType, sizeof(row.fsType), d.fs_type);
    row.devConnectionType = d.conn;
    copy_text(row.devVendor, sizeof(row.devVendor), d.vendor);
    copy_text(row.devModel, sizeof(row.devModel), d.model);
    copy_text(row.devSerialNr, sizeof(row.devSerialNr), d.serial);
    row.devId = d.dev_id;
    row.devSize = d.size_mb;
    row.devUsedSize = d.used_mb >= 0 ? static_cast<uint64_t>(d.used_mb) : 0;
    copy_text(row.volumeName, sizeof(row.volumeName), d.label);
    const uint8_t* p = reinterpret_cast<const uint8_t*>(&row);
    return Bytes(p, p + sizeof(row));
}

std::string operand(const android::Parcel& request)
{
    const char* text = request.readCString();
    return text != nullptr ? text : "";
}

// The bool reply; false when the operand asks for no event at all.
bool answer(const std::string& name, android::Parcel* reply)
{
    reply->writeBool(name != kRefused);
    return name != kRefused && name != kSilent;
}

int volumes(const android::Parcel&, android::Parcel* reply)
{
    reply->writeBool(true);
    notify(LUM_TV_EVT_STORAGE_GET_DEV_TABLE, {});  // answers an earlier request
    Bytes list{0};
    Bytes rows;
    for (const Device& d : kDevices) {
        list = join({list, device_entry(d)});
        rows = join({rows, device_row(d)});
    }
    notify(LUM_TV_EVT_STORAGE_GET_STORAGE_VOLUMES, list);
    unrelated_event();
    notify(LUM_TV_EVT_STORAGE_GET_DEV_TABLE, rows);
    return 0;
}

int dev_info(const android::Parcel& request, android::Parcel* reply)
{
    std::string name = operand(request);
    if (!answer(name, reply))
        return 0;
    const Device& d = kDevices[0];
    Bytes info = name == "sdb" ? join({Bytes{0}, str_elem(8, d.vendor), str_elem(9, d.model),
                                       str_elem(10, d.serial), u32_elem(11, d.dev_id)})
                               : Bytes{1};
    notify(LUM_TV_EVT_STORAGE_GET_DEV_INFO, info);
    return 0;
}

Bytes hot_plug(const Device& d)
{
    SStorageHotPlugInfo info;
    memset(&info, 0, sizeof(info));
    info.u16LabelLen = static_cast<uint16_t>(strlen(d.label));
    copy_text(info.mountPoint, sizeof(info.mountPoint), d.mount_point);
    copy_text(info.label, sizeof(info.label), d.label);
    copy_text(info.fsType, sizeof(info.fsType), d.fs_type);
    const uint8_t* p = reinterpret_cast<const uint8_t*>(&info);
    return Bytes(p, p + sizeof(info));
}

int mount_run(const android::Parcel& request, android::Parcel* reply)
{
    std::string name = operand(request);
    if (!answer(name, reply))
        return 0;
    bool known = name == "sdb";
    if (known) {
        notify(LUM_TV_EVT_STORAGE_DEV_MOUNT, hot_plug(kDevices[1]));
        unrelated_event();
        notify(LUM_TV_EVT_STORAGE_DEV_MOUNT, hot_plug(kDevices[2]));
    }
    notify(LUM_TV_EVT_STORAGE_DEV_MOUNT_END, host_count(known ? 2 : 0));
    return 0;
}

int umount_run(const android::Parcel& request, android::Parcel* reply)
{
    std::string name = operand(request);
    if (!answer(name, reply))
        return 0;
    bool known = name == "sdb";
    if (known) {
        notify(LUM_TV_EVT_STORAGE_DEV_UMOUNT, c_string(kDevices[1].mount_point));
        unrelated_event();
        notify(LUM_TV_EVT_STORAGE_DEV_UMOUNT, c_string(kDevices[2].mount_point));
    }
    notify(LUM_TV_EVT_STORAGE_DEV_UMOUNT_END, host_count(known ? 2 : 0));
    return 0;
}

// u32 big-endian megabytes, then the device name with its NUL.
Bytes size_event(const std::string& device, uint32_t mb)
{
    Bytes out;
    put_be32(&out, mb);
    return join({out, c_string(device.c_str())});
}

const Device* find_device(const std::string& dev)
{
    for (const Device& d : kDevices) {
        if (dev == d.node)
            return &d;
    }
    return nullptr;
}

// Both size events: first an answer for another device and the other size
// event for this one, then the answer.
int size_query(const android::Parcel& request, android::Parcel* reply, int32_t id, int32_t other_id,
               bool used)
{
    std::string name = operand(request);
    if (!answer(name, reply))
        return 0;
    std::string dev = name.compare(0, 5, "/dev/") == 0 ? name : "/dev/" + name;
    const Device* d = find_device(dev);
    uint32_t mb = d == nullptr ? 1 : used ? static_cast<uint32_t>(d->used_mb) : d->size_mb;
    notify(id, size_event("/dev/sdz9", 999));
    notify(other_id, size_event(dev, 5555));
    notify(id, size_event(dev, mb));
    return 0;
}

int device_size(const android::Parcel& request, android::Parcel* reply)
{
    return size_query(request, reply, LUM_TV_EVT_STORAGE_HDD_GET_SIZE,
                      LUM_TV_EVT_STORAGE_HDD_GET_PARTITION_USE, false);
}

int partition_use(const android::Parcel& request, android::Parcel* reply)
{
    return size_query(request, reply, LUM_TV_EVT_STORAGE_HDD_GET_PARTITION_USE,
                      LUM_TV_EVT_STORAGE_HDD_GET_SIZE, true);
}

int allocate_bytes(const android::Parcel& request, android::Parcel* reply)
{
    std::string uuid = operand(request);
    if (answer(uuid, reply) && uuid == "1234-ABCD") {
        unrelated_event();
        notify(LUM_TV_EVT_STORAGE_GET_ALLOCATE_BYTES, host_count(1234));
    }
    return 0;
}

// The uuid's characters without a NUL.
int uuid_for_path(const android::Parcel& request, android::Parcel* reply)
{
    std::string path = operand(request);
    if (answer(path, reply) && path == kDevices[1].mount_point) {
        unrelated_event();
        notify(LUM_TV_EVT_STORAGE_GET_UUID_FOR_PATH, Bytes{'1', '2', '3', '4', '-', 'A', 'B', 'C', 'D'});
    }
    return 0;
}

const Row kDeviceRows[] = {
    {STORAGE_GET_STORAGE_VOLUMES, volumes},   {STORAGE_GET_STORAGE_VOLUME, dev_info},
    {STORAGE_DEV_MOUNT, mount_run},           {STORAGE_DEV_UMOUNT, umount_run},
    {STORAGE_GET_DEVICE_SIZE, device_size},   {STORAGE_GET_PARTITION_USE, partition_use},
    {STORAGE_GET_ALLOCATE_BYTES, allocate_bytes}, {STORAGE_GET_UUID_FOR_PATH, uuid_for_path},
};

}  // namespace

const Row* device_rows(size_t* count)
{
    *count = sizeof(kDeviceRows) / sizeof(kDeviceRows[0]);
    return kDeviceRows;
}

}  // namespace fakesvc
