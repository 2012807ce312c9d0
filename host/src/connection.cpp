// A connection runs on its own thread. Frames are read one at a time and
// handled by type through a table; every write takes the connection's writer
// lock so a reply and an event never interleave inside a frame. A subscribed
// connection gets a second thread that drains its event queue.
#include "connection.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <sys/socket.h>
#include <thread>
#include <vector>

#include "host_log.h"
#include "lumproto/frame_io.h"

namespace lumhost {

namespace {

struct Conn {
    ServerShared* shared;
    int fd;
    PeerCred peer;
    std::mutex write_lock;
    std::shared_ptr<SubscriberQueue> queue;
    std::thread writer;
};

// Handlers return 0 to go on reading, or -1 to close the connection.
typedef int (*FrameHandler)(Conn* conn, const std::vector<uint8_t>& payload);

int send_locked(Conn* conn, uint16_t type, const lumproto::Slice* parts, size_t count)
{
    std::lock_guard<std::mutex> hold(conn->write_lock);
    return lumproto::write_frame(conn->fd, type, parts, count);
}

// Sends an ERROR frame; the caller closes the connection after it.
int send_error(Conn* conn, const char* text)
{
    HOST_LOG(WARN, "pid %d fd %d: %s", static_cast<int>(conn->peer.pid), conn->fd, text);
    lumproto::Slice part{text, strnlen(text, lumproto::kMaxErrorText)};
    send_locked(conn, lumproto::kError, &part, 1);
    return -1;
}

int on_request(Conn* conn, const std::vector<uint8_t>& payload)
{
    android::Parcel request;
    if (!payload.empty() && request.setData(payload.data(), payload.size()) != android::OK)
        return send_error(conn, "request Parcel could not be built");
    android::Parcel reply;
    int result = conn->shared->invoke(request, &reply);
    conn->shared->requests.fetch_add(1, std::memory_order_relaxed);
    if (reply.dataSize() > conn->shared->config.max_payload - 4) {
        char text[128];
        snprintf(text, sizeof(text), "reply of %zu bytes is above the frame limit", reply.dataSize());
        return send_error(conn, text);
    }
    uint8_t head[4];
    lumproto::put_u32le(static_cast<uint32_t>(result), head);
    lumproto::Slice parts[2] = {{head, sizeof(head)}, {reply.data(), reply.dataSize()}};
    return send_locked(conn, lumproto::kReply, parts, 2) == 0 ? 0 : -1;
}

int send_event(Conn* conn, const QueuedEvent& item)
{
    std::lock_guard<std::mutex> hold(conn->write_lock);
    if (item.dropped_before > 0) {
        uint8_t count[4];
        lumproto::put_u32le(item.dropped_before, count);
        if (lumproto::write_frame(conn->fd, lumproto::kDropped, count, sizeof(count)) != 0)
            return -1;
    }
    uint8_t id[4];
    lumproto::put_u32le(static_cast<uint32_t>(item.blob->id), id);
    lumproto::Slice parts[2] = {{id, sizeof(id)}, {item.blob->data.data(), item.blob->data.size()}};
    return lumproto::write_frame(conn->fd, lumproto::kEvent, parts, 2);
}

void drain_events(Conn* conn)
{
    QueuedEvent item;
    while (queue_pop(conn->queue.get(), &item)) {
        if (send_event(conn, item) != 0) {
            // The peer is gone or stuck; wake the reading thread so it ends.
            shutdown(conn->fd, SHUT_RDWR);
            return;
        }
        item.blob.reset();
    }
}

int on_subscribe(Conn* conn, const std::vector<uint8_t>& payload)
{
    if (!payload.empty())
        return send_error(conn, "SUBSCRIBE carries no payload");
    if (conn->queue) {
        return send_locked(conn, lumproto::kSubscribed, nullptr, 0) == 0 ? 0 : -1;
    }
    const HostConfig& config = conn->shared->config;
    auto queue = std::make_shared<SubscriberQueue>();
    queue->max_events = config.queue_max_events;
    queue->max_bytes = config.queue_max_bytes;
    queue->fd = conn->fd;
    conn->queue = queue;
    // Registered before SUBSCRIBED goes out: every event published after the
    // client reads SUBSCRIBED is in its queue.
    hub_add(&conn->shared->hub, queue);
    if (send_locked(conn, lumproto::kSubscribed, nullptr, 0) != 0)
        return -1;
    HOST_LOG(INFO, "pid %d fd %d subscribed", static_cast<int>(conn->peer.pid), conn->fd);
    conn->writer = std::thread(drain_events, conn);
    return 0;
}

int on_ping(Conn* conn, const std::vector<uint8_t>& payload)
{
    if (payload.size() > lumproto::kMaxPingPayload)
        return send_error(conn, "PING payload above 256 bytes");
    lumproto::Slice part{payload.data(), payload.size()};
    return send_locked(conn, lumproto::kPong, &part, 1) == 0 ? 0 : -1;
}

struct HandlerRow {
    uint16_t type;
    FrameHandler handler;
};

const HandlerRow kHandlers[] = {
    {lumproto::kRequest, on_request},
    {lumproto::kSubscribe, on_subscribe},
    {lumproto::kPing, on_ping},
};

FrameHandler find_handler(uint16_t type)
{
    for (const HandlerRow& row : kHandlers) {
        if (row.type == type)
            return row.handler;
    }
    return nullptr;
}

void text_bad_version(const Conn*, const lumproto::FrameHeader& header, char* out, size_t size)
{
    snprintf(out, size, "unsupported protocol version %u (this server speaks %u)", header.version,
             lumproto::kVersion);
}

void text_too_large(const Conn* conn, const lumproto::FrameHeader& header, char* out, size_t size)
{
    snprintf(out, size, "payload of %u bytes is above the limit of %u", header.length,
             conn->shared->config.max_payload);
}

void text_timeout(const Conn*, const lumproto::FrameHeader&, char* out, size_t size)
{
    snprintf(out, size, "frame not completed in time");
}

// Read failures the peer is told about before the connection closes; the
// others (end of stream, truncation, read errors) close it silently.
struct ReadFailureRow {
    lumproto::ReadStatus status;
    void (*text)(const Conn* conn, const lumproto::FrameHeader& header, char* out, size_t size);
};

const ReadFailureRow kReadFailures[] = {
    {lumproto::ReadStatus::kBadVersion, text_bad_version},
    {lumproto::ReadStatus::kTooLarge, text_too_large},
    {lumproto::ReadStatus::kTimeout, text_timeout},
};

// Answers a frame that could not be read whole; always ends the connection.
int on_read_failure(Conn* conn, lumproto::ReadStatus status, const lumproto::FrameHeader& header)
{
    for (const ReadFailureRow& row : kReadFailures) {
        if (row.status == status) {
            char text[160];
            row.text(conn, header, text, sizeof(text));
            return send_error(conn, text);
        }
    }
    if (status != lumproto::ReadStatus::kEof)
        HOST_LOG(WARN, "pid %d fd %d: %s", static_cast<int>(conn->peer.pid), conn->fd,
                 lumproto::read_status_name(status));
    return -1;
}

int handle_frame(Conn* conn, const lumproto::FrameHeader& header, const std::vector<uint8_t>& payload)
{
    FrameHandler handler = find_handler(header.type);
    if (handler != nullptr)
        return handler(conn, payload);
    char text[96];
    snprintf(text, sizeof(text), "frame type %u (%s) is not accepted from clients", header.type,
             lumproto::frame_type_name(header.type));
    return send_error(conn, text);
}

}  // namespace

void serve_connection(ServerShared* shared, int fd, const PeerCred& peer)
{
    Conn conn;
    conn.shared = shared;
    conn.fd = fd;
    conn.peer = peer;
    lumproto::ReadLimits limits{shared->config.max_payload, shared->config.frame_timeout_ms};
    std::vector<uint8_t> payload;
    for (;;) {
        lumproto::FrameHeader header{};
        lumproto::ReadStatus status = lumproto::read_frame(fd, limits, &header, &payload);
        int rc = status == lumproto::ReadStatus::kOk ? handle_frame(&conn, header, payload)
                                                     : on_read_failure(&conn, status, header);
        if (rc != 0)
            break;
    }
    shutdown(fd, SHUT_RDWR);
    if (conn.queue) {
        hub_remove(&shared->hub, conn.queue.get());
        queue_close(conn.queue.get());
        conn.writer.join();
    }
}

}  // namespace lumhost
