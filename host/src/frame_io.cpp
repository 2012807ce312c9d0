// Frame reads with a deadline once a frame has started, and gathered frame
// writes that go out whole or not at all as far as the peer can tell.
#include "lumproto/frame_io.h"

#include <cerrno>
#include <ctime>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

namespace lumproto {

namespace {

constexpr size_t kReadChunk = 64 * 1024;
constexpr size_t kMaxParts = 6;

int64_t now_ms()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

struct Deadline {
    bool armed;
    int64_t at_ms;
};

// Reads up to len bytes into buf, waiting at most until the deadline when it
// is armed. Returns bytes read (>0), 0 at end of stream, -ETIMEDOUT or -errno.
ssize_t read_some(int fd, uint8_t* buf, size_t len, const Deadline& deadline)
{
    for (;;) {
        if (deadline.armed) {
            int64_t left = deadline.at_ms - now_ms();
            if (left <= 0)
                return -ETIMEDOUT;
            int ready = wait_readable(fd, static_cast<int>(left));
            if (ready == 0)
                return -ETIMEDOUT;
            if (ready < 0)
                return ready;
        }
        ssize_t n = read(fd, buf, len);
        if (n >= 0)
            return n;
        if (errno != EINTR)
            return -errno;
    }
}

ReadStatus status_of(ssize_t n)
{
    if (n == 0)
        return ReadStatus::kTruncated;
    if (n == -ETIMEDOUT)
        return ReadStatus::kTimeout;
    return ReadStatus::kIoError;
}

Deadline start_deadline(const ReadLimits& limits)
{
    Deadline deadline{limits.frame_timeout_ms >= 0, 0};
    if (deadline.armed)
        deadline.at_ms = now_ms() + limits.frame_timeout_ms;
    return deadline;
}

ReadStatus read_header(int fd, const ReadLimits& limits, uint8_t* raw, Deadline* deadline)
{
    ssize_t n = read_some(fd, raw, kHeaderSize, Deadline{false, 0});
    if (n == 0)
        return ReadStatus::kEof;
    if (n < 0)
        return ReadStatus::kIoError;
    *deadline = start_deadline(limits);
    size_t got = static_cast<size_t>(n);
    while (got < kHeaderSize) {
        n = read_some(fd, raw + got, kHeaderSize - got, *deadline);
        if (n <= 0)
            return status_of(n);
        got += static_cast<size_t>(n);
    }
    return ReadStatus::kOk;
}

ReadStatus read_payload(int fd, uint32_t length, const Deadline& deadline,
                        std::vector<uint8_t>* payload)
{
    payload->clear();
    while (payload->size() < length) {
        size_t have = payload->size();
        size_t want = length - have;
        if (want > kReadChunk)
            want = kReadChunk;
        payload->resize(have + want);
        ssize_t n = read_some(fd, payload->data() + have, want, deadline);
        if (n <= 0) {
            payload->resize(have);
            return status_of(n);
        }
        payload->resize(have + static_cast<size_t>(n));
    }
    return ReadStatus::kOk;
}

// Sends every byte of the iovecs, moving on past partial sends.
int send_all(int fd, iovec* iov, size_t count)
{
    while (count > 0) {
        msghdr msg{};
        msg.msg_iov = iov;
        msg.msg_iovlen = count;
        ssize_t n = sendmsg(fd, &msg, MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return -errno;
        }
        size_t sent = static_cast<size_t>(n);
        while (count > 0 && sent >= iov->iov_len) {
            sent -= iov->iov_len;
            ++iov;
            --count;
        }
        if (count > 0) {
            iov->iov_base = static_cast<uint8_t*>(iov->iov_base) + sent;
            iov->iov_len -= sent;
        }
    }
    return 0;
}

}  // namespace

ReadStatus read_frame(int fd, const ReadLimits& limits, FrameHeader* header,
                      std::vector<uint8_t>* payload)
{
    uint8_t raw[kHeaderSize];
    Deadline deadline{false, 0};
    ReadStatus status = read_header(fd, limits, raw, &deadline);
    if (status != ReadStatus::kOk)
        return status;
    *header = decode_header(raw);
    if (header->version != kVersion)
        return ReadStatus::kBadVersion;
    if (header->length > limits.max_payload)
        return ReadStatus::kTooLarge;
    if (header->length > 0 && !deadline.armed)
        deadline = start_deadline(limits);
    return read_payload(fd, header->length, deadline, payload);
}

const char* read_status_name(ReadStatus status)
{
    static const char* const kNames[] = {"ok", "end of stream", "truncated frame",
                                         "frame timeout", "bad version", "payload too large",
                                         "read error"};
    return kNames[static_cast<int>(status)];
}

int write_frame(int fd, uint16_t type, const Slice* parts, size_t count)
{
    if (count > kMaxParts)
        return -EINVAL;
    size_t total = 0;
    for (size_t i = 0; i < count; ++i)
        total += parts[i].len;
    if (total > kMaxPayload)
        return -EMSGSIZE;
    uint8_t raw[kHeaderSize];
    encode_header(FrameHeader{kVersion, type, static_cast<uint32_t>(total)}, raw);
    iovec iov[kMaxParts + 1];
    iov[0] = iovec{raw, kHeaderSize};
    size_t used = 1;
    for (size_t i = 0; i < count; ++i) {
        if (parts[i].len > 0)
            iov[used++] = iovec{const_cast<void*>(parts[i].data), parts[i].len};
    }
    return send_all(fd, iov, used);
}

int write_frame(int fd, uint16_t type, const void* data, size_t len)
{
    Slice part{data, len};
    return write_frame(fd, type, &part, 1);
}

int wait_readable(int fd, int timeout_ms)
{
    pollfd pfd{fd, POLLIN, 0};
    for (;;) {
        int n = poll(&pfd, 1, timeout_ms);
        if (n >= 0)
            return n;
        if (errno != EINTR)
            return -errno;
    }
}

}  // namespace lumproto
