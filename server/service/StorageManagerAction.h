// The payload of a service signal that the hub posts: one record per command,
// allocated with malloc and released by CNorvMsg::FreeSignal on the service
// thread.
#pragma once

#include <cstdint>

#define STORAGE_ACTION_TEXT_LEN 100

typedef struct {
    bool boolValue1;             // flag of the command
    bool boolValue2;             // not used
    int32_t intValue1;           // length or size of the command
    uint16_t ushortValue1;       // command tag of a listing
    unsigned char buf1[STORAGE_ACTION_TEXT_LEN];  // first text, NUL-terminated
    unsigned char buf2[STORAGE_ACTION_TEXT_LEN];  // second text, NUL-terminated
} StorageManagerAction_t;
