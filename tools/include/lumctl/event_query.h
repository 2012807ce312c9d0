// Requests the service answers by event: subscribe, send the request, then
// hand the awaited events to a handler until it says done, the reply
// refuses the request, or the time runs out.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "lumctl/ctl_client.h"

namespace lumctl {

enum class EventStep { kMore, kDone };

struct EventQuery {
    std::vector<uint8_t> request;  // the request Parcel, command word first
    // Requests sent right behind request on the same connection, which the
    // daemon hands to the service in this order (an end marker, say). Their
    // replies are kept in QueryOutcome::more_replies and decide nothing.
    std::vector<std::vector<uint8_t>> more_requests;
    std::vector<int32_t> ids;      // events handed to on_event; others are skipped
    int timeout_ms = 60000;        // from the send to the handler's kDone
    // Called with each event whose id is in ids, in arrival order, once the
    // reply accepted the request (events that came before the reply are
    // kept and handed over right after it).
    std::function<EventStep(const CtlEvent& event)> on_event;
    // Optional: called with each reply of more_requests (its index in
    // more_requests), once the first reply accepted the request.
    std::function<EventStep(size_t index, const CtlReply& reply)> on_more_reply;
    // Optional: whether the reply accepted the request, instead of
    // reply_accepted(). Commands the service runs on the caller's thread
    // send their result event before the reply, even when the reply is
    // false.
    std::function<bool(const CtlReply& reply)> accepts;
    // Optional: called when the reply refuses the request. kMore keeps the
    // wait going, with events and the replies of more_requests still going
    // to their handlers, until they say kDone or the time runs out; the
    // outcome stays kRefused. For requests behind it that still answer with
    // events which must not be left for the next client on the socket.
    std::function<EventStep(const CtlReply& reply)> on_refused;
    // 0 or more: once the reply accepted the request, the wait ends at most
    // this many milliseconds after it (the events were sent before it).
    int after_reply_ms = -1;
    // Optional: called every tick_ms while nothing arrives (a progress line).
    std::function<void()> on_tick;
    int tick_ms = 0;
};

enum class QueryStatus {
    kDone,     // the handler returned kDone
    kRefused,  // the reply was not bool true: no event will come
    kTimeout,  // the time ran out first
    kError,    // connection or protocol error, see error
};

struct QueryOutcome {
    QueryStatus status = QueryStatus::kError;
    CtlReply reply{0, {}};  // when a reply came
    std::vector<CtlReply> more_replies;  // of more_requests, as far as they came
    uint64_t dropped = 0;   // events the daemon lost for this connection meanwhile
    std::string error;
};

// Events of the awaited ids kept while the reply is outstanding; more are
// counted in dropped.
constexpr size_t kMaxEarlyEvents = 1024;

// True when the reply is result 0 and a bool true: the service queued the
// request and will answer by event.
bool reply_accepted(const CtlReply& reply);

// Runs the query on a connection that is already subscribed.
QueryOutcome event_query_on(int fd, const EventQuery& query);

// Connects to socket_path, subscribes, runs the query and closes.
QueryOutcome event_query(const std::string& socket_path, const EventQuery& query);

}  // namespace lumctl
