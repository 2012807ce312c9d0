// Bounded subscriber queues and the hub that fills them.
#include "event_fanout.h"

#include <algorithm>
#include <cstring>

#include "host_log.h"

namespace lumhost {

namespace {

bool queue_has_room(const SubscriberQueue& queue, size_t len)
{
    return queue.items.size() < queue.max_events && queue.bytes + len <= queue.max_bytes;
}

}  // namespace

bool queue_push(SubscriberQueue* queue, const std::shared_ptr<const EventBlob>& blob)
{
    size_t len = blob->data.size();
    std::unique_lock<std::mutex> hold(queue->lock);
    if (queue->closed)
        return true;
    if (!queue_has_room(*queue, len)) {
        if (queue->pending_drops == 0)
            HOST_LOG(WARN, "fd %d falls behind: dropping events (%zu queued)", queue->fd,
                     queue->items.size());
        if (queue->pending_drops < UINT32_MAX)
            ++queue->pending_drops;
        ++queue->dropped_total;
        return false;
    }
    if (queue->pending_drops > 0)
        HOST_LOG(WARN, "fd %d: %u events dropped, %llu in all", queue->fd, queue->pending_drops,
                 static_cast<unsigned long long>(queue->dropped_total));
    queue->items.push_back(QueuedEvent{blob, queue->pending_drops});
    queue->pending_drops = 0;
    queue->bytes += len;
    hold.unlock();
    queue->ready.notify_one();
    return true;
}

bool queue_pop(SubscriberQueue* queue, QueuedEvent* out)
{
    std::unique_lock<std::mutex> hold(queue->lock);
    queue->ready.wait(hold, [queue] { return queue->closed || !queue->items.empty(); });
    if (queue->closed)
        return false;
    *out = std::move(queue->items.front());
    queue->items.pop_front();
    queue->bytes -= out->blob->data.size();
    return true;
}

void queue_close(SubscriberQueue* queue)
{
    {
        std::lock_guard<std::mutex> hold(queue->lock);
        queue->closed = true;
        queue->items.clear();
        queue->bytes = 0;
    }
    queue->ready.notify_all();
}

void hub_add(EventHub* hub, const std::shared_ptr<SubscriberQueue>& queue)
{
    std::lock_guard<std::mutex> hold(hub->lock);
    hub->subscribers.push_back(queue);
}

void hub_remove(EventHub* hub, const SubscriberQueue* queue)
{
    std::lock_guard<std::mutex> hold(hub->lock);
    auto& subs = hub->subscribers;
    subs.erase(std::remove_if(subs.begin(), subs.end(),
                              [queue](const std::shared_ptr<SubscriberQueue>& s) {
                                  return s.get() == queue;
                              }),
               subs.end());
}

void hub_publish(EventHub* hub, int event, const void* data, size_t len)
{
    std::lock_guard<std::mutex> hold(hub->lock);
    ++hub->published;
    if (hub->subscribers.empty())
        return;
    if (len > hub->max_event_bytes) {
        HOST_LOG(WARN, "event %d of %zu bytes is above the frame limit; dropped", event, len);
        hub->dropped += hub->subscribers.size();
        return;
    }
    auto blob = std::make_shared<EventBlob>();
    blob->id = event;
    if (len > 0 && data != nullptr)
        blob->data.assign(static_cast<const uint8_t*>(data), static_cast<const uint8_t*>(data) + len);
    std::shared_ptr<const EventBlob> shared = blob;
    for (const auto& sub : hub->subscribers) {
        if (!queue_push(sub.get(), shared))
            ++hub->dropped;
    }
}

void hub_counts(EventHub* hub, uint64_t* published, uint64_t* dropped)
{
    std::lock_guard<std::mutex> hold(hub->lock);
    *published = hub->published;
    *dropped = hub->dropped;
}

}  // namespace lumhost
