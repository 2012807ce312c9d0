// The requests of the file subcommands, built field by field in Parcel
// layout, with the limits the service sets checked before anything is
// sent. Each builder returns 0 with the request (command word first) in
// out, or -1 with a message in error and out untouched.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace lumctl {

using Bytes = std::vector<uint8_t>;

// Posted commands keep a text in a field of 100 bytes: 99 and its NUL.
constexpr size_t kPostedTextMax = 99;
// The copy engine takes at most 256 bytes of each path of its block, and
// the block of a copy request is at most 1024 bytes.
constexpr size_t kCopyPathMax = 256;
constexpr size_t kCopyBlockMax = 1024;
// Rename and move pack flag, source, NUL, destination and NUL into 512
// bytes: strlen(src) + strlen(dst) + 3 must not exceed it.
constexpr size_t kPackedPathsMax = 512;
// The service refuses a command of this many bytes or more (-1).
constexpr size_t kSysCommandMax = 512;
// The capturing command form answers at most this many bytes of output.
constexpr size_t kCaptureMax = 1024;

// Delete modes of STORAGE_DELETE_DIR.
constexpr int32_t kDeleteEmptyDir = 1;  // rmdir
constexpr int32_t kDeleteTree = 2;      // rm -rf
// Type bytes of STORAGE_COPY; kCopyPlain sends none, which means a file.
constexpr int kCopyPlain = -1;
constexpr int kCopyRecording = 1;

// STORAGE_CREATE_DIR: cstring path, int32 strlen + 1.
int build_create_dir(const std::string& path, Bytes* out, std::string* error);

// STORAGE_DELETE_FILE: cstring path, int32 strlen + 1, and for a recording
// an int32 flag 1 (its low byte is the recording flag: the companions go
// too).
int build_delete_file(const std::string& path, bool recording, Bytes* out, std::string* error);

// STORAGE_DELETE_DIR: cstring path, int32 mode, int32 strlen + 1.
int build_delete_dir(const std::string& path, int32_t mode, Bytes* out, std::string* error);

// STORAGE_SET_PROTECTED: one cstring, mode byte (2 protect, 1 lift) then
// the path, at most kPostedTextMax - 1 bytes.
int build_set_protected(const std::string& path, bool protect, Bytes* out, std::string* error);

// STORAGE_COPY: cstring src, int32 len, then len raw bytes: src NUL dst NUL
// [type byte], paths of at most kCopyPathMax bytes. The service takes the
// cstring whole when the raw bytes follow it. A tree copy is one whose src
// ends in "/".
int build_copy(const std::string& src, const std::string& dst, int type, Bytes* out, std::string* error);
// The cancel: the empty cstring and len 0, no block.
int build_copy_cancel(Bytes* out, std::string* error);

// STORAGE_COPY_FILE, or STORAGE_COPY_DIRS for a tree: cstring src, cstring
// dst, copied on the caller's thread.
int build_copy_direct(const std::string& src, const std::string& dst, bool tree, Bytes* out, std::string* error);

// STORAGE_RENAME_FILE / STROAGE_LUM_MOVE (word): cstring src, cstring dst,
// bool recording; refused when they do not fit kPackedPathsMax.
int build_packed_paths(int32_t word, const std::string& src, const std::string& dst, bool recording, Bytes* out,
                       std::string* error);

// STORAGE_WRITE_FILE: cstring path, int32 size of data, the data (padded).
int build_write_file(const std::string& path, const Bytes& data, Bytes* out, std::string* error);

// STORAGE_LUM_EXE_SYS_CMD: int32 strlen, cstring command (refused at
// kSysCommandMax bytes); with capture STORAGE_LUM_EXE_SYS_CMD_RET: the
// cstring alone.
int build_exec(const std::string& command, bool capture, Bytes* out, std::string* error);

// STROAGE_LUM_WRITE: int32 fd, int32 size of data, the data (padded).
int build_fd_write(int32_t fd, const Bytes& data, Bytes* out, std::string* error);

// open(2) flags from "O_RDONLY|O_CREAT" (names with or without O_, any
// case; this machine's values, which are the daemon's) or a number (0x hex,
// leading 0 octal). False when a part is neither.
bool parse_open_flags(const std::string& text, int32_t* out);
// A mode in octal, 0 to 07777 ("644", "0755").
bool parse_mode(const std::string& text, int32_t* out);

// Reads all of FILE, or standard input for "-", up to the frame limit.
int read_data(const std::string& file, FILE* in, Bytes* out, std::string* error);

}  // namespace lumctl
