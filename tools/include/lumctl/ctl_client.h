// The client side of the lumstoraged protocol.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace lumctl {

// Connects to the daemon's socket. Returns a descriptor, or -errno.
int ctl_connect(const std::string& path);

// Why ctl_connect(path) failed with -err, and what to do about it: "cannot
// connect to PATH (No such file or directory): is lumstoraged running? ...".
std::string connect_error(const std::string& path, int err);

struct CtlReply {
    int32_t result;
    std::vector<uint8_t> bytes;  // the reply Parcel
};

// Sends SUBSCRIBE and waits for SUBSCRIBED. Returns 0 or -1 with error.
int ctl_subscribe(int fd, std::string* error);

struct CtlEvent {
    bool dropped;                // a DROPPED notice: count events were lost
    uint32_t count;
    int32_t id;
    std::vector<uint8_t> data;   // the event's bytes
};

// Sends one REQUEST without waiting for its REPLY. Returns 0 or -1 with error.
int ctl_send_request(int fd, const std::vector<uint8_t>& request, std::string* error);

// A frame of a subscribed connection: the REPLY of a request sent with
// ctl_send_request, or an EVENT / DROPPED notice.
struct CtlIncoming {
    bool is_reply;
    CtlReply reply;   // when is_reply
    CtlEvent event;   // otherwise
};

// Waits up to timeout_ms (below 0: forever) for the next REPLY, EVENT or
// DROPPED frame. Returns 1 with a frame, 0 on timeout, -1 with error.
int ctl_next_incoming(int fd, int timeout_ms, CtlIncoming* in, std::string* error);

// Sends one REQUEST and waits up to timeout_ms (below 0: forever) for its
// REPLY, skipping the events of a subscribed connection. Returns 1 with the
// reply, 0 on timeout, -1 with error.
int ctl_transact(int fd, const std::vector<uint8_t>& request, int timeout_ms, CtlReply* reply, std::string* error);

}  // namespace lumctl
