// Handlers of the service signals, one concept per file; the dispatcher's
// table in StorageManagerService.cpp names them.
#pragma once

#include "StorageManagerService.h"

// HddPower.cpp
void handle_start_hdd(StorageManagerService& service, CNorvMsg* msg, StorageManagerAction_t* action);
void handle_shutdown(StorageManagerService& service, CNorvMsg* msg, StorageManagerAction_t* action);

// VolumeQuery.cpp
void handle_get_allocate_bytes(StorageManagerService& service, CNorvMsg* msg, StorageManagerAction_t* action);
void handle_get_volumes(StorageManagerService& service, CNorvMsg* msg, StorageManagerAction_t* action);
void handle_get_uuid_for_path(StorageManagerService& service, CNorvMsg* msg, StorageManagerAction_t* action);
void handle_hdd_get_size(StorageManagerService& service, CNorvMsg* msg, StorageManagerAction_t* action);
void handle_get_partition_use(StorageManagerService& service, CNorvMsg* msg, StorageManagerAction_t* action);

// MountEngine.cpp, UnmountEngine.cpp
void handle_plug_in(StorageManagerService& service, CNorvMsg* msg, StorageManagerAction_t* action);
void handle_mount(StorageManagerService& service, CNorvMsg* msg, StorageManagerAction_t* action);
void handle_plug_out(StorageManagerService& service, CNorvMsg* msg, StorageManagerAction_t* action);
void handle_unmount(StorageManagerService& service, CNorvMsg* msg, StorageManagerAction_t* action);

// ../device/DevTable.cpp
void handle_get_volume(StorageManagerService& service, CNorvMsg* msg, StorageManagerAction_t* action);

// ../format/Format.cpp
void handle_format(StorageManagerService& service, CNorvMsg* msg, StorageManagerAction_t* action);
void handle_format_timeout(StorageManagerService& service, CNorvMsg* msg, StorageManagerAction_t* action);
void handle_set_all_partition(StorageManagerService& service, CNorvMsg* msg, StorageManagerAction_t* action);

// ../format/Benchmark.cpp
void handle_benchmark(StorageManagerService& service, CNorvMsg* msg, StorageManagerAction_t* action);
void handle_cancel_benchmark(StorageManagerService& service, CNorvMsg* msg, StorageManagerAction_t* action);
void handle_benchmark_progress(StorageManagerService& service, CNorvMsg* msg, StorageManagerAction_t* action);

// ../device/PvrMark.cpp
void handle_pvr_mark_dev(StorageManagerService& service, CNorvMsg* msg, StorageManagerAction_t* action);

// ../file/ReadDir.cpp, ../file/Cover.cpp
void handle_read_dirs(StorageManagerService& service, CNorvMsg* msg, StorageManagerAction_t* action);
void handle_extract_cover(StorageManagerService& service, CNorvMsg* msg, StorageManagerAction_t* action);

// ../file/CopyThread.cpp
void handle_copy(StorageManagerService& service, CNorvMsg* msg, StorageManagerAction_t* action);

// ../file/FileDirs.cpp, ../file/FileProtectCmd.cpp
void handle_get_dir_size(StorageManagerService& service, CNorvMsg* msg, StorageManagerAction_t* action);
void handle_set_protected(StorageManagerService& service, CNorvMsg* msg, StorageManagerAction_t* action);
