// Building the device table: the shell probes of every device and the
// tagged elements they become, the device-information elements of a single
// device, and the service operations that publish and answer them.
#include "DevTable.h"

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "ByteOrder.h"
#include "DevIdentify.h"
#include "MountTree.h"
#include "ServiceHandlers.h"
#include "ServiceLog.h"
#include "ShellProbe.h"
#include "ShellQuote.h"
#include "StorageManagerService.h"
#include "StrUtil.h"
#include "VolumeQuery.h"

namespace {

// Sizes of the texts an entry holds, terminators included.
constexpr int kDevPathLen = 32;     // longer device names are cut at 31 characters
constexpr int kProbeLen = 256;      // output of the mount and label probes
constexpr int kFsTypeLen = 32;
constexpr int kLabelLen = 100;      // labels are cut at 99 bytes

// The largest entry get_dev_table_callback can make: every element at its
// longest. The mount path is a token of the probe's output.
constexpr int kEntryMax = DEV_TAB_ELEMENT_HEADER                    // DEVICEENTRY
                          + DEV_TAB_ELEMENT_HEADER + kDevPathLen    // DEVICENODE
                          + DEV_TAB_ELEMENT_HEADER + 1              // DEVICCONN
                          + DEV_TAB_ELEMENT_HEADER + kProbeLen      // MOUNTPOINT
                          + DEV_TAB_ELEMENT_HEADER + 4              // DEVICEUSED
                          + DEV_TAB_ELEMENT_HEADER + kFsTypeLen     // FSTYPE
                          + DEV_TAB_ELEMENT_HEADER + kLabelLen      // VOLUMENAME
                          + DEV_TAB_ELEMENT_HEADER + 4              // DEVICESIZE
                          + DEV_INFO_MAX_LEN;                       // device information

// The probes of the table build, in the kernel's order of names, then the
// driver's lines with the marker word that tells them apart.
const char kBlockProbe[] = "cat /proc/partitions | sed -n 's/.*\\(sd[a-z][0-9]*\\).*/\\1/p'";
const char kMtpProbe[] = "cat /proc/driver/mptp/devices | awk '{print $0 \" mptpdev\"}' 2> /dev/null";
const char kMtpMarker[] = "mptpdev";

unsigned char* put_header(unsigned char* p, unsigned tag, size_t len)
{
    p[0] = static_cast<unsigned char>(tag >> 8);
    p[1] = static_cast<unsigned char>(tag);
    p[2] = static_cast<unsigned char>(len >> 8);
    p[3] = static_cast<unsigned char>(len);
    return p + DEV_TAB_ELEMENT_HEADER;
}

// A string element with its NUL. Callers pass texts that fit their buffers.
unsigned char* put_string(unsigned char* p, unsigned tag, const char* text)
{
    size_t n = strlen(text) + 1;
    p = put_header(p, tag, n);
    memcpy(p, text, n);
    return p + n;
}

unsigned char* put_u32(unsigned char* p, unsigned tag, uint32_t value)
{
    p = put_header(p, tag, 4);
    put_be32(p, value);
    return p + 4;
}

unsigned char* put_byte(unsigned char* p, unsigned tag, unsigned char value)
{
    p = put_header(p, tag, 1);
    *p = value;
    return p + 1;
}

// Vendor and model of a device: constants for the internal disk, the
// driver's files of the MTP slot for PTP devices, the disk's sysfs files
// otherwise. A read that fails leaves the text empty.
void read_vendor_and_model(AS_HD_DISK_TYPE devconn, const char* pDeviceName, int mptpDevNr, char* vendor,
                           char* model)
{
    vendor[0] = model[0] = '\0';
    if (devconn == AS_HD_DISK_TYPE_HDD_INTERNAL) {
        lum_strlcpy(vendor, "Norv", DEV_INFO_READ_LEN);
        lum_strlcpy(model, "internal", DEV_INFO_READ_LEN);
        return;
    }
    int rcVendor, rcModel;
    if (devconn == AS_HD_DISK_TYPE_PTP) {
        rcVendor = line_read_from_file(vendor, DEV_INFO_READ_LEN, "/proc/driver/mptp/%d/name", mptpDevNr);
        rcModel = line_read_from_file(model, DEV_INFO_READ_LEN, "/proc/driver/mptp/%d/model", mptpDevNr);
    } else {
        const char* dev = strlen(pDeviceName) >= 5 ? pDeviceName + 5 : "";
        rcVendor = line_read_from_file(vendor, DEV_INFO_READ_LEN, "/sys/block/%s/device/vendor", dev);
        rcModel = line_read_from_file(model, DEV_INFO_READ_LEN, "/sys/block/%s/device/model", dev);
    }
    if (rcVendor < 0)
        vendor[0] = '\0';
    if (rcModel < 0)
        model[0] = '\0';
}

// The slot number on a driver line; 0 when there is none. Out-of-range
// numbers are clamped, they name no slot either way.
int parse_slot(const char* token)
{
    if (token == nullptr)
        return 0;
    long nr = strtol(token, nullptr, 10);
    if (nr > INT_MAX)
        return INT_MAX;
    if (nr < INT_MIN)
        return INT_MIN;
    return static_cast<int>(nr);
}

// Appends MOUNTPOINT, DEVICEUSED and FSTYPE when the device is mounted in
// the shared tree.
unsigned char* put_mount_elements(unsigned char* p, const char* devPath, const char* quoted)
{
    char probe[kProbeLen] = {0};
    int rc = -1;
    if (quoted != nullptr)
        rc = buffer_read_from_command(probe, sizeof(probe),
                                      "mount | grep \"%s \" | grep  \"%s\"| awk '{print $3 \" \" $5 \" \"}'",
                                      quoted, MOUNT_DIR);
    if (rc <= 0) {
        SLOGD("[%s, %d] cannot get mount point at %s rc=%04x %m\n", devPath, static_cast<unsigned>(rc));
        return p;
    }
    char* save = nullptr;
    const char* mountPoint = strtok_r(probe, " \n", &save);
    if (mountPoint != nullptr)
        p = put_string(p, MOUNTPOINT, mountPoint);
    p = put_u32(p, DEVICEUSED, determine_dev_used_size(devPath));
    const char* type = mountPoint != nullptr ? strtok_r(nullptr, " \n", &save) : nullptr;
    if (type != nullptr) {
        // The NTFS drivers mount as fuseblk or ufsd; clients know the volume as ntfs.
        char fsType[kFsTypeLen];
        if (strcmp(type, "fuseblk") == 0 || strcmp(type, "ufsd") == 0)
            lum_strlcpy(fsType, "ntfs", sizeof(fsType));
        else
            lum_strlcpy(fsType, type, sizeof(fsType));
        p = put_string(p, FSTYPE, fsType);
    }
    return p;
}

// Appends VOLUMENAME when blkid reports a label for the device.
unsigned char* put_label_element(unsigned char* p, const char* devPath, const char* quoted)
{
    char probe[kProbeLen] = {0};
    int rc = -1;
    if (quoted != nullptr)
        rc = buffer_read_from_command(probe, sizeof(probe), "%s blkid -d | grep \"%s:\"", "", quoted);
    if (rc <= 0) {
        SLOGD("[%s, %d] cannot get blkid at %s rc=%04x %m\n", devPath, static_cast<unsigned>(rc));
        return p;
    }
    const char* start = strstr(probe, "LABEL=\"");
    if (start == nullptr)
        return p;
    start += 7;
    const char* stop = strchr(start, '"');
    if (stop == nullptr)
        return p;
    size_t len = static_cast<size_t>(stop - start);
    if (len > kLabelLen - 1)
        len = kLabelLen - 1;
    char label[kLabelLen];
    memcpy(label, start, len);
    label[len] = '\0';
    return put_string(p, VOLUMENAME, label);
}

// Builds the DEVICEENTRY of one probe line into entry (kEntryMax bytes).
// Returns its size.
size_t build_dev_entry(char* line, unsigned char* entry)
{
    unsigned char* p = put_header(entry, DEVICEENTRY, 0);  // length set below

    char strDevPath[kDevPathLen];
    int mptpDevNr = 0;
    bool baseDevice;
    if (strstr(line, kMtpMarker) != nullptr) {
        char* save = nullptr;
        const char* path = strtok_r(line, " ", &save);
        lum_strlcpy(strDevPath, path != nullptr ? path : "", sizeof(strDevPath));
        mptpDevNr = parse_slot(strtok_r(nullptr, " ", &save));
        baseDevice = true;
    } else {
        snprintf(strDevPath, sizeof(strDevPath), "/dev/%s", line);
        baseDevice = strlen(line) == 3;
    }
    p = put_string(p, DEVICENODE, strDevPath);

    if (baseDevice)
        p = put_byte(p, DEVICCONN, static_cast<unsigned char>(get_dev_connection_type(strDevPath) & 0xff));

    // The name comes from the kernel or the driver: it goes into the
    // command lines escaped, and a name that cannot be escaped probes nothing.
    char quoted[2 * kDevPathLen];
    const char* q = shell_escape_dq(strDevPath, quoted, sizeof(quoted)) >= 0 ? quoted : nullptr;
    p = put_mount_elements(p, strDevPath, q);
    p = put_label_element(p, strDevPath, q);
    p = put_u32(p, DEVICESIZE, determine_dev_size(strDevPath));

    if (baseDevice) {
        int n = add_dev_info(strDevPath, mptpDevNr, p);
        if (n > 0) {
            trace_dev_info(p, n);
            p += n;
        }
    }
    size_t size = static_cast<size_t>(p - entry);
    entry[2] = static_cast<unsigned char>((size - DEV_TAB_ELEMENT_HEADER) >> 8);
    entry[3] = static_cast<unsigned char>(size - DEV_TAB_ELEMENT_HEADER);
    return size;
}

// One table build at a time: the mount runs of the service thread and of the
// format thread both rebuild it. The scratch forms are the build's own, kept
// here rather than on the stack (32 rows are 31 KB) and guarded by the lock.
std::mutex g_devTableBuildLock;
unsigned char g_buildTab[STORAGE_DEV_TAB_BUF_SIZE];
SConnectedDevice g_buildRows[STORAGE_MAX_CONNECTED_DEVICES];

}  // namespace

