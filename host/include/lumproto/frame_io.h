// Reading and writing whole frames on a connected stream socket.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "lumproto/frame.h"

namespace lumproto {

enum class ReadStatus {
    kOk,
    kEof,         // the peer closed before the first header byte
    kTruncated,   // the peer closed inside a frame
    kTimeout,     // a started frame did not complete in time
    kBadVersion,  // header read; its version is not kVersion; payload left unread
    kTooLarge,    // header read; its length is above the limit; payload left unread
    kIoError,
};

struct ReadLimits {
    uint32_t max_payload;
    // Once the first byte of a frame arrived, the rest must follow within
    // this many milliseconds; below 0 waits forever. Waiting for the first
    // byte is never limited.
    int frame_timeout_ms;
};

// Reads one frame. The payload buffer grows as bytes arrive, so a header
// that announces a large payload costs no memory until the bytes come.
ReadStatus read_frame(int fd, const ReadLimits& limits, FrameHeader* header,
                      std::vector<uint8_t>* payload);
const char* read_status_name(ReadStatus status);

struct Slice {
    const void* data;
    size_t len;
};

// Writes the header and the parts as one frame; the payload is the parts
// one after the other. Never raises SIGPIPE. Returns 0, or -errno (-EMSGSIZE
// when the payload is above kMaxPayload).
int write_frame(int fd, uint16_t type, const Slice* parts, size_t count);
int write_frame(int fd, uint16_t type, const void* data, size_t len);

// Waits until fd is readable: 1, 0 on timeout, -errno on failure. A
// timeout below 0 waits forever.
int wait_readable(int fd, int timeout_ms);

}  // namespace lumproto
