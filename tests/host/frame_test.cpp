// Frame codec against hand-written bytes, and frame reads that must end
// (never hang) on short, stalled, oversized or foreign frames.
#include <gtest/gtest.h>

#include <random>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "test_support.h"

namespace {
using lumproto::FrameHeader;
using lumproto::ReadStatus;

struct SocketPair {
    int a = -1;
    int b = -1;
    SocketPair()
    {
        int sv[2];
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv));
        a = sv[0];
        b = sv[1];
    }
    ~SocketPair()
    {
        close(a);
        if (b >= 0)
            close(b);
    }
    void close_b() { close(b); b = -1; }
};

std::vector<uint8_t> read_exact(int fd, size_t n)
{
    std::vector<uint8_t> out(n);
    size_t got = 0;
    while (got < n) {
        ssize_t r = read(fd, out.data() + got, n - got);
        if (r <= 0)
            break;
        got += static_cast<size_t>(r);
    }
    out.resize(got);
    return out;
}

TEST(FrameCodec, HeadersMatchHandWrittenBytes)
{
    struct Case {
        FrameHeader header;
        std::vector<uint8_t> bytes;
    };
    const Case cases[] = {
        {{1, lumproto::kRequest, 4}, {0x01, 0x00, 0x01, 0x00, 0x04, 0x00, 0x00, 0x00}},
        {{1, lumproto::kEvent, 0x01020304}, {0x01, 0x00, 0x05, 0x00, 0x04, 0x03, 0x02, 0x01}},
        {{0x0102, lumproto::kError, 0xffffffffu}, {0x02, 0x01, 0x09, 0x00, 0xff, 0xff, 0xff, 0xff}},
        {{1, lumproto::kSubscribe, 0}, {0x01, 0x00, 0x03, 0x00, 0x00, 0x00, 0x00, 0x00}},
    };
    for (const Case& c : cases) {
        uint8_t raw[lumproto::kHeaderSize];
        lumproto::encode_header(c.header, raw);
        EXPECT_EQ(c.bytes, std::vector<uint8_t>(raw, raw + 8));
        FrameHeader back = lumproto::decode_header(c.bytes.data());
        EXPECT_EQ(c.header.version, back.version);
        EXPECT_EQ(c.header.type, back.type);
        EXPECT_EQ(c.header.length, back.length);
    }
}

TEST(FrameCodec, WrittenFramesAreHeaderThenPartsInOrder)
{
    SocketPair sp;
    // STORAGE_PVR_DEV_STATE request: word 4125 = 1d 10 00 00.
    const uint8_t word[] = {0x1d, 0x10, 0x00, 0x00};
    ASSERT_EQ(0, lumproto::write_frame(sp.a, lumproto::kRequest, word, sizeof(word)));
    EXPECT_EQ((std::vector<uint8_t>{1, 0, 1, 0, 4, 0, 0, 0, 0x1d, 0x10, 0, 0}), read_exact(sp.b, 12));
    const uint8_t result[] = {0xff, 0xff, 0xff, 0xff};
    const uint8_t body[] = {0x01, 0x00, 0x00, 0x00};
    lumproto::Slice parts[3] = {{result, 4}, {nullptr, 0}, {body, 4}};
    ASSERT_EQ(0, lumproto::write_frame(sp.a, lumproto::kReply, parts, 3));
    EXPECT_EQ((std::vector<uint8_t>{1, 0, 2, 0, 8, 0, 0, 0, 0xff, 0xff, 0xff, 0xff, 1, 0, 0, 0}),
              read_exact(sp.b, 16));
}

TEST(FrameCodec, LargePayloadArrivesWhole)
{
    SocketPair sp;
    std::vector<uint8_t> payload(3 * 1024 * 1024 + 5);
    std::mt19937 rng(7);
    for (auto& byte : payload)
        byte = static_cast<uint8_t>(rng());
    std::thread writer([&] { EXPECT_EQ(0, lumproto::write_frame(sp.a, lumproto::kEvent, payload.data(), payload.size())); });
    FrameHeader header{};
    std::vector<uint8_t> got;
    EXPECT_EQ(ReadStatus::kOk, lumproto::read_frame(sp.b, {lumproto::kMaxPayload, 5000}, &header, &got));
    writer.join();
    EXPECT_EQ(lumproto::kEvent, header.type);
    EXPECT_TRUE(got == payload);
}

TEST(FrameRead, BadStreamsEndWithTheirStatus)
{
    struct Case {
        const char* what;
        std::vector<uint8_t> bytes;
        bool close_after;
        ReadStatus want;
    };
    const Case cases[] = {
        {"nothing, closed", {}, true, ReadStatus::kEof},
        {"3 header bytes, closed", {1, 0, 1}, true, ReadStatus::kTruncated},
        {"payload short, closed", {1, 0, 1, 0, 8, 0, 0, 0, 0xaa, 0xbb}, true, ReadStatus::kTruncated},
        {"3 header bytes, stalled", {1, 0, 1}, false, ReadStatus::kTimeout},
        {"payload short, stalled", {1, 0, 1, 0, 8, 0, 0, 0, 0xaa}, false, ReadStatus::kTimeout},
        {"version 2", {2, 0, 1, 0, 0, 0, 0, 0}, false, ReadStatus::kBadVersion},
        {"version 0", {0, 0, 1, 0, 0, 0, 0, 0}, false, ReadStatus::kBadVersion},
        {"length above limit", {1, 0, 1, 0, 0x01, 0x01, 0, 0}, false, ReadStatus::kTooLarge},
        {"length 4 GiB-1", {1, 0, 1, 0, 0xff, 0xff, 0xff, 0xff}, false, ReadStatus::kTooLarge},
        {"empty payload", {1, 0, 3, 0, 0, 0, 0, 0}, false, ReadStatus::kOk},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        SocketPair sp;
        ASSERT_TRUE(hosttest::send_bytes(sp.b, c.bytes));
        if (c.close_after)
            sp.close_b();
        FrameHeader header{};
        std::vector<uint8_t> payload;
        EXPECT_EQ(c.want, lumproto::read_frame(sp.a, {256, 150}, &header, &payload));
    }
}

}  // namespace
