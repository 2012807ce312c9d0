// Helpers for the host tests: temporary directories, a server on a fake
// service, raw protocol clients and running code as another user.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "lumhost/server.h"
#include "lumproto/frame_io.h"

namespace hosttest {
struct TempDir {
    std::string path;
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
};

// A server on fakesvc::invoke in a temporary directory, with EMAL_Notify routed to it.
struct TestServer {
    TempDir dir;
    lumhost::HostConfig config;
    lumhost::HostServer* server = nullptr;
    TestServer();
    ~TestServer();
    // 0 or -errno.
    int start();
};

int connect_to(const std::string& path);

// Closes its descriptor when it goes.
struct Fd {
    int fd;
    explicit Fd(int f) : fd(f) {}
    ~Fd();
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
};
bool send_bytes(int fd, const std::vector<uint8_t>& bytes);

// Header (built with the codec) and payload.
std::vector<uint8_t> frame(uint16_t type, const std::vector<uint8_t>& payload,
                           uint16_t version = lumproto::kVersion);
// A REQUEST frame: the word, then more bytes.
std::vector<uint8_t> request_frame(int32_t word, const std::vector<uint8_t>& more = {});
std::vector<uint8_t> le32(int32_t value);

struct Frame {
    lumproto::ReadStatus status;
    lumproto::FrameHeader header;
    std::vector<uint8_t> payload;
};

// The next frame, waiting at most timeout_ms for it (kTimeout otherwise).
Frame next_frame(int fd, int timeout_ms = 5000);
// The next frame that is not an EVENT or DROPPED.
Frame next_non_event(int fd, int timeout_ms = 5000);
// True when the peer closes within timeout_ms; bytes counts what came first.
bool closed_within(int fd, int timeout_ms, size_t* bytes);

// Runs fn in a child process with the given ids (as root) and returns its exit code, or -1 when the child did
// not exit normally. prepare runs in the child before the ids change (a non-zero result is the exit code).
int run_as(uid_t uid, gid_t gid, const std::function<int()>& fn, const std::function<int()>& prepare = nullptr);

}  // namespace hosttest
