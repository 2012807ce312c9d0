// The answer of the file operations: one result byte in an event, 0 for
// success.
#pragma once

#include "StorageManagerService.h"

// Sends result as the one-byte payload of event; true if it is 0.
inline bool send_file_result(StorageManagerService& s, LUM_EM_TYPE_E event, unsigned char result)
{
    s.NotifyToStorageManager(event, &result, 1);
    return result == 0;
}
