// The wait loop of event-answered requests (event_query_on), driven over a
// socket pair whose other end plays the daemon with frames written in a
// chosen order: events before and after the reply, unrelated events,
// DROPPED notices, refusals, silence and broken streams.
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include "lumctl/event_query.h"
#include "test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;
using lumctl::EventStep;
using lumctl::QueryStatus;

constexpr int32_t kWanted = 1507354;
constexpr int32_t kOther = 1507359;

struct Pair {
    int client = -1;
    int daemon = -1;
    Pair()
    {
        int fds[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) == 0) {
            client = fds[0];
            daemon = fds[1];
        }
    }
    ~Pair()
    {
        close(client);
        if (daemon >= 0)
            close(daemon);
    }
    void event(int32_t id, uint8_t tag)
    {
        Bytes payload = hosttest::le32(id);
        payload.push_back(tag);
        ASSERT_TRUE(hosttest::send_bytes(daemon, hosttest::frame(lumproto::kEvent, payload)));
    }
    void reply(int32_t result, const Bytes& parcel)
    {
        Bytes payload = hosttest::le32(result);
        payload.insert(payload.end(), parcel.begin(), parcel.end());
        ASSERT_TRUE(hosttest::send_bytes(daemon, hosttest::frame(lumproto::kReply, payload)));
    }
    void dropped(int32_t count)
    {
        ASSERT_TRUE(hosttest::send_bytes(daemon, hosttest::frame(lumproto::kDropped, hosttest::le32(count))));
    }
};

const Bytes kTrue = {1, 0, 0, 0};
const Bytes kFalse = {0, 0, 0, 0};

// A query for kWanted that records the tag byte of each event it is handed
// and is done at done_tag.
struct Recorder {
    std::vector<uint8_t> tags;
    lumctl::EventQuery query(uint8_t done_tag, int timeout_ms = 5000)
    {
        lumctl::EventQuery q;
        q.request = {0x06, 0x10, 0, 0};
        q.ids = {kWanted};
        q.timeout_ms = timeout_ms;
        q.on_event = [this, done_tag](const lumctl::CtlEvent& e) {
            tags.push_back(e.data.empty() ? 0 : e.data[0]);
            return tags.back() == done_tag ? EventStep::kDone : EventStep::kMore;
        };
        return q;
    }
};

TEST(CtlQuery, EventsBeforeTheReplyAreKeptAndHandedOverInOrder)
{
    Pair pair;
    pair.event(kWanted, 1);
    pair.event(kOther, 9);
    pair.dropped(3);
    pair.reply(0, kTrue);
    pair.event(kOther, 9);
    pair.event(kWanted, 2);
    pair.event(kWanted, 3);
    Recorder rec;
    lumctl::QueryOutcome out = lumctl::event_query_on(pair.client, rec.query(2));
    EXPECT_EQ(QueryStatus::kDone, out.status) << out.error;
    EXPECT_EQ((std::vector<uint8_t>{1, 2}), rec.tags);
    EXPECT_EQ(3u, out.dropped);
    // The request went out as one REQUEST frame.
    hosttest::Frame sent = hosttest::next_frame(pair.daemon);
    EXPECT_EQ(lumproto::kRequest, sent.header.type);
    EXPECT_EQ((Bytes{0x06, 0x10, 0, 0}), sent.payload);

    // The handler may finish with an event that came before the reply.
    Pair early;
    early.event(kWanted, 5);
    early.reply(0, kTrue);
    Recorder rec2;
    EXPECT_EQ(QueryStatus::kDone, lumctl::event_query_on(early.client, rec2.query(5)).status);
    EXPECT_EQ((std::vector<uint8_t>{5}), rec2.tags);
}

TEST(CtlQuery, RefusedRequestsEndAtTheReply)
{
    struct Case {
        int32_t result;
        Bytes parcel;
        bool accepted;
    };
    const Case cases[] = {
        {0, kTrue, true}, {0, {7, 0, 0, 0}, true}, {0, kFalse, false},
        {-1, {}, false},  {-1, kTrue, false},      {0, {}, false}, {0, {1, 0}, false},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(c.accepted, lumctl::reply_accepted(lumctl::CtlReply{c.result, c.parcel}))
            << c.result << " " << c.parcel.size();
        if (c.accepted)
            continue;
        // The events that came first are not the answer to a refused request.
        Pair pair;
        pair.event(kWanted, 1);
        pair.reply(c.result, c.parcel);
        pair.event(kWanted, 2);
        Recorder rec;
        lumctl::QueryOutcome out = lumctl::event_query_on(pair.client, rec.query(2));
        EXPECT_EQ(QueryStatus::kRefused, out.status);
        EXPECT_EQ(c.result, out.reply.result);
        EXPECT_TRUE(rec.tags.empty());
    }
}

TEST(CtlQuery, RefusedRequestCanWaitForWhatTheRequestsBehindItSend)
{
    // A refused listing's end marker still answers: its block is taken here,
    // not left for the next client. The outcome stays refused.
    Pair pair;
    pair.reply(0, kFalse);
    pair.reply(0, kTrue);
    pair.event(kWanted, 7);
    Recorder rec;
    lumctl::EventQuery q = rec.query(7);
    q.more_requests.push_back({0x06, 0x10, 0, 0});
    int refusals = 0;
    q.on_refused = [&refusals](const lumctl::CtlReply&) {
        ++refusals;
        return EventStep::kMore;
    };
    lumctl::QueryOutcome out = lumctl::event_query_on(pair.client, q);
    EXPECT_EQ(QueryStatus::kRefused, out.status);
    EXPECT_EQ(1, refusals);
    EXPECT_EQ((std::vector<uint8_t>{7}), rec.tags);
    EXPECT_EQ(1u, out.more_replies.size());
    // Silence after the refusal ends the wait as refused, not timed out.
    Pair quiet;
    quiet.reply(0, kFalse);
    q = rec.query(7, 100);
    q.on_refused = [](const lumctl::CtlReply&) { return EventStep::kMore; };
    EXPECT_EQ(QueryStatus::kRefused, lumctl::event_query_on(quiet.client, q).status);
}

