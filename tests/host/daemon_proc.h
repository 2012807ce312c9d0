// lumstoraged (the fake or the real one) and lumstoragectl as child
// processes of a host test: started, read from, waited for.
#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

namespace hosttest {
struct Proc {
    pid_t pid = -1;
    int out = -1;  // the child's standard output (or its ready fd)
    int err = -1;  // its standard error, when not started with a ready fd
};

// Starts args[0]; the child's stdout (or, with ready_fd, fd 3) goes to a pipe. setup runs in the child before exec.
Proc spawn(const std::vector<std::string>& args, bool ready_fd, void (*setup)() = nullptr);

// Everything the pipe gives until EOF or timeout.
std::string drain(int fd, int timeout_ms);

// Exit code, or -1 when the process did not exit within timeout_ms (it is then killed).
int wait_exit(pid_t pid, int timeout_ms);

struct RunResult {
    int code;
    std::string out, err;
};

// Runs args to their end (20 s at most) and gives exit code and output.
RunResult run(const std::vector<std::string>& args);

// A daemon started with --ready-fd; ready holds the line it wrote there.
struct Daemon {
    Proc proc;
    std::string ready;
    // True once the daemon says it listens on socket; more goes on its command line after the socket.
    bool start(const char* bin, const std::string& socket, void (*setup)() = nullptr,
               const std::vector<std::string>& more = {});
    int stop();
};

// For setup: the real service's sandbox (own IPC, network and mount namespaces, the machine's /tmp kept for
// the socket); a child that cannot enter it exits with 90.
void enter_daemon_sandbox();

}  // namespace hosttest
