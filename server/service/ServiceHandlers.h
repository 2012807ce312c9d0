// Handlers of the service signals, one concept per file; the dispatcher's
// table in StorageManagerService.cpp names them.
#pragma once

#include "StorageManagerService.h"

// HddPower.cpp
void handle_start_hdd(StorageManagerService& service, CNorvMsg* msg, StorageManagerAction_t* action);
void handle_shutdown(StorageManagerService& service, CNorvMsg* msg, StorageManagerAction_t* action);
