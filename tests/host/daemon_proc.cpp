#include "daemon_proc.h"

#include <csignal>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "lumproto/frame_io.h"
#include "service_sandbox.h"

namespace hosttest {
Proc spawn(const std::vector<std::string>& args, bool ready_fd, void (*setup)())
{
    int p[2];
    int e[2];
    Proc proc;
    if (pipe2(p, O_CLOEXEC) != 0 || pipe2(e, O_CLOEXEC) != 0)
        return proc;
    proc.pid = fork();
    if (proc.pid == 0) {
        if (setup != nullptr)
            setup();
        dup2(p[1], ready_fd ? 3 : 1);
        if (!ready_fd)
            dup2(e[1], 2);
        std::vector<char*> argv;
        for (const std::string& a : args)
            argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    close(p[1]);
    close(e[1]);
    proc.out = p[0];
    if (ready_fd)
        close(e[0]);
    else
        proc.err = e[0];
    return proc;
}

std::string drain(int fd, int timeout_ms)
{
    std::string out;
    char buf[4096];
    while (lumproto::wait_readable(fd, timeout_ms) > 0) {
        ssize_t n = read(fd, buf, sizeof(buf));
        if (n <= 0)
            break;
        out.append(buf, static_cast<size_t>(n));
    }
    return out;
}

int wait_exit(pid_t pid, int timeout_ms)
{
    int status = 0;
    for (int waited = 0; waited <= timeout_ms; waited += 10) {
        if (waitpid(pid, &status, WNOHANG) == pid)
            return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        usleep(10000);
    }
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
    return -1;
}

RunResult run(const std::vector<std::string>& args)
{
    Proc p = spawn(args, false);
    std::string out = drain(p.out, 20000);
    std::string err = drain(p.err, 5000);
    close(p.out);
    close(p.err);
    return RunResult{wait_exit(p.pid, 20000), out, err};
}

bool Daemon::start(const char* bin, const std::string& socket, void (*setup)(), const std::vector<std::string>& more)
{
    std::vector<std::string> args{bin, "--socket", socket, "--ready-fd", "3"};
    args.insert(args.end(), more.begin(), more.end());
    proc = spawn(args, true, setup);
    ready = drain(proc.out, 20000);
    close(proc.out);
    return ready == "lumstoraged: listening on " + socket + "\n";
}

int Daemon::stop() { kill(proc.pid, SIGTERM); return wait_exit(proc.pid, 10000); }

void enter_daemon_sandbox()
{
    if (!enter_service_sandbox(false))
        _exit(90);
}

}  // namespace hosttest