unsigned long crc32_be(unsigned long crc, const unsigned char* p, unsigned long len)
{
    uint32_t reg = static_cast<uint32_t>(crc);
    for (unsigned long i = 0; i < len; ++i) {
        reg ^= static_cast<uint32_t>(p[i]) << 24;
        for (int bit = 0; bit < 8; ++bit)
            reg = (reg & 0x80000000u) != 0 ? (reg << 1) ^ 0x04C11DB7u : reg << 1;
    }
    return reg;
}

bool get_dev_serial_nr(const char* pDeviceName, int mptpDevNr, char* pSerial, unsigned long aSerialBufLen)
{
    if (pDeviceName == nullptr || pSerial == nullptr || aSerialBufLen == 0)
        return false;
    int size = aSerialBufLen > INT_MAX ? INT_MAX : static_cast<int>(aSerialBufLen);
    pSerial[0] = '\0';
    int rc;
    if (strncmp(pDeviceName, "VEN", 3) == 0) {
        rc = line_read_from_file(pSerial, size, "/proc/driver/mptp/%d/id", mptpDevNr);
    } else {
        const char* dev = strlen(pDeviceName) >= 5 ? pDeviceName + 5 : "";
        char path[256];
        // An empty answer would make the relative name "serial": no USB device.
        if (!get_dev_sys_path(dev, path, sizeof(path)) || path[0] == '\0') {
            SLOGE("[%s, %d] ***E: GetDevSysPath() returned with error\n");
            return false;
        }
        rc = line_read_from_file(pSerial, size, "%sserial", path);
    }
    return rc > 0;
}

