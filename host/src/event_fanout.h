// Event fan-out: one bounded queue per subscriber. Publishing copies the
// event once and hands a reference to every queue; a full queue loses the
// event and counts the loss, so a slow client never holds up the service.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

namespace lumhost {

struct EventBlob {
    int32_t id;
    std::vector<uint8_t> data;
};

struct QueuedEvent {
    std::shared_ptr<const EventBlob> blob;
    uint32_t dropped_before;  // events lost between the previous one and this one
};

struct SubscriberQueue {
    std::mutex lock;
    std::condition_variable ready;
    std::deque<QueuedEvent> items;
    size_t bytes = 0;
    size_t max_events = 0;
    size_t max_bytes = 0;
    uint32_t pending_drops = 0;
    uint64_t dropped_total = 0;
    bool closed = false;
    int fd = -1;  // the connection, for log lines
};

// Queues an event; false when the queue is full and the event was lost.
bool queue_push(SubscriberQueue* queue, const std::shared_ptr<const EventBlob>& blob);
// Waits for the next event; false once the queue is closed.
bool queue_pop(SubscriberQueue* queue, QueuedEvent* out);
void queue_close(SubscriberQueue* queue);

struct EventHub {
    std::mutex lock;
    std::vector<std::shared_ptr<SubscriberQueue>> subscribers;
    size_t max_event_bytes = 0;
    uint64_t published = 0;
    uint64_t dropped = 0;
};

void hub_add(EventHub* hub, const std::shared_ptr<SubscriberQueue>& queue);
void hub_remove(EventHub* hub, const SubscriberQueue* queue);
// Every subscriber sees events in the same order: queues are filled under
// the hub's lock.
void hub_publish(EventHub* hub, int event, const void* data, size_t len);
void hub_counts(EventHub* hub, uint64_t* published, uint64_t* dropped);

}  // namespace lumhost
