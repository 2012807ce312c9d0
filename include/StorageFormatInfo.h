// Payload of LUM_TV_EVT_STORAGE_FORMAT, sent as an image of the structure in
// the host's byte order.
#pragma once

#include <cstddef>

#define STORAGE_FORMAT_DEVNAME_LEN 30

typedef struct {
    char devName[STORAGE_FORMAT_DEVNAME_LEN];  // NUL-terminated, at most 29 characters
    unsigned char reserved[2];
    unsigned int result;                       // -2 busy, -3 timeout, or the format's result
} SStorageFormatInfo;

#define STORAGE_FORMAT_RESULT_BUSY ((unsigned int)-2)
#define STORAGE_FORMAT_RESULT_TIMEOUT ((unsigned int)-3)

static_assert(sizeof(SStorageFormatInfo) == 36, "SStorageFormatInfo is 36 bytes");
static_assert(offsetof(SStorageFormatInfo, devName) == 0, "SStorageFormatInfo layout");
static_assert(offsetof(SStorageFormatInfo, reserved) == 30, "SStorageFormatInfo layout");
static_assert(offsetof(SStorageFormatInfo, result) == 32, "result at offset 32");
static_assert(sizeof(unsigned int) == 4, "result is 4 bytes on every ABI built for");
