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

// The records below reach clients as memory images, so their layout is part
// of the wire: every field's offset is fixed here, the same on the
// television's 32-bit ARM (EABI) and on x86-64. Both align uint64_t on 8
// bytes and make int and enums 4 bytes; an ABI that does otherwise (i386
// aligns uint64_t on 4) stops the build here instead of sending other bytes.
// LUM_AT(T, field, n): field of record T starts at byte n.
#define LUM_AT(T, field, n) static_assert(offsetof(T, field) == (n), #T " layout: " #field " at byte " #n)
LUM_AT(SConnectedDevice, devName, 0); LUM_AT(SConnectedDevice, mountPoint, 30); LUM_AT(SConnectedDevice, fsType, 130);
LUM_AT(SConnectedDevice, devConnectionType, 150); LUM_AT(SConnectedDevice, devVendor, 151);
LUM_AT(SConnectedDevice, devModel, 407); LUM_AT(SConnectedDevice, devSerialNr, 663);
LUM_AT(SConnectedDevice, devId, 920); /* aligned on 8 */ LUM_AT(SConnectedDevice, devSize, 928);
LUM_AT(SConnectedDevice, devUsedSize, 936); LUM_AT(SConnectedDevice, volumeName, 944);
LUM_AT(SConnectedDevice, pvrDirFound, 976);
static_assert(sizeof(SConnectedDevice) == 984, "SConnectedDevice is 984 bytes, 4 of them tail padding");
static_assert(alignof(SConnectedDevice) == 8, "SConnectedDevice rows in an array are 8-aligned");

// Payload of LUM_TV_EVT_STORAGE_DEV_MOUNT: one volume just mounted. 154 bytes.
#pragma pack(push, 1)
typedef struct {
    uint16_t u16LabelLen;       // bytes of label, NUL not counted
    char mountPoint[100];
    char label[32];             // UTF-8 for FAT
    char fsType[20];            // as mount reports it: "vfat", "ext4", "fuseblk"
} SStorageHotPlugInfo;
#pragma pack(pop)

static_assert(sizeof(SStorageHotPlugInfo) == 154, "SStorageHotPlugInfo is 154 bytes, packed");
LUM_AT(SStorageHotPlugInfo, u16LabelLen, 0); LUM_AT(SStorageHotPlugInfo, mountPoint, 2);
LUM_AT(SStorageHotPlugInfo, label, 102); LUM_AT(SStorageHotPlugInfo, fsType, 134);
