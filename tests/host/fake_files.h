// File commands of the fake service: every request is kept whole for the
// tests to compare byte for byte, and answered with canned replies and
// one-byte result events, so lumstoragectl's file subcommands can be tested
// without the real service.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "fake_devices.h"

namespace fakesvc {

// Paths with a fixed behaviour in every file command.
constexpr const char kRefusedPath[] = "/refuse";   // posted: reply false; direct: not handled (-1, no reply)
constexpr const char kSilentPath[] = "/silent";    // posted: reply true; direct: reply false; no event
constexpr const char kMissingPath[] = "/missing";  // chmod and open: -1, errno ENOENT

// The fake's knobs; reset_files() restores the defaults.
extern std::atomic<int> g_result;         // the result byte of the events, exec's result (0)
extern std::atomic<bool> g_out_of_space;  // a copy sends OUT_OF_SPACE (0x11), then result 1 (false)

constexpr int32_t kOpenFd = 7;  // the descriptor open answers; close, read, write and sync know it
constexpr int32_t kEofFd = 8;   // read answers 0 bytes
constexpr int32_t kBadFd = 9;   // -1 with EBADF everywhere

// The canned answers:
//   CREATE_DIR, DELETE_FILE, DELETE_DIR, RENAME_FILE, LUM_MOVE, WRITE_FILE:
//     another client's MOVE_FILE or RENAME_FILE result first, then the
//     command's event with g_result; reply result == 0 (WRITE_FILE: true).
//   SET_PROTECTED, COPY: reply true (queued), the unrelated event, then the
//     event; a COPY with the empty source (the cancel) sends none.
//   COPY_FILE, COPY_DIRS: reply g_result == 0.
//   LUM_EXE_SYS_CMD: g_result. LUM_EXE_SYS_CMD_RET: "fail" -1; "big" 1024
//     and 1024 x; "nul" 5 and "ab" (the output had a NUL); anything else
//     "ran: CMD\n" and its length.
//   LUM_CHMOD, LUM_OPEN: kMissingPath -1 and ENOENT, else 0 / kOpenFd.
//   LUM_CLOSE, LUM_WRITE: kOpenFd 0 / the byte count; else -1 and EBADF.
//   LUM_READ: kOpenFd up to 5 bytes of "a\0b\xffc"; kEofFd 0; else -1, EBADF.
//   LUM_SYNC: true for kOpenFd.
const Row* file_rows(size_t* count);

// The file commands' request Parcels, whole, in order of arrival.
std::vector<std::vector<uint8_t>> file_requests();
void reset_files();

}  // namespace fakesvc
