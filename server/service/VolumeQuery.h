// Sizes of devices and volumes in MB of 2^20 bytes, from df for mounted
// volumes and from the kernel for other block devices.
#pragma once

#include <cstdint>

typedef struct _DETERMINE_DEV_SIZE_CALLBACK_DATA {
    const char* devname;
    uint32_t total;
    uint32_t used;
    uint32_t available;
} DETERMINE_DEV_SIZE_CALLBACK_DATA;

// Line handler for `df -Pm`: 1 when the line is devname's, 0 for another
// device, -1 for a malformed line.
int determine_dev_size_callback(void* context, char* line);
// Fills d from df's line of devname under the mount tree; zeros if none.
void get_dev_usage(const char* devname, DETERMINE_DEV_SIZE_CALLBACK_DATA* d);
uint32_t determine_dev_size1(const char* devname);
// The size df reports, else the block device's own size, else 0.
uint32_t determine_dev_size(const char* devname);
// The used size df reports, else 0.
uint32_t determine_dev_used_size(const char* devname);