int add_dev_info(const char* pDeviceName, int mptpDevNr, unsigned char* pSendBuf)
{
    if (pDeviceName == nullptr || pSendBuf == nullptr ||
        (strncmp(pDeviceName, "VEN", 3) != 0 && strncmp(pDeviceName, "/dev/sd", 7) != 0)) {
        SLOGE("[%s, %d] ***E: invalid parameter: '%s'\n", pDeviceName != nullptr ? pDeviceName : "");
        return 0;
    }
    AS_HD_DISK_TYPE devconn = get_dev_connection_type(pDeviceName);
    char vendor[DEV_INFO_READ_LEN], model[DEV_INFO_READ_LEN];
    read_vendor_and_model(devconn, pDeviceName, mptpDevNr, vendor, model);
    unsigned char* p = pSendBuf;
    p = put_string(p, VENDOR, vendor);
    p = put_string(p, MODEL, model);

    char serial[DEV_INFO_READ_LEN];
    if (!get_dev_serial_nr(pDeviceName, mptpDevNr, serial, sizeof(serial))) {
        SLOGE("[%s, %d] ***E: get_dev_serial_nr() returned error!\n");
        return 0;
    }
    p = put_string(p, SERIALNR, serial);
    // The device id is the checksum of the serial number, NUL not counted.
    unsigned long id = crc32_be(0, reinterpret_cast<const unsigned char*>(serial), strlen(serial));
    p = put_u32(p, DEVICEID, static_cast<uint32_t>(id));
    return static_cast<int>(p - pSendBuf);
}

