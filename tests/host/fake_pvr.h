// PVR and format commands of the fake service: canned replies and event
// sequences built by hand from the layouts, so lumstoragectl's pvr and
// format subcommands can be tested without the real service.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "fake_devices.h"

namespace fakesvc {

// The fake's PVR state; reset_pvr() restores the defaults given here.
extern std::atomic<bool> g_pvr_present;      // true: the PVR partition is kPvrPath
extern std::atomic<int32_t> g_guide_event;   // E_PLUGIN_EVENT of the guide answer (BUTT)
extern std::atomic<uint32_t> g_size_limit;   // MB (4096)
extern std::atomic<bool> g_pvr_enabled;      // recording or timeshift is on (true)
void reset_pvr();

constexpr const char kPvrPath[] = "/mnt/pvr/shared/sdb1";
constexpr const char kBenchPath[] = "/mnt/pvr/shared/sdb2";

// The canned answers:
//   PVR_DEV_STATE / PVR_MOUNT_PATH: g_pvr_present and kPvrPath (or "").
//   PVR_DEV_AVAILABLE: by disk, "sdb" 0, "small" 1, "ntfs" 2, "nomount" 3,
//     "noid" 4, "" 5, "odd" 9, anything else 2.
//   PVR_DISK_TOTAL: "sdb" 29822 MB, anything else 0.
//   GET/SET_PVR_DEV_SIZE_LIMIT: g_size_limit; a set takes a value of 1800 or
//     more that differs, while g_pvr_enabled.
//   PVR_GET_DEV_GUIDE_INFO: result 0 and a record for g_guide_event:
//     timeshift / recording: shown, no partition; format: shown, sdb1;
//     select: shown, sdb1 and sdc1; BUTT: not shown; other numbers: shown.
//   DEV_FORMAT VOLUME: "sdb1" a format that succeeds (1234 MB), with other
//     clients' events between its own; "sdc1" one whose tool fails; "sde1"
//     one that finds no table row; "sdd1" one whose watchdog expires, with a
//     busy answer for another client's request of sdd1, then success;
//     "busy": busy at once; kRefused / kSilent as everywhere; anything
//     else: the result 0 alone.
//   PVR_MARK_DEV DISK FORMAT: with FORMAT the successful format of DISK
//     first; then a verdict for "sdz" and the verdict for DISK (as
//     PVR_DEV_AVAILABLE answers it).
//   DEV_BENCHMARK PATH: progress 1, 50, 75 and 100, then for kBenchPath the
//     figure 4694719 kB/s with 2 processes, for any other path status 19;
//     kRefused / kSilent as everywhere. DEV_CANCEL_BENCHMARK: true.
const Row* pvr_rows(size_t* count);

}  // namespace fakesvc
