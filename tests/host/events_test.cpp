// Event fan-out through EMAL_Notify: every subscriber sees every event in the same order; a subscriber that
// stops reading loses events (counted and announced) while the sender and the other subscribers go on.
#include <gtest/gtest.h>

#include <cstring>
#include <lumemclient/EMALClient.h>

#include "test_support.h"

namespace {
using hosttest::Fd;
using hosttest::Frame;
using lumproto::ReadStatus;

constexpr int kEventId = 1507359;

int subscribe(const std::string& path)
{
    int fd = hosttest::connect_to(path);
    EXPECT_TRUE(hosttest::send_bytes(fd, hosttest::frame(lumproto::kSubscribe, {})));
    EXPECT_EQ(lumproto::kSubscribed, hosttest::next_frame(fd).header.type);
    return fd;
}

// Sends an event whose payload is seq followed by pad filler bytes.
void notify(int32_t seq, size_t pad)
{
    std::vector<uint8_t> data(4 + pad, 0xee);
    memcpy(data.data(), &seq, 4);
    EXPECT_EQ(0, EMAL_Notify(kEventId, data.data(), static_cast<int>(data.size())));
}

struct Seen {
    std::vector<int32_t> seqs;
    uint64_t dropped = 0;
    int frames = 0;
};

// Reads one EVENT or DROPPED frame into seen; false on anything else.
bool take(int fd, Seen* seen, int timeout_ms)
{
    Frame f = hosttest::next_frame(fd, timeout_ms);
    if (f.status != ReadStatus::kOk)
        return false;
    ++seen->frames;
    if (f.header.type == lumproto::kDropped && f.payload.size() == 4) {
        seen->dropped += lumproto::get_u32le(f.payload.data());
        return true;
    }
    if (f.header.type != lumproto::kEvent || f.payload.size() < 8)
        return false;
    EXPECT_EQ(kEventId, static_cast<int32_t>(lumproto::get_u32le(f.payload.data())));
    seen->seqs.push_back(static_cast<int32_t>(lumproto::get_u32le(f.payload.data() + 4)));
    return true;
}

bool strictly_increasing(const std::vector<int32_t>& v)
{
    for (size_t i = 1; i < v.size(); ++i) {
        if (v[i] <= v[i - 1])
            return false;
    }
    return true;
}

TEST(Events, TwoSubscribersGetEveryEventInOrder)
{
    hosttest::TestServer srv;
    ASSERT_EQ(0, srv.start());
    Fd a(subscribe(srv.config.socket_path));
    Fd b(subscribe(srv.config.socket_path));
    Fd plain(hosttest::connect_to(srv.config.socket_path));  // not subscribed: gets nothing
    const int kCount = 1000;
    for (int32_t seq = 0; seq < kCount; ++seq)
        notify(seq, seq % 7);
    // An empty payload travels too.
    EXPECT_EQ(0, EMAL_Notify(kEventId + 1, nullptr, 0));
    for (int fd : {a.fd, b.fd}) {
        Seen seen;
        while (static_cast<int>(seen.seqs.size()) < kCount && take(fd, &seen, 5000)) {}
        ASSERT_EQ(static_cast<size_t>(kCount), seen.seqs.size());
        for (int32_t i = 0; i < kCount; ++i)
            ASSERT_EQ(i, seen.seqs[static_cast<size_t>(i)]);
        EXPECT_EQ(0u, seen.dropped);
        Frame last = hosttest::next_frame(fd);
        ASSERT_EQ(ReadStatus::kOk, last.status);
        EXPECT_EQ((std::vector<uint8_t>{0x20, 0x00, 0x17, 0x00}), last.payload);  // id 1507360
    }
    ASSERT_TRUE(hosttest::send_bytes(plain.fd, hosttest::frame(lumproto::kPing, {})));
    EXPECT_EQ(lumproto::kPong, hosttest::next_frame(plain.fd).header.type);
}

TEST(Events, SlowSubscriberLosesCountedEventsWithoutHoldingUpOthers)
{
    hosttest::TestServer srv;
    srv.config.queue_max_events = 16;
    ASSERT_EQ(0, srv.start());
    Fd slow(subscribe(srv.config.socket_path));
    Fd fast(subscribe(srv.config.socket_path));
    // The slow one reads nothing while its socket buffer and queue fill up; the fast one reads everything as
    // it comes. 4 events in flight at most keep the fast queue far from full.
    const int kRounds = 1500;
    Seen fast_seen;
    for (int round = 0; round < kRounds; ++round) {
        for (int k = 0; k < 4; ++k)
            notify(round * 4 + k, 1024);
        for (int k = 0; k < 4; ++k)
            ASSERT_TRUE(take(fast.fd, &fast_seen, 5000));
    }
    const int32_t kTotal = kRounds * 4;
    EXPECT_EQ(static_cast<size_t>(kTotal), fast_seen.seqs.size());
    EXPECT_EQ(0u, fast_seen.dropped);
    EXPECT_TRUE(strictly_increasing(fast_seen.seqs));
    Seen slow_seen;
    while (take(slow.fd, &slow_seen, 300)) {}
    // One more event carries the count of the losses before it.
    notify(kTotal, 0);
    while (slow_seen.seqs.empty() || slow_seen.seqs.back() != kTotal)
        ASSERT_TRUE(take(slow.fd, &slow_seen, 5000));
    EXPECT_GT(slow_seen.dropped, 0u);
    EXPECT_TRUE(strictly_increasing(slow_seen.seqs));
    EXPECT_EQ(static_cast<uint64_t>(kTotal + 1), slow_seen.seqs.size() + slow_seen.dropped);
    lumhost::HostStats stats = lumhost::host_server_stats(srv.server);
    EXPECT_EQ(slow_seen.dropped, stats.events_dropped);
    EXPECT_EQ(static_cast<uint64_t>(kTotal + 1), stats.events);
}

}  // namespace