int get_dev_table_callback(void* context, char* line)
{
    auto* cursor = static_cast<SDevTabCursor*>(context);
    if (cursor == nullptr || cursor->pos == nullptr || cursor->end == nullptr) {
        SLOGE("[%s, %d] Param context is null!\n");
        return -1;
    }
    if (line == nullptr)
        return 0;
    // The table is full: later devices are counted, not probed, so that the
    // table stays the devices in order up to the first that did not fit.
    if (cursor->dropped > 0) {
        ++cursor->dropped;
        return 0;
    }
    unsigned char entry[kEntryMax];
    size_t size = build_dev_entry(line, entry);
    if (cursor->pos > cursor->end || size > static_cast<size_t>(cursor->end - cursor->pos)) {
        cursor->dropped = 1;
        return 0;
    }
    memcpy(cursor->pos, entry, size);
    cursor->pos += size;
    return 0;
}

void StorageManagerService::GetDevTable()
{
    // Probes and parsing run on the build's own forms without m_DevTableLock,
    // so readers are never kept waiting for shell commands; the new snapshot
    // replaces the old one in a single step below.
    std::lock_guard<std::mutex> build(g_devTableBuildLock);
    memset(g_buildTab, 0, sizeof(g_buildTab));
    SDevTabCursor cursor = {g_buildTab + 1, g_buildTab + sizeof(g_buildTab), 0};
    parse_output_lines(get_dev_table_callback, &cursor, kBlockProbe);
    parse_output_lines(get_dev_table_callback, &cursor, kMtpProbe);
    if (cursor.dropped > 0)
        SLOGW("[%s, %d] ***W: dev table full - %d devices left out\n", cursor.dropped);

    int len = static_cast<int>(cursor.pos - g_buildTab);
    memset(g_buildRows, 0, sizeof(g_buildRows));
    int count = parse_dev_table(g_buildTab + 1, len - 1, g_buildRows, STORAGE_MAX_CONNECTED_DEVICES);

    std::lock_guard<std::mutex> hold(m_DevTableLock);
    memcpy(m_DevTabBuf, g_buildTab, sizeof(m_DevTabBuf));
    m_DevTabBufLen = len;
    memcpy(m_ConnectedDevice, g_buildRows, sizeof(m_ConnectedDevice));
    m_DeviceCnt = count;
}

void StorageManagerService::trace_dev_table(const unsigned char* buf, int len)
{
    // Parses beside the published rows (labels are probed on the way), then
    // replaces them. The build lock keeps a table build from publishing in
    // between, and makes reading m_DevTabBuf itself safe here.
    std::lock_guard<std::mutex> build(g_devTableBuildLock);
    memset(g_buildRows, 0, sizeof(g_buildRows));
    int count = parse_dev_table(buf, len, g_buildRows, STORAGE_MAX_CONNECTED_DEVICES);

    std::lock_guard<std::mutex> hold(m_DevTableLock);
    memcpy(m_ConnectedDevice, g_buildRows, sizeof(m_ConnectedDevice));
    m_DeviceCnt = count;
}

void StorageManagerService::GetDevInfo(const unsigned char* buf, int len)
{
    const char* name = reinterpret_cast<const char*>(buf);
    SLOGD("[%s, %d] device: '%s' (len=%d)\n", name != nullptr ? name : "", len);
    // Status byte, then the elements; probed before m_SendBuf is taken.
    unsigned char reply[1 + DEV_INFO_MAX_LEN];
    reply[0] = 0;
    int mptpDevNr = GetMtpDeviceNr(name);
    int n = add_dev_info(name, mptpDevNr, reply + 1);
    int payloadLen;
    if (n < 1) {
        reply[0] = 1;
        payloadLen = 1;
    } else {
        trace_dev_info(reply + 1, n);
        payloadLen = n + 1;
    }
    std::lock_guard<std::mutex> hold(m_SendBufLock);
    memcpy(m_SendBuf, reply, static_cast<size_t>(payloadLen));
    NotifyToStorageManager(LUM_TV_EVT_STORAGE_GET_DEV_INFO, m_SendBuf, payloadLen);
}

void handle_get_volume(StorageManagerService& s, CNorvMsg*, StorageManagerAction_t* action)
{
    if (action == nullptr)
        return;
    // The record's text is terminated by the hub; a full field is cut here
    // so that nothing reads past it.
    char name[STORAGE_ACTION_TEXT_LEN + 1];
    size_t n = strnlen(reinterpret_cast<const char*>(action->buf1), sizeof(action->buf1));
    memcpy(name, action->buf1, n);
    name[n] = '\0';
    s.GetDevInfo(reinterpret_cast<const unsigned char*>(name), static_cast<int>(n));
}
