// The storage commands as one list: X(name, value, request, reply).
//
// request: the fields behind the command word, one letter each:
//   s cstring, i int32, u uint32, l int64, b bool, c char,
//   r raw bytes, as many as the int32 just before them says.
// reply: what the reply Parcel holds when the command is handled:
//   "" nothing; b bool; s cstring; l int64; u uint32; i int32;
//   "i>s" int32, then a cstring if the int32 is above 0;
//   "i<i" int32, then an int32 error number if the first is negative;
//   "iG" int32, then the 63000-byte guide record as raw bytes;
//   "R" int32 count; if it is 0 or more the count again and that many raw
//       bytes, else an int32 error number.
// Rows whose operation is not built yet answer nothing; the service's own
// table says which rows it serves.
#pragma once

#define LUM_STORAGE_CMD_LIST(X) \
    X(STORAGE_FS_REMOVE, 4097, "", "") \
    X(STORAGE_FS_COPY, 4098, "", "") \
    X(STORAGE_GET_ALLOCATE_BYTES, 4099, "s", "b") \
    X(STORAGE_GET_CACHE_QUOTA_BYTES, 4100, "", "") \
    X(STORAGE_GET_DEVICE_SIZE, 4101, "si", "b") \
    X(STORAGE_GET_PARTITION_USE, 4102, "si", "b") \
    X(STORAGE_GET_CACHE_SIZE_BYTES, 4103, "", "") \
    X(STORAGE_GET_PRIMARY_STORAGE_VOLUME, 4104, "", "") \
    X(STORAGE_GET_STORAGE_VOLUME, 4105, "s", "b") \
    X(STORAGE_GET_STORAGE_VOLUMES, 4106, "", "b") \
    X(STORAGE_GET_UUID_FOR_PATH, 4107, "s", "b") \
    X(STORAGE_IS_ENCRYPTED, 4108, "", "b") \
    X(STORAGE_DEV_MOUNT, 4109, "s", "b") \
    X(STORAGE_DEV_UMOUNT, 4110, "s", "b") \
    X(STORAGE_DEV_FORMAT, 4111, "s", "b") \
    X(STORAGE_DEV_BENCHMARK, 4112, "s", "b") \
    X(STORAGE_DEV_CANCEL_BENCHMARK, 4113, "", "b") \
    X(STORAGE_SET_ALL_PARTITION, 4114, "si", "b") \
    X(STORAGE_PARTITION_PRIVATE, 4115, "", "b") \
    X(STORAGE_PARTITION_MIXED, 4116, "", "b") \
    X(STORAGE_PARTITION_FS_TYPE, 4117, "s", "s") \
    X(STORAGE_WIPE_ADOPTABLE_DISKS, 4118, "", "b") \
    X(STORAGE_SET_VOLUME_INITED, 4119, "", "b") \
    X(STORAGE_GET_VOLUME_STATE, 4120, "", "b") \
    X(STORAGE_GET_STORAGE_LOW_BYTES, 4121, "", "b") \
    X(STORAGE_GET_STORAGE_FULL_BYTES, 4122, "", "b") \
    X(STORAGE_PARTITION_TOTAL_SIZE, 4123, "s", "l") \
    X(STORAGE_PARTITION_USED_SIZE, 4124, "s", "l") \
    X(STORAGE_PVR_DEV_STATE, 4125, "", "b") \
    X(STORAGE_SET_PVR_DEV_SIZE_LIMIT, 4126, "u", "") \
    X(STORAGE_GET_PVR_DEV_SIZE_LIMIT, 4127, "", "u") \
    X(STORAGE_PVR_DISK_TOTAL, 4128, "s", "l") \
    X(STORAGE_PVR_MARK_DEV, 4129, "sb", "b") \
    X(STORAGE_PVR_MOUNT_PATH, 4130, "", "s") \
    X(STORAGE_PVR_DEV_AVAILABLE, 4131, "s", "i") \
    X(STORAGE_PVR_GET_DEV_GUIDE_INFO, 4132, "", "iG") \
    X(STORAGE_READ_DIRS, 4133, "sil", "b") \
    X(STORAGE_DELETE_DIR, 4134, "sii", "b") \
    X(STORAGE_DELETE_FILE, 4135, "si", "b") \
    X(STORAGE_GET_DIR_SIZE, 4136, "s", "b") \
    X(STORAGE_COPY, 4137, "si", "b") \
    X(STORAGE_COPY_FILE, 4138, "ss", "b") \
    X(STORAGE_COPY_DIRS, 4139, "ss", "b") \
    X(STORAGE_RENAME_FILE, 4140, "ssb", "b") \
    X(STORAGE_CREATE_DIR, 4141, "si", "b") \
    X(STORAGE_WRITE_FILE, 4142, "sir", "b") \
    X(STORAGE_SET_PROTECTED, 4143, "s", "b") \
    X(STORAGE_EXTRACT_COVER, 4144, "ss", "b") \
    X(STORAGE_START_HDD, 4145, "", "b") \
    X(STORAGE_SHUTDOWN, 4146, "c", "b") \
    X(STORAGE_LUM_EXE_SYS_CMD, 4147, "is", "i") \
    X(STORAGE_LUM_EXE_SYS_CMD_RET, 4148, "s", "i>s") \
    X(STORAGE_LUM_CHMOD, 4149, "si", "i<i") \
    X(STROAGE_LUM_OPEN, 4150, "sii", "i<i") \
    X(STROAGE_LUM_CLOSE, 4151, "i", "i<i") \
    X(STROAGE_LUM_READ, 4152, "ii", "R") \
    X(STROAGE_LUM_WRITE, 4153, "iir", "i<i") \
    X(STROAGE_LUM_MOVE, 4154, "ssb", "b") \
    X(STORAGE_LUM_SYNC, 4155, "i", "b") \
    X(STORAGE_VOLD_BUTT, 4156, "", "")
