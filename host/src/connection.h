// One client connection: frames in, replies and events out.
#pragma once

#include <atomic>
#include <cstdint>

#include "event_fanout.h"
#include "lumhost/server.h"

namespace lumhost {

// What every connection of one server shares.
struct ServerShared {
    HostConfig config;
    InvokeFn invoke;
    EventHub hub;
    std::atomic<uint64_t> requests{0};
};

// Serves the connection until the peer leaves or breaks the protocol. The
// caller owns fd and closes it after this returns; on return the socket is
// shut down and every thread this connection started has ended.
void serve_connection(ServerShared* shared, int fd, const PeerCred& peer);

}  // namespace lumhost
