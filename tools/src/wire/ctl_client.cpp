// Client calls: each reads frames until the one it waits for, and turns an
// ERROR frame or a broken stream into a message.
#include "lumctl/ctl_client.h"

#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "lumctl/wire.h"
#include "lumproto/frame_io.h"
#include "lumproto/socket_path.h"

namespace lumctl {

namespace {

constexpr int kFrameTimeoutMs = 30000;

// Reads one frame; ERROR frames and failures become -1 with a message.
int read_one(int fd, lumproto::FrameHeader* header, std::vector<uint8_t>* payload,
             std::string* error)
{
    lumproto::ReadLimits limits{lumproto::kMaxPayload, kFrameTimeoutMs};
    lumproto::ReadStatus status = lumproto::read_frame(fd, limits, header, payload);
    if (status == lumproto::ReadStatus::kEof) {
        *error = "the daemon closed the connection (is this user allowed?)";
        return -1;
    }
    if (status != lumproto::ReadStatus::kOk) {
        *error = std::string("bad frame from the daemon: ") + lumproto::read_status_name(status);
        return -1;
    }
    if (header->type == lumproto::kError) {
        size_t len = payload->size() < lumproto::kMaxErrorText ? payload->size() : lumproto::kMaxErrorText;
        *error = "daemon error: " + std::string(payload->begin(), payload->begin() + static_cast<long>(len));
        return -1;
    }
    return 0;
}

int unexpected(const lumproto::FrameHeader& header, std::string* error)
{
    *error = std::string("unexpected ") + lumproto::frame_type_name(header.type) + " frame";
    return -1;
}

// A daemon that refuses a peer closes the connection unread, so the first
// send fails; say what that most likely means.
int send_failed(int rc, std::string* error)
{
    *error = std::string("send: ") + strerror(-rc);
    if (rc == -EPIPE || rc == -ECONNRESET)
        *error += " (the daemon closed the connection: is this user allowed?)";
    return -1;
}

}  // namespace

std::string connect_error(const std::string& path, int err)
{
    std::string what = "cannot connect to " + path;
    if (err == ENAMETOOLONG)
        return what + ": a socket path has 1 to " + std::to_string(sizeof(sockaddr_un::sun_path) - 1) + " bytes";
    what += std::string(" (") + strerror(err) + ")";
    if (err == EACCES || err == EPERM)
        return what + ": lumstoraged lets in root, its own user and the members of its --group";
    if (err == ENOENT || err == ECONNREFUSED || err == ENOTSOCK)
        return what + ": is lumstoraged running? Start it with lumstoraged --socket " + path +
               ", or name its socket with --socket PATH or $" + lumproto::kSocketEnv;
    return what;
}

int ctl_connect(const std::string& path)
{
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof(addr.sun_path))
        return -ENAMETOOLONG;
    memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -errno;
    if (connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) != 0) {
        int err = errno;
        close(fd);
        return -err;
    }
    return fd;
}

namespace {

// The REPLY payload: int32 result, then the reply Parcel.
int take_reply(const std::vector<uint8_t>& payload, CtlReply* reply, std::string* error)
{
    if (payload.size() < 4) {
        *error = "REPLY shorter than its result";
        return -1;
    }
    reply->result = static_cast<int32_t>(lumproto::get_u32le(payload.data()));
    reply->bytes.assign(payload.begin() + 4, payload.end());
    return 0;
}

// An EVENT (id, bytes) or DROPPED (count) payload; false when it is too short.
bool take_event(const lumproto::FrameHeader& header, std::vector<uint8_t>* payload, CtlEvent* event)
{
    bool is_event = header.type == lumproto::kEvent && payload->size() >= 4;
    bool is_dropped = header.type == lumproto::kDropped && payload->size() == 4;
    if (!is_event && !is_dropped)
        return false;
    event->dropped = is_dropped;
    event->count = is_dropped ? lumproto::get_u32le(payload->data()) : 0;
    event->id = is_event ? static_cast<int32_t>(lumproto::get_u32le(payload->data())) : 0;
    event->data.assign(payload->begin() + 4, payload->end());
    return true;
}

// Waits for and reads the next frame: 1, 0 on timeout, -1 with error.
int wait_and_read(int fd, int timeout_ms, lumproto::FrameHeader* header,
                  std::vector<uint8_t>* payload, std::string* error)
{
    int ready = lumproto::wait_readable(fd, timeout_ms);
    if (ready == 0)
        return 0;
    if (ready < 0) {
        *error = std::string("poll: ") + strerror(-ready);
        return -1;
    }
    return read_one(fd, header, payload, error) == 0 ? 1 : -1;
}

}  // namespace

int ctl_send_request(int fd, const std::vector<uint8_t>& request, std::string* error)
{
    int rc = lumproto::write_frame(fd, lumproto::kRequest, request.data(), request.size());
    return rc == 0 ? 0 : send_failed(rc, error);
}

int ctl_subscribe(int fd, std::string* error)
{
    int rc = lumproto::write_frame(fd, lumproto::kSubscribe, static_cast<const void*>(nullptr), 0);
    if (rc != 0)
        return send_failed(rc, error);
    lumproto::FrameHeader header{};
    std::vector<uint8_t> payload;
    if (read_one(fd, &header, &payload, error) != 0)
        return -1;
    return header.type == lumproto::kSubscribed ? 0 : unexpected(header, error);
}

int ctl_next_incoming(int fd, int timeout_ms, CtlIncoming* in, std::string* error)
{
    lumproto::FrameHeader header{};
    std::vector<uint8_t> payload;
    int rc = wait_and_read(fd, timeout_ms, &header, &payload, error);
    if (rc <= 0)
        return rc;
    in->is_reply = header.type == lumproto::kReply;
    if (in->is_reply)
        return take_reply(payload, &in->reply, error) == 0 ? 1 : -1;
    return take_event(header, &payload, &in->event) ? 1 : unexpected(header, error);
}

int ctl_transact(int fd, const std::vector<uint8_t>& request, int timeout_ms, CtlReply* reply, std::string* error)
{
    const double deadline = timeout_ms < 0 ? -1 : now_seconds() + timeout_ms / 1000.0;
    if (ctl_send_request(fd, request, error) != 0)
        return -1;
    for (;;) {
        CtlIncoming in;
        int rc = ctl_next_incoming(fd, time_left_ms(deadline), &in, error);
        if (rc == 1 && in.is_reply)
            *reply = in.reply;
        if (rc <= 0 || in.is_reply)
            return rc;
    }
}

}  // namespace lumctl
