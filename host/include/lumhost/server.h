// The socket server of lumstoraged as a library: it takes the invoke
// function as a parameter, so the daemon passes the service's hub and tests
// pass a fake.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include <binder/Parcel.h>

#include "lumhost/peer_auth.h"
#include "lumproto/frame.h"

namespace lumhost {

typedef std::function<int(const android::Parcel&, android::Parcel*)> InvokeFn;

struct HostConfig {
    std::string socket_path;
    std::string group;  // empty: owner only (0600); else 0660 and this group
    size_t max_clients = 64;
    uint32_t max_payload = lumproto::kMaxPayload;
    int frame_timeout_ms = 30000;
    size_t queue_max_events = 4096;
    size_t queue_max_bytes = 32u * 1024u * 1024u;
};

struct ListenSocket {
    int fd = -1;
    std::string path;
    AuthPolicy policy{};
};

// Creates the socket file (its directory too, when missing) with owner-only
// rights, or group rights with config.group, and listens. A stale socket
// file nobody answers on is replaced; a live one is an error. Returns 0 or
// -errno.
int host_listen(const HostConfig& config, ListenSocket* out);

struct HostStats {
    uint64_t accepted;
    uint64_t refused;        // peers turned away by their credentials
    uint64_t turned_away;    // allowed peers beyond max_clients
    uint64_t requests;
    uint64_t events;         // events handed to the server
    uint64_t events_dropped; // deliveries lost to full subscriber queues
};

struct HostServer;

// Starts accepting on the listening socket, which the server now owns.
// Returns 0 or -errno; on failure the socket is closed.
int host_server_start(const HostConfig& config, const ListenSocket& listen_socket,
                      InvokeFn invoke, HostServer** out);

// Closes every connection, joins every thread, removes the socket file and
// frees the server. The daemon never calls it; tests do.
void host_server_stop(HostServer* server);

// For a process about to _exit: stops accepting, joins the connection
// threads that have finished and detaches the others, without waiting for
// them (one may sit in a long command). No thread is left finished and
// unjoined, which a thread checker would report. The server stays
// allocated.
void host_server_abandon(HostServer* server);

// Copies one event into the queue of every subscriber; never blocks on a
// client. Callable from any thread.
void host_server_publish(HostServer* server, int event, const void* data, size_t len);

HostStats host_server_stats(HostServer* server);

// Routes EMAL_Notify to server (null: events are discarded). Once
// host_emal_detach returns, no event is on its way into a server.
void host_emal_attach(HostServer* server);
void host_emal_detach();

}  // namespace lumhost
