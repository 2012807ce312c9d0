// Entry of the storage service library.
#pragma once

extern "C" {
// Starts the service: trace, debug shell, timer thread, the service thread
// and the hot-plug watcher. Call once. Returns 0 in every case; failures on
// the way are logged and start-up goes on.
int StorageSystemInit(void);
}
