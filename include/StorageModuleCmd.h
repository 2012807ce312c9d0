// Command codes of the storage module. The command word is the first int32
// of every request Parcel.
#pragma once

#include "StorageCmdList.h"

typedef enum {
    STORAGE_MODULE_FS = 4096,
    STORAGE_MODULE_BUTT = 4097,
} STORAGE_MODULE_E;

// The group of a command word.
#define STORAGE_MODULE_MASK 0xff000u

typedef enum {
#define LUM_STORAGE_CMD_ENUM(name, value, request, reply) name = value,
    LUM_STORAGE_CMD_LIST(LUM_STORAGE_CMD_ENUM)
#undef LUM_STORAGE_CMD_ENUM
} STORAGE_CMD_E;

static_assert(STORAGE_FS_REMOVE == 4097 && STORAGE_VOLD_BUTT == 4156, "command codes run from 4097 to 4156");
