// The payload of a service signal that the hub posts: one record per command,
// allocated with malloc and released by CNorvMsg::FreeSignal on the service
// thread.
#pragma once

#include <cstddef>
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

// The same layout on every ABI built for: the fields are fixed-width.
static_assert(offsetof(StorageManagerAction_t, intValue1) == 4, "StorageManagerAction_t layout");
static_assert(offsetof(StorageManagerAction_t, ushortValue1) == 8, "StorageManagerAction_t layout");
static_assert(offsetof(StorageManagerAction_t, buf1) == 10, "StorageManagerAction_t layout");
static_assert(offsetof(StorageManagerAction_t, buf2) == 110, "StorageManagerAction_t layout");
static_assert(sizeof(StorageManagerAction_t) == 212, "StorageManagerAction_t is 212 bytes");