TEST(CtlQuery, SilenceTimesOutAndBrokenStreamsAreErrors)
{
    {
        Pair pair;
        pair.reply(0, kTrue);
        pair.event(kOther, 1);
        pair.event(kWanted, 4);  // handed over, but not the one that ends it
        Recorder rec;
        lumctl::QueryOutcome out = lumctl::event_query_on(pair.client, rec.query(2, 100));
        EXPECT_EQ(QueryStatus::kTimeout, out.status);
        EXPECT_EQ((std::vector<uint8_t>{4}), rec.tags);
    }
    {
        // No reply at all: the time-out covers the reply too.
        Pair pair;
        Recorder rec;
        EXPECT_EQ(QueryStatus::kTimeout, lumctl::event_query_on(pair.client, rec.query(2, 100)).status);
    }
    {
        Pair pair;
        pair.reply(0, kTrue);
        close(pair.daemon);
        pair.daemon = -1;
        Recorder rec;
        lumctl::QueryOutcome out = lumctl::event_query_on(pair.client, rec.query(2));
        EXPECT_EQ(QueryStatus::kError, out.status);
        EXPECT_NE(std::string::npos, out.error.find("closed")) << out.error;
    }
    {
        Pair pair;
        const std::string text = "too many clients";
        Bytes error_frame = hosttest::frame(lumproto::kError, Bytes(text.begin(), text.end()));
        ASSERT_TRUE(hosttest::send_bytes(pair.daemon, error_frame));
        Recorder rec;
        lumctl::QueryOutcome out = lumctl::event_query_on(pair.client, rec.query(2));
        EXPECT_EQ(QueryStatus::kError, out.status);
        EXPECT_EQ("daemon error: too many clients", out.error);
    }
    {
        Pair pair;
        pair.reply(0, kTrue);
        pair.reply(0, kTrue);
        Recorder rec;
        EXPECT_EQ(QueryStatus::kError, lumctl::event_query_on(pair.client, rec.query(2)).status);
    }
}

TEST(CtlQuery, RequestsBehindTheFirstGoOutInOrderAndTheirRepliesAreKept)
{
    Pair pair;
    pair.event(kWanted, 1);
    pair.reply(0, kTrue);
    pair.reply(0, kFalse);  // the second request's: it decides nothing
    pair.event(kWanted, 2);
    Recorder rec;
    lumctl::EventQuery query = rec.query(2);
    query.more_requests = {{0x25, 0x10, 0, 0}};
    lumctl::QueryOutcome out = lumctl::event_query_on(pair.client, query);
    EXPECT_EQ(QueryStatus::kDone, out.status) << out.error;
    EXPECT_EQ((std::vector<uint8_t>{1, 2}), rec.tags);
    ASSERT_EQ(1u, out.more_replies.size());
    EXPECT_FALSE(lumctl::reply_accepted(out.more_replies[0]));
    EXPECT_EQ((Bytes{0x06, 0x10, 0, 0}), hosttest::next_frame(pair.daemon).payload);
    EXPECT_EQ((Bytes{0x25, 0x10, 0, 0}), hosttest::next_frame(pair.daemon).payload);

    // Their handler may end the wait.
    Pair marker;
    marker.reply(0, kTrue);
    marker.reply(0, kFalse);
    lumctl::EventQuery ended = rec.query(2);
    ended.more_requests = query.more_requests;
    size_t seen = 9;
    ended.on_more_reply = [&seen](size_t index, const lumctl::CtlReply&) {
        seen = index;
        return EventStep::kDone;
    };
    EXPECT_EQ(QueryStatus::kDone, lumctl::event_query_on(marker.client, ended).status);
    EXPECT_EQ(0u, seen);

    // A reply more than the requests is a broken stream.
    Pair extra;
    extra.reply(0, kTrue);
    extra.reply(0, kTrue);
    extra.reply(0, kTrue);
    EXPECT_EQ(QueryStatus::kError, lumctl::event_query_on(extra.client, query).status);
}

TEST(CtlQuery, EventsKeptBeforeTheReplyAreBounded)
{
    Pair pair;
    const size_t extra = 5;
    // One write: a socket buffer holds far fewer small writes than bytes.
    Bytes frames;
    Bytes payload = hosttest::le32(kWanted);
    payload.push_back(1);
    for (size_t i = 0; i < lumctl::kMaxEarlyEvents + extra; ++i) {
        Bytes f = hosttest::frame(lumproto::kEvent, payload);
        frames.insert(frames.end(), f.begin(), f.end());
    }
    ASSERT_TRUE(hosttest::send_bytes(pair.daemon, frames));
    pair.reply(0, kTrue);
    pair.event(kWanted, 2);
    Recorder rec;
    lumctl::QueryOutcome out = lumctl::event_query_on(pair.client, rec.query(2));
    EXPECT_EQ(QueryStatus::kDone, out.status);
    EXPECT_EQ(lumctl::kMaxEarlyEvents + 1, rec.tags.size());
    EXPECT_EQ(extra, out.dropped);
}

}  // namespace
