// Start-up of lumstoraged: bind the socket while the process is still single
// threaded (the umask trick is process-wide), install the event sink, start
// the service, then accept clients and say so.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "host_log.h"
#include "lumhost/daemon.h"

namespace lumhost {

namespace {

// The socket path for the signal handler, which may only make
// async-signal-safe calls. Once the server runs, the handler hands the stop
// to the main thread through the pipe, which lets go of the connection
// threads before the process ends; before that it ends the process itself.
char g_socket_path[108];
int g_stop_pipe[2] = {-1, -1};
volatile sig_atomic_t g_serving = 0;

void on_stop_signal(int)
{
    if (g_serving != 0 && write(g_stop_pipe[1], "x", 1) == 1)
        return;
    unlink(g_socket_path);
    _exit(0);
}

// Waits for a stop signal, then ends the process at once: the socket file
// goes, the finished connection threads are joined and the others left.
[[noreturn]] void serve_until_stopped(HostServer* server)
{
    char byte = 0;
    while (read(g_stop_pipe[0], &byte, 1) < 0 && errno == EINTR) {
    }
    unlink(g_socket_path);
    host_server_abandon(server);
    _exit(0);
}

int install_signals(const std::string& path)
{
    snprintf(g_socket_path, sizeof(g_socket_path), "%s", path.c_str());
    if (pipe2(g_stop_pipe, O_CLOEXEC) != 0)
        return -errno;
    struct sigaction sa{};
    sa.sa_handler = on_stop_signal;
    sigemptyset(&sa.sa_mask);
    if (sigaction(SIGTERM, &sa, nullptr) != 0 || sigaction(SIGINT, &sa, nullptr) != 0)
        return -errno;
    signal(SIGPIPE, SIG_IGN);
    return 0;
}

void announce_ready(const DaemonOptions& options)
{
    char line[160];
    int len = snprintf(line, sizeof(line), "lumstoraged: listening on %s\n",
                       options.socket_path.c_str());
    if (len < 0 || static_cast<size_t>(len) >= sizeof(line))
        len = static_cast<int>(strlen(line));
    fputs(line, stderr);
    fflush(stderr);
    if (options.ready_fd < 0)
        return;
    if (write(options.ready_fd, line, static_cast<size_t>(len)) != len)
        HOST_LOG(WARN, "ready fd %d: %s", options.ready_fd, strerror(errno));
    close(options.ready_fd);
}

int parse_or_usage(int argc, char** argv, DaemonOptions* options)
{
    std::string error;
    if (parse_daemon_options(argc, argv, options, &error) != 0) {
        fprintf(stderr, "lumstoraged: %s\n%s", error.c_str(), daemon_usage());
        return 2;
    }
    if (options->help) {
        fputs(daemon_usage(), stdout);
        return 0;
    }
    return -1;
}

}  // namespace

int lumstoraged_main(int argc, char** argv, const DaemonHooks& hooks)
{
    DaemonOptions options;
    int early = parse_or_usage(argc, argv, &options);
    if (early >= 0)
        return early;
    HostConfig config;
    config.socket_path = options.socket_path;
    config.group = options.group;
    ListenSocket listen_socket;
    int rc = host_listen(config, &listen_socket);
    if (rc == 0)
        rc = install_signals(config.socket_path);
    if (rc != 0) {
        fprintf(stderr, "lumstoraged: cannot listen on %s: %s\n", config.socket_path.c_str(),
                strerror(-rc));
        return 1;
    }
    host_emal_attach(nullptr);
    if (hooks.init() != 0)
        HOST_LOG(WARN, "service start-up reported a failure; serving anyway");
    HostServer* server = nullptr;
    if (host_server_start(config, listen_socket, hooks.invoke, &server) != 0) {
        unlink(config.socket_path.c_str());
        return 1;
    }
    host_emal_attach(server);
    announce_ready(options);
    HOST_LOG(INFO, "serving on %s", config.socket_path.c_str());
    g_serving = 1;
    serve_until_stopped(server);
}

}  // namespace lumhost
