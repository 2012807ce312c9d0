// Event ids of the storage service, as sent through EMAL_Notify.
#pragma once

#include "StorageEventList.h"

typedef int LUM_EM_TYPE_E;

typedef enum {
#define LUM_STORAGE_EVENT_ENUM(name, value) name = value,
    LUM_STORAGE_EVENT_LIST(LUM_STORAGE_EVENT_ENUM)
#undef LUM_STORAGE_EVENT_ENUM
} ELUM_EM_TYPE_STORAGE_E;

static_assert(LUM_TV_EVT_STORAGE_BUTT == 1507367, "event ids run from 1507329 to 1507367");
