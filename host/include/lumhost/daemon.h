// lumstoraged's main as a library function: the binary passes the service's
// hub and StorageSystemInit, tests pass fakes.
#pragma once

#include <string>

#include "lumhost/server.h"

namespace lumhost {

struct DaemonOptions {
    std::string socket_path;
    std::string group;
    int ready_fd = -1;
    bool help = false;
};

// Fills options from argv; the default socket path comes from
// LUMSTORAGED_SOCKET, else kDefaultSocketPath. Returns 0, or -1 with a
// message in error.
int parse_daemon_options(int argc, char** argv, DaemonOptions* options, std::string* error);
const char* daemon_usage();

struct DaemonHooks {
    InvokeFn invoke;
    int (*init)();  // starts the service; called once, after the socket is bound
};

// Runs the daemon; returns only on a start-up failure (exit code 1 or 2) or
// after --help (0). SIGTERM and SIGINT remove the socket file and end the
// process with _exit(0).
int lumstoraged_main(int argc, char** argv, const DaemonHooks& hooks);

}  // namespace lumhost
