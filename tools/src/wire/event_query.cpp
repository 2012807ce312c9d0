// The wait loop of event-answered requests. The service may send the events
// of a request before its reply reaches this connection (the daemon writes
// events and replies from different threads), so events of the awaited ids
// that come first are kept until the reply says whether the request was
// accepted.
#include <algorithm>
#include <cmath>
#include <ctime>
#include <unistd.h>

#include "lumctl/wire.h"

namespace lumctl {

namespace {

// Events of the awaited ids kept while the reply is outstanding; more are
// counted in dropped.
constexpr size_t kMaxEarlyEvents = 1024;

struct Waiter {
    const EventQuery& query;
    QueryOutcome* out;
    bool replied = false;
    std::vector<CtlEvent> early;

    bool awaited(int32_t id) const
    {
        return std::find(query.ids.begin(), query.ids.end(), id) != query.ids.end();
    }

    // One event; true when the handler is done.
    bool take(const CtlEvent& event)
    {
        if (event.dropped) {
            out->dropped += event.count;
            return false;
        }
        if (!awaited(event.id))
            return false;
        if (replied)
            return query.on_event(event) == EventStep::kDone;
        if (early.size() < kMaxEarlyEvents)
            early.push_back(event);
        else
            ++out->dropped;
        return false;
    }

    // A reply after the first: one of more_requests'. -1 when more replies
    // came than requests went out, 1 when the handler is done with it.
    int keep_more(const CtlReply& reply)
    {
        if (out->more_replies.size() >= query.more_requests.size())
            return -1;
        out->more_replies.push_back(reply);
        size_t index = out->more_replies.size() - 1;
        return query.on_more_reply && query.on_more_reply(index, reply) == EventStep::kDone ? 1 : 0;
    }

    // The reply: false when it refuses; else the kept events go to the
    // handler, *done telling whether it finished with them.
    bool accept(const CtlReply& reply, bool* done)
    {
        out->reply = reply;
        replied = true;
        if (!(query.accepts ? query.accepts(reply) : reply_accepted(reply)))
            return false;
        flush_early(done);
        return true;
    }

    // The events kept while the reply was outstanding go to the handler.
    void flush_early(bool* done)
    {
        for (const CtlEvent& event : early) {
            if (query.on_event(event) == EventStep::kDone) {
                *done = true;
                break;
            }
        }
        early.clear();
    }
};

// The request, then the ones behind it.
int send_all(int fd, const EventQuery& query, std::string* error)
{
    if (ctl_send_request(fd, query.request, error) != 0)
        return -1;
    for (const std::vector<uint8_t>& more : query.more_requests) {
        if (ctl_send_request(fd, more, error) != 0)
            return -1;
    }
    return 0;
}

QueryOutcome finish(QueryOutcome* out, QueryStatus status)
{
    out->status = status;
    return *out;
}

}  // namespace

double now_seconds()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

int time_left_ms(double deadline)
{
    if (deadline < 0)
        return -1;
    double left = deadline - now_seconds();
    return left <= 0 ? 0 : static_cast<int>(std::ceil(left * 1000));
}

bool reply_accepted(const CtlReply& reply)
{
    const Decoded posted = decode_reply("b", reply.bytes.data(), reply.bytes.size());
    return reply.result == 0 && !posted.fields.empty() && posted.fields[0].json == true;
}

// Runs the query on a connection that is already subscribed.
static QueryOutcome event_query_on(int fd, const EventQuery& query)
{
    QueryOutcome out;
    double deadline = now_seconds() + query.timeout_ms / 1000.0;
    if (send_all(fd, query, &out.error) != 0)
        return finish(&out, QueryStatus::kError);
    Waiter waiter{query, &out, false, {}};
    bool refused = false;  // refused, and on_refused waits for what comes behind
    for (;;) {
        CtlIncoming in;
        int wait = time_left_ms(deadline);
        bool tick = query.on_tick && query.tick_ms > 0 && (wait < 0 || wait > query.tick_ms);
        int rc = ctl_next_incoming(fd, tick ? query.tick_ms : wait, &in, &out.error);
        if (rc == 0 && tick) {
            query.on_tick();
            continue;
        }
        if (rc <= 0 && refused)
            return finish(&out, QueryStatus::kRefused);
        if (rc <= 0)
            return finish(&out, rc == 0 ? QueryStatus::kTimeout : QueryStatus::kError);
        bool done = false;
        if (in.is_reply && waiter.replied) {
            int more = waiter.keep_more(in.reply);
            if (more < 0)
                out.error = "more REPLY frames than requests";
            if (more != 0)
                return finish(&out, more < 0 ? QueryStatus::kError
                                             : refused ? QueryStatus::kRefused : QueryStatus::kDone);
            continue;
        }
        if (in.is_reply && !waiter.accept(in.reply, &done)) {
            if (!query.on_refused || query.on_refused(in.reply) == EventStep::kDone)
                return finish(&out, QueryStatus::kRefused);
            refused = true;
            waiter.flush_early(&done);
        }
        if (in.is_reply && query.after_reply_ms >= 0)
            deadline = std::min(deadline, now_seconds() + query.after_reply_ms / 1000.0);
        if (!in.is_reply)
            done = waiter.take(in.event);
        if (done)
            return finish(&out, refused ? QueryStatus::kRefused : QueryStatus::kDone);
    }
}

QueryOutcome event_query(const std::string& socket_path, const EventQuery& query)
{
    QueryOutcome out;
    int fd = ctl_connect(socket_path);
    if (fd < 0) {
        out.error = connect_error(socket_path, -fd);
        return out;
    }
    if (ctl_subscribe(fd, &out.error) != 0) {
        close(fd);
        return out;
    }
    out = event_query_on(fd, query);
    close(fd);
    return out;
}

}  // namespace lumctl
