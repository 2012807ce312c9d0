// Signal ids carried by framework messages, and their names for traces.
#pragma once

#include "SignalList.h"

typedef enum {
#define SIGNAL_ID_ENUM(name, value) name = value,
    SIGNAL_ID_LIST(SIGNAL_ID_ENUM)
#undef SIGNAL_ID_ENUM
} SignalIds;

static_assert(SIG_ID_FILESYS_CHECK_MASS_STORAGE_TOSV == 577, "the storage block starts at 577");
static_assert(SIG_ID_STORAGE_SHUTDOWN == 622 && SIG_ID_MAX == 623, "the storage block ends at 622");

// The name of a signal id; "SIG_ID_NULL" for anything outside 0..622.
const char* GetSignalIdNamePtr(SignalIds id);
