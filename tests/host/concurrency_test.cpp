// Several clients invoke at once while events flow from other threads and from inside invoke: replies stay
// matched to their requests, frames never interleave, and every subscriber accounts for every event. Meant
// for ThreadSanitizer as much as for the checks.
#include <gtest/gtest.h>

#include <lumemclient/EMALClient.h>
#include <thread>
#include <unistd.h>

#include "fake_service.h"
#include "test_support.h"

namespace {
using hosttest::Frame;

constexpr int32_t kTickId = 1507340;
constexpr int32_t kEmitId = 1507341;
constexpr int32_t kMarkerId = 1507366;

struct Record {
    int32_t id, value;
};

// Reads events until the marker; returns them (without the marker) and adds DROPPED counts to dropped.
std::vector<Record> collect(int fd, uint64_t* dropped, bool* ok)
{
    std::vector<Record> out;
    *ok = false;
    for (;;) {
        Frame f = hosttest::next_frame(fd, 20000);
        if (f.status != lumproto::ReadStatus::kOk)
            return out;
        if (f.header.type == lumproto::kDropped) {
            *dropped += lumproto::get_u32le(f.payload.data());
            continue;
        }
        if (f.header.type != lumproto::kEvent || f.payload.size() != 8)
            return out;
        Record r{static_cast<int32_t>(lumproto::get_u32le(f.payload.data())),
                 static_cast<int32_t>(lumproto::get_u32le(f.payload.data() + 4))};
        if (r.id == kMarkerId) {
            *ok = true;
            return out;
        }
        out.push_back(r);
    }
}

// Sends echo requests (and now and then an emit) and checks each reply;
// returns the number of events it asked the service to emit.
int client_loop(const std::string& path, int index, bool subscribed, std::atomic<int>* failures)
{
    int fd = hosttest::connect_to(path);
    if (subscribed) {
        hosttest::send_bytes(fd, hosttest::frame(lumproto::kSubscribe, {}));
        if (hosttest::next_frame(fd).header.type != lumproto::kSubscribed)
            ++*failures;
    }
    int emitted = 0;
    for (int k = 0; k < 300; ++k) {
        // Large replies on the subscribed connection take several writes, which an event must never cut into.
        size_t size = subscribed && k % 10 == 0 ? 300 * 1024 : 4 + (k % 13) * 4;
        std::vector<uint8_t> body(size);
        for (size_t i = 0; i < body.size(); ++i)
            body[i] = static_cast<uint8_t>(index * 31 + k + i);
        hosttest::send_bytes(fd, hosttest::request_frame(fakesvc::kEcho, body));
        Frame f = hosttest::next_non_event(fd);
        std::vector<uint8_t> want = hosttest::le32(0);
        want.insert(want.end(), body.begin(), body.end());
        if (f.header.type != lumproto::kReply || f.payload != want) {
            ++*failures;  // the stream is out of step now: stop here
            break;
        }
        if (k % 50 == 0) {
            std::vector<uint8_t> args = hosttest::le32(kEmitId);
            std::vector<uint8_t> count = hosttest::le32(10);
            args.insert(args.end(), count.begin(), count.end());
            hosttest::send_bytes(fd, hosttest::request_frame(fakesvc::kEmit, args));
            if (hosttest::next_non_event(fd).header.type != lumproto::kReply)
                ++*failures;
            emitted += 10;
        }
    }
    close(fd);
    return emitted;
}

// Every event is either seen or counted as dropped; ticks of one sender arrive in the order sent.
void check_subscriber(const std::vector<Record>& seen, uint64_t dropped, uint64_t total)
{
    EXPECT_EQ(total, seen.size() + dropped);
    int32_t last[2] = {-1, -1};
    for (const Record& r : seen) {
        if (r.id != kTickId)
            continue;
        int t = r.value >> 24;
        EXPECT_LT(last[t], r.value & 0xffffff) << "ticks out of order";
        last[t] = r.value & 0xffffff;
    }
}

TEST(Concurrency, ClientsInvokeWhileEventsFlow)
{
    hosttest::TestServer srv;
    ASSERT_EQ(0, srv.start());
    const std::string& path = srv.config.socket_path;
    int subs[2];
    for (int& fd : subs) {
        fd = hosttest::connect_to(path);
        hosttest::send_bytes(fd, hosttest::frame(lumproto::kSubscribe, {}));
        ASSERT_EQ(lumproto::kSubscribed, hosttest::next_frame(fd).header.type);
    }
    std::vector<Record> seen[2];
    uint64_t dropped[2] = {0, 0};
    bool ok[2] = {false, false};
    std::vector<std::thread> readers;
    for (int s = 0; s < 2; ++s)
        readers.emplace_back([&, s] { seen[s] = collect(subs[s], &dropped[s], &ok[s]); });
    std::atomic<int> failures{0};
    std::atomic<int> emitted{0};
    std::vector<std::thread> workers;
    for (int c = 0; c < 4; ++c)
        workers.emplace_back([&, c] { emitted += client_loop(path, c, c == 0, &failures); });
    const int kTicks = 1500;
    for (int t = 0; t < 2; ++t) {
        workers.emplace_back([t] {
            for (int32_t seq = 0; seq < kTicks; ++seq) {
                int32_t value = t << 24 | seq;
                EMAL_Notify(kTickId, &value, sizeof(value));
            }
        });
    }
    for (auto& w : workers)
        w.join();
    int32_t zero = 0;
    EMAL_Notify(kMarkerId, &zero, sizeof(zero));
    for (auto& r : readers)
        r.join();
    EXPECT_EQ(0, failures.load());
    const uint64_t total = 2 * kTicks + static_cast<uint64_t>(emitted.load());
    for (int s = 0; s < 2; ++s) {
        ASSERT_TRUE(ok[s]) << "subscriber " << s << " never saw the marker";
        check_subscriber(seen[s], dropped[s], total);
    }
    if (dropped[0] == 0 && dropped[1] == 0) {
        ASSERT_EQ(seen[0].size(), seen[1].size());
        for (size_t i = 0; i < seen[0].size(); ++i)
            ASSERT_TRUE(seen[0][i].id == seen[1][i].id && seen[0][i].value == seen[1][i].value)
                << "subscribers disagree at " << i;
    }
    for (int fd : subs)
        close(fd);
}

}  // namespace
