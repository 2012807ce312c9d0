// Questions about one block device or partition: its file-system class, its
// USB device in sysfs, its connection, label, UUID and mount path. Each
// answer runs a shell command; nothing is cached or kept.
#pragma once

#define AC_ENCODING_TYPE "GBK"

typedef struct _FS_IDS {
    const char* name;
    int id;
} FS_ID;

extern const FS_ID _fs_ids[10];

#define FS_ID_FAT 0x0B
#define FS_ID_NTFS 0x07
#define FS_ID_EXT 0x83
#define FS_ID_REFUSED (-1)

typedef enum _AS_HD_TYPE {
    AS_HD_DISK_TYPE_NONE = 0,
    AS_HD_DISK_TYPE_UNUSED1 = 1,
    AS_HD_DISK_TYPE_UNUSED2 = 2,
    AS_HD_DISK_TYPE_UNUSED3 = 3,
    AS_HD_DISK_TYPE_HDD_INTERNAL = 4,
    AS_HD_DISK_TYPE_UNUSED4 = 5,
    AS_HD_DISK_TYPE_USB_EXTERNAL = 6,
    AS_HD_DISK_TYPE_PTP = 7,
} AS_HD_DISK_TYPE;

// Strict UTF-8: no overlong forms, no surrogates, nothing above U+10FFFF.
// Null and "" are valid.
bool is_valid_utf8(const char* string);

// The class of a file-system type name: 0x0B FAT, 0x07 NTFS, 0x83 ext, -1
// known but refused (exFAT), 0 unknown. Exact, case-sensitive.
int get_fs_id(const char* name);

// The sysfs directory of the USB device that carries disk pDeviceName (sda),
// with its final '/'. False on bad arguments or when readlink fails.
bool get_dev_sys_path(const char* pDeviceName, char* pDevSysPath, unsigned long aDevSysPathLen);

// PTP for "VEN..." ids; USB_EXTERNAL for a whole disk /dev/sdX with a sysfs
// link; NONE for everything else (partitions included).
AS_HD_DISK_TYPE get_dev_connection_type(const char* dev_path);

// Copies the label of a partition into the zero-filled pLabel (len bytes);
// FAT labels are converted from GBK to UTF-8.
// < 0: no device name, or the command could not run.
//   0: a label was found.
// > 0: no label; the byte count of blkid's output.
int get_label_for_dev_name(const char* pDeviceName, char* pLabel, int len);

// The mount path of device under the shared tree into mount_buf. Returns its
// length, 0 when there is none or it does not fit.
int get_mount_path_of_device(const char* device, char* mount_buf, int buf_size);

// Line handler for `mount` output: copies the type of the first line into
// context (32 bytes). Always returns 1, so only the first line is read.
int get_fs_type_callback(void* context, char* line);

// The device of a file-system UUID into pDevName.
// < 0: no UUID, or the command could not run. 0: found.
// > 0: the byte count of blkid's output; pDevName stays as it was.
int get_dev_name_for_uuid(const char* pStorageUuid, char* pDevName, int devNameLen);

// The device mounted at pMountPoint into the zero-filled pDevName. Returns
// -1 for a null mount point, else the byte count of `mount`'s output: callers
// look at pDevName.
int get_dev_name_for_mount_point(const char* pMountPoint, char* pDevName, int devNameLen);

// The UUID of a device into the zero-filled pUuid.
// < 0: no path, or the command could not run. 0: found.
// > 0: the byte count of blkid's output; no UUID was taken.
int get_uuid_for_dev_name(const char* pPath, char* pUuid, int uuidLen);
