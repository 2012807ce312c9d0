// Formatting: the table of file-system tools, the reply of SetAllPartitions,
// and the busy flag m_FormatDev, which the service thread and the format
// thread share only through the functions below.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

class StorageManagerService;

// One row of the format table. Only fstype and format are used; format takes
// the device path for its one "%s".
typedef struct {
    const char* fstype;
    const char* typecode;
    const char* guid;
    const char* name;
    const char* format;
} GuidPartitionInfo;

// The row whose fstype equals the argument exactly, or null.
const GuidPartitionInfo* GetPartitionInfo(const char* fstype);

// retVal of the LUM_TV_EVT_STORAGE_SET_ALL_PARTITION reply.
#define SET_ALL_PARTITION_OK 0
#define SET_ALL_PARTITION_NO_TABLE_ROW 4
#define SET_ALL_PARTITION_TOOL_FAILED 5

// Writes the reply into out: retVal, the name with its NUL, and on success
// the size in MB and three zero words, all big-endian. Returns its length
// (1 + n, or 17 + n on success, n counting the NUL), or 0 when out is too
// small.
size_t build_set_all_partition_reply(unsigned char* out, size_t size, int retVal, const char* name,
                                     uint32_t sizeMB);

// The busy flag. format_claim takes it for volume and arms the watchdog, in
// one step, unless a format holds it; then it answers false and names the
// running volume in *running. format_release gives it back, and stops the
// watchdog, only if volume still holds it: a thread that was started for an
// empty name never owned it and must not end someone else's format.
bool format_claim(StorageManagerService& service, const std::string& volume, std::string* running);
void format_release(StorageManagerService& service, const std::string& volume);
// A copy of m_FormatDev, empty when no format runs.
std::string format_running_volume(StorageManagerService& service);
// Format threads started and not yet ended (at most one holds the flag).
int format_threads_alive();
