// Records of connected devices and mounted volumes, sent as images of the
// structures in the host's byte order.
#pragma once

#include <cstddef>
#include <cstdint>

typedef int LUM_BOOL;
#define LUM_FALSE 0
#define LUM_TRUE 1

// One row of the connected-device list: a disk, a partition or an MTP/PTP
// device. 984 bytes.
typedef struct {
    char devName[30];           // device path or MTP device id
    char mountPoint[100];       // empty if not mounted
    char fsType[20];            // "ntfs" for fuseblk and ufsd volumes
    unsigned char devConnectionType;  // AS_HD_DISK_TYPE; 0 on partition rows
    char devVendor[256];
    char devModel[256];
    char devSerialNr[256];
    uint64_t devId;             // upper half 0
    uint64_t devSize;           // MB of 2^20 bytes, upper half 0
    uint64_t devUsedSize;       // MB, upper half 0
    char volumeName[32];        // label
    LUM_BOOL pvrDirFound;       // always LUM_FALSE
} SConnectedDevice;

static_assert(offsetof(SConnectedDevice, devConnectionType) == 150, "SConnectedDevice layout");
static_assert(offsetof(SConnectedDevice, devSerialNr) == 663, "SConnectedDevice layout");
static_assert(offsetof(SConnectedDevice, devId) == 920, "SConnectedDevice layout");
static_assert(offsetof(SConnectedDevice, volumeName) == 944, "SConnectedDevice layout");
static_assert(offsetof(SConnectedDevice, pvrDirFound) == 976, "SConnectedDevice layout");
static_assert(sizeof(SConnectedDevice) == 984, "SConnectedDevice is 984 bytes");

// Payload of LUM_TV_EVT_STORAGE_DEV_MOUNT: one volume just mounted. 154 bytes.
#pragma pack(push, 1)
typedef struct {
    uint16_t u16LabelLen;       // bytes of label, NUL not counted
    char mountPoint[100];
    char label[32];             // UTF-8 for FAT
    char fsType[20];            // as mount reports it: "vfat", "ext4", "fuseblk"
} SStorageHotPlugInfo;
#pragma pack(pop)

static_assert(sizeof(SStorageHotPlugInfo) == 154, "SStorageHotPlugInfo is 154 bytes");
static_assert(offsetof(SStorageHotPlugInfo, label) == 102, "SStorageHotPlugInfo layout");
static_assert(offsetof(SStorageHotPlugInfo, fsType) == 134, "SStorageHotPlugInfo layout");
