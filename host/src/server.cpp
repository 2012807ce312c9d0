// The accept loop. Each allowed peer gets a thread; a peer whose credentials
// are not allowed is closed before the daemon reads a byte from it. A
// finished connection thread pokes the accept loop, which joins it and only
// then closes its socket, so a socket number is never reused while a thread
// may still use it.
#include <atomic>
#include <cerrno>
#include <cstring>
#include <list>
#include <memory>
#include <mutex>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "connection.h"
#include "host_log.h"
#include "lumproto/frame_io.h"

namespace lumhost {

namespace {

struct ClientSlot {
    int fd = -1;
    std::thread thread;
    std::atomic<bool> done{false};
};

}  // namespace

struct HostServer {
    ServerShared shared;
    ListenSocket listen_socket;
    int wake_fd = -1;  // stop
    int reap_fd = -1;  // a connection thread finished
    std::thread acceptor;
    std::mutex slots_lock;
    std::list<std::unique_ptr<ClientSlot>> slots;
    std::atomic<uint64_t> accepted{0};
    std::atomic<uint64_t> refused{0};
    std::atomic<uint64_t> turned_away{0};
};

namespace {

void run_client(HostServer* server, ClientSlot* slot, PeerCred peer)
{
    serve_connection(&server->shared, slot->fd, peer);
    HOST_LOG(DEBUG, "pid %d fd %d closed", static_cast<int>(peer.pid), slot->fd);
    slot->done.store(true, std::memory_order_release);
    uint64_t one = 1;
    if (write(server->reap_fd, &one, sizeof(one)) != sizeof(one))
        HOST_LOG(ERROR, "eventfd write: %s", strerror(errno));
}

// Joins finished connections; returns how many are still running.
size_t reap_slots(HostServer* server)
{
    std::lock_guard<std::mutex> hold(server->slots_lock);
    for (auto it = server->slots.begin(); it != server->slots.end();) {
        if ((*it)->done.load(std::memory_order_acquire)) {
            (*it)->thread.join();
            close((*it)->fd);
            it = server->slots.erase(it);
        } else {
            ++it;
        }
    }
    return server->slots.size();
}

bool check_peer(HostServer* server, int fd, PeerCred* peer)
{
    int rc = peer_credentials(fd, peer);
    if (rc != 0) {
        HOST_LOG(ERROR, "fd %d: no peer credentials (%s); closed", fd, strerror(-rc));
        return false;
    }
    if (peer_allowed(server->listen_socket.policy, *peer))
        return true;
    HOST_LOG(WARN, "refused pid %d uid %u gid %u: not allowed; closed unread",
             static_cast<int>(peer->pid), static_cast<unsigned>(peer->uid),
             static_cast<unsigned>(peer->gid));
    server->refused.fetch_add(1, std::memory_order_relaxed);
    return false;
}

void admit(HostServer* server, int fd)
{
    PeerCred peer{};
    if (!check_peer(server, fd, &peer)) {
        close(fd);
        return;
    }
    if (reap_slots(server) >= server->shared.config.max_clients) {
        HOST_LOG(WARN, "pid %d: %zu clients already; turned away", static_cast<int>(peer.pid),
                 server->shared.config.max_clients);
        server->turned_away.fetch_add(1, std::memory_order_relaxed);
        const char text[] = "too many clients";
        lumproto::write_frame(fd, lumproto::kError, text, sizeof(text) - 1);
        close(fd);
        return;
    }
    server->accepted.fetch_add(1, std::memory_order_relaxed);
    HOST_LOG(DEBUG, "pid %d uid %u fd %d connected", static_cast<int>(peer.pid),
             static_cast<unsigned>(peer.uid), fd);
    auto slot = std::make_unique<ClientSlot>();
    slot->fd = fd;
    ClientSlot* raw = slot.get();
    std::lock_guard<std::mutex> hold(server->slots_lock);
    server->slots.push_back(std::move(slot));
    raw->thread = std::thread(run_client, server, raw, peer);
}

void accept_loop(HostServer* server)
{
    pollfd fds[3] = {{server->listen_socket.fd, POLLIN, 0},
                     {server->wake_fd, POLLIN, 0},
                     {server->reap_fd, POLLIN, 0}};
    for (;;) {
        if (poll(fds, 3, -1) < 0) {
            if (errno == EINTR)
                continue;
            HOST_LOG(ERROR, "poll: %s", strerror(errno));
            return;
        }
        if (fds[1].revents != 0)
            return;
        if (fds[2].revents != 0) {
            uint64_t count = 0;
            if (read(server->reap_fd, &count, sizeof(count)) < 0)
                HOST_LOG(ERROR, "eventfd read: %s", strerror(errno));
            reap_slots(server);
        }
        if (fds[0].revents == 0)
            continue;
        int fd = accept4(server->listen_socket.fd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno != EINTR && errno != ECONNABORTED && errno != EAGAIN)
                HOST_LOG(WARN, "accept: %s", strerror(errno));
            continue;
        }
        admit(server, fd);
    }
}

// Wakes the accept loop to end and waits for it.
void stop_accepting(HostServer* server)
{
    uint64_t one = 1;
    if (write(server->wake_fd, &one, sizeof(one)) != sizeof(one))
        HOST_LOG(ERROR, "eventfd write: %s", strerror(errno));
    server->acceptor.join();
}

}  // namespace

int host_server_start(const HostConfig& config, const ListenSocket& listen_socket,
                      InvokeFn invoke, HostServer** out)
{
    auto server = std::make_unique<HostServer>();
    server->shared.config = config;
    server->shared.invoke = std::move(invoke);
    server->shared.hub.max_event_bytes = config.max_payload - 4;
    server->listen_socket = listen_socket;
    server->wake_fd = eventfd(0, EFD_CLOEXEC);
    server->reap_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (server->wake_fd < 0 || server->reap_fd < 0) {
        int err = errno;
        HOST_LOG(ERROR, "eventfd: %s", strerror(err));
        close(listen_socket.fd);
        close(server->wake_fd);
        close(server->reap_fd);
        return -err;
    }
    server->acceptor = std::thread(accept_loop, server.get());
    *out = server.release();
    return 0;
}

void host_server_stop(HostServer* server)
{
    stop_accepting(server);
    {
        std::lock_guard<std::mutex> hold(server->slots_lock);
        for (auto& slot : server->slots)
            shutdown(slot->fd, SHUT_RDWR);
    }
    for (auto& slot : server->slots) {
        slot->thread.join();
        close(slot->fd);
    }
    close(server->listen_socket.fd);
    close(server->wake_fd);
    close(server->reap_fd);
    unlink(server->listen_socket.path.c_str());
    delete server;
}

void host_server_abandon(HostServer* server)
{
    stop_accepting(server);
    std::lock_guard<std::mutex> hold(server->slots_lock);
    for (auto& slot : server->slots) {
        if (slot->done.load(std::memory_order_acquire))
            slot->thread.join();
        else
            slot->thread.detach();
    }
}

void host_server_publish(HostServer* server, int event, const void* data, size_t len)
{
    hub_publish(&server->shared.hub, event, data, len);
}

HostStats host_server_stats(HostServer* server)
{
    HostStats stats{};
    stats.accepted = server->accepted.load();
    stats.refused = server->refused.load();
    stats.turned_away = server->turned_away.load();
    stats.requests = server->shared.requests.load();
    hub_counts(&server->shared.hub, &stats.events, &stats.events_dropped);
    return stats;
}

}  // namespace lumhost
