#include "ShellProbe.h"

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <csignal>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "ServiceLog.h"

extern char** environ;

const char TEMP_FILE_TEMPLATE[20] = "/tmp/fsdrv_XXXXXX";

int trim_eol(char* line)
{
    if (line == nullptr)
        return 0;
    size_t len = strlen(line);
    if (len > 0 && line[len - 1] == '\n')
        line[--len] = '\0';
    return static_cast<int>(len);
}

namespace {

int64_t now_ms()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Milliseconds from now until deadline_ms, 0 when it has passed.
int ms_until(int64_t deadline_ms)
{
    int64_t left = deadline_ms - now_ms();
    return left > 0 ? static_cast<int>(left) : 0;
}

// Waits up to ms milliseconds (-1: for ever) for the child pid to end,
// without reaping it. true when it ended.
bool wait_exit(pid_t pid, int ms)
{
    int fd = ms < 0 ? -1 : static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    if (fd >= 0) {
        struct pollfd p = {fd, POLLIN, 0};
        int n;
        while ((n = poll(&p, 1, ms)) < 0 && errno == EINTR) {
        }
        close(fd);
        if (n == 0)
            return false;
    }
    // A kernel without pidfd_open is waited for without a bound.
    siginfo_t info;
    while (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT) < 0) {
        if (errno != EINTR)
            return true;  // nothing to wait for: waitpid tells
    }
    return true;
}

// Ends a shell that ran past its time: TERM to its process group, then KILL.
// false when even KILL does not end it (a process stuck in the kernel on a
// disk that went away): it is left to a thread of its own that reaps it
// whenever it ends.
bool stop_overdue(pid_t pid, const char* line, int seconds)
{
    SLOGE("[%s, %d] ***E: '%s' still runs after %d s, stopped\n", line, seconds);
    kill(-pid, SIGTERM);
    if (wait_exit(pid, SHELL_TERM_GRACE_MS))
        return true;
    kill(-pid, SIGKILL);
    if (wait_exit(pid, SHELL_KILL_GRACE_MS))
        return true;
    SLOGE("[%s, %d] ***E: '%s' does not end, left behind\n", line);
    std::thread([pid] {
        int status;
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
    }).detach();
    return false;
}

// Starts "/bin/sh -c line" leading a process group of its own, with its
// standard output on out (-1: the service's). The pid, or -1 with errno.
// posix_spawn starts it with vfork semantics, so a service with a large
// address space does not pay for copying its page tables on every command.
pid_t spawn_shell(const char* line, int out)
{
    char arg0[] = "sh";
    char arg1[] = "-c";
    char* argv[] = {arg0, arg1, const_cast<char*>(line), nullptr};
    // The shell starts with an empty signal mask and SIGPIPE at its default,
    // whatever the calling thread blocks or the hosting process ignores, so
    // pipelines behave as they do from a terminal.
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    sigset_t none, defaults;
    sigemptyset(&none);
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setsigdefault(&attr, &defaults);
    posix_spawnattr_setpgroup(&attr, 0);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
    // Standard input is /dev/null: no command ever waits for an answer (rm
    // asks before it removes a write-protected file when its input is a
    // terminal) and none reads what belongs to the hosting process.
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    if (out >= 0)
        posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
    pid_t pid;
    int err = posix_spawn(&pid, "/bin/sh", &actions, &attr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attr);
    errno = err;
    return err == 0 ? pid : -1;
}

// Waits for the shell pid until deadline_ms on the monotonic clock, stops it
// when it is late, and returns its wait status as system(3) does; -1 when it
// had to be left behind. pgid (may be null) holds its group while it runs.
int end_shell(pid_t pid, const char* line, std::atomic<int>* pgid, int64_t deadline_ms, int seconds)
{
    bool ended = wait_exit(pid, ms_until(deadline_ms)) || stop_overdue(pid, line, seconds);
    // The group's id is given up while the ended shell still holds it, so
    // that a late signal never reaches a group that reuses the number.
    if (pgid != nullptr)
        pgid->store(0);
    if (!ended)
        return -1;
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR)
            return -1;
    }
    return status;
}

// Runs "/bin/sh -c line" and returns its wait status as system(3) does, -1
// when the shell could not be started or had to be left behind. The shell's
// process group stands in *pgid (may be null) while it runs, so that
// everything it started can be signalled at once. It gets seconds to end
// before it is stopped.
int run_shell(const char* line, std::atomic<int>* pgid, int seconds)
{
    pid_t pid = spawn_shell(line, -1);
    if (pid < 0)
        return -1;
    if (pgid != nullptr)
        pgid->store(pid);
    return end_shell(pid, line, pgid, now_ms() + seconds * 1000LL, seconds);
}

// A unique temporary file from TEMP_FILE_TEMPLATE; name gets its path.
// Returns the descriptor, or -errno.
int make_temp_file(char name[20])
{
    snprintf(name, 20, "%s", TEMP_FILE_TEMPLATE);
    int fd = mkostemp(name, O_APPEND | O_SYNC | O_CLOEXEC);
    return fd >= 0 ? fd : -errno;
}

// Runs cmd with its standard output in a new temporary file, whatever the
// command's own status. Returns the file's descriptor (name gets its path),
// or -errno when no file could be made and nothing ran.
int run_into_temp_file(const char* cmd, char name[20])
{
    int fd = make_temp_file(name);
    if (fd >= 0)
        call_system("%s > %s || true", cmd, name);
    return fd;
}

int read_into(char* buf, int size, const char* filename)
{
    buf[0] = '\0';
    FILE* file = fopen(filename, "re");
    if (file == nullptr)
        return 0;
    size_t count = fread(buf, 1, static_cast<size_t>(size) - 1, file);
    buf[count] = '\0';
    fclose(file);
    return static_cast<int>(count);
}

}  // namespace

namespace {

bool line_length_fits(int len)
{
    return len >= 0 && len < SHELL_LINE_MAX - 1;
}

}  // namespace

bool shell_line_fits(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    int len = vsnprintf(nullptr, 0, format, args);
    va_end(args);
    return line_length_fits(len);
}

namespace {

// call_system of a line already formatted into a va_list.
int vcall_system(std::atomic<int>* pgid, int seconds, const char* format, va_list args)
{
    char line[SHELL_LINE_MAX];
    int len = vsnprintf(line, sizeof(line), format, args);
    if (!line_length_fits(len)) {
        SLOGE("[%s, %d] buffer overflow\n");
        return -1;
    }
    // Every command line, at verbose level: what a run costs in processes,
    // and a replay of it, can be read off the log.
    __android_log_print(ANDROID_LOG_VERBOSE, STORAGE_TAG_SERVICE, "[%s, %d] run: %s\n", "call_system", __LINE__,
                        line);
    int rc = run_shell(line, pgid, seconds);
    if (rc != 0)
        SLOGW("[%s, %d] system('%s'): rc=%d: %m\n", line, rc);
    // Folds the wait status into one byte: an exit code stays itself, a
    // terminating signal gives its number, a failed start (-1) gives 255.
    return ((rc >> 8) | rc) & 0xff;
}

}  // namespace

int call_system(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    int rc = vcall_system(nullptr, SHELL_WAIT_MAX_S, format, args);
    va_end(args);
    return rc;
}

int call_system_within(int seconds, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    int rc = vcall_system(nullptr, seconds, format, args);
    va_end(args);
    return rc;
}

int call_system_job(SHELL_JOB* job, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    int rc = vcall_system(job != nullptr ? &job->pgid : nullptr, SHELL_WAIT_MAX_S, format, args);
    va_end(args);
    return rc;
}

int call_system_output(const char* line, char* buf, size_t size)
{
    if (line == nullptr || buf == nullptr)
        return SHELL_ERR_BAD_ARGS;
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0)
        return -errno;
    pid_t pid = spawn_shell(line, fds[1]);
    int err = errno;
    close(fds[1]);
    if (pid < 0) {
        close(fds[0]);
        return -err;
    }
    const int64_t deadline = now_ms() + SHELL_WAIT_MAX_S * 1000LL;
    size_t got = 0;
    struct pollfd p = {fds[0], POLLIN, 0};
    while (got < size) {
        int n = poll(&p, 1, ms_until(deadline));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;  // the time is up: end_shell stops the command
        ssize_t r = read(fds[0], buf + got, size - got);
        if (r < 0 && errno == EINTR)
            continue;
        if (r <= 0)
            break;
        got += static_cast<size_t>(r);
    }
    // Output past size is not read: a command that goes on writing gets
    // SIGPIPE, as it does when popen's stream is closed.
    close(fds[0]);
    end_shell(pid, line, nullptr, deadline, SHELL_WAIT_MAX_S);
    return static_cast<int>(got);
}

bool shell_job_kill(SHELL_JOB* job, int sig)
{
    int pgid = job != nullptr ? job->pgid.load() : 0;
    return pgid > 0 && kill(-pgid, sig) == 0;
}

int buffer_read_from_file(char* buf, int size, const char* filename, ...)
{
    if (buf == nullptr || size <= 0)
        return SHELL_ERR_BAD_ARGS;
    char name[SHELL_FILENAME_MAX];
    va_list args;
    va_start(args, filename);
    vsnprintf(name, sizeof(name), filename, args);
    va_end(args);
    return read_into(buf, size, name);
}

namespace {

// Formats a command into cmd, runs it with its output in a temporary file and
// hands the file's name to use, with cmd free again for use's own work; the
// file goes away afterwards. Returns use's result, or -errno when no file
// could be made, logged with fail_text as the line of the caller.
template <typename Use>
int with_command_output(const char* caller, const char* fail_text, Use use, const char* command, va_list args)
{
    char cmd[SHELL_COMMAND_MAX];
    vsnprintf(cmd, sizeof(cmd), command, args);
    char name[20];
    int fd = run_into_temp_file(cmd, name);
    if (fd < 0) {
        __android_log_print(ANDROID_LOG_ERROR, STORAGE_TAG_SERVICE, fail_text, caller, __LINE__, -fd);
        return fd;
    }
    int result = use(name, cmd, static_cast<int>(sizeof(cmd)));
    close(fd);
    unlink(name);
    return result;
}

}  // namespace

int buffer_read_from_command(char* buf, int size, const char* command, ...)
{
    if (buf == nullptr || size <= 0)
        return SHELL_ERR_BAD_ARGS;
    va_list args;
    va_start(args, command);
    int result = with_command_output(
        __func__, "[%s, %d] create temp file failed! errno = %d.\n",
        [&](const char* name, char*, int) { return read_into(buf, size, name); }, command, args);
    va_end(args);
    return result;
}

namespace {

// Hands each line of an open file to callback; see parse_output_lines.
int feed_lines(FILE* file, char* line, int size, line_handler_t callback, void* context)
{
    while (!feof(file)) {
        if (fgets(line, size, file) == nullptr) {
            // A read error would leave feof false forever: end the loop.
            if (ferror(file)) {
                SLOGE("[%s, %d] ***E: reading command output failed. errno = %d.\n", errno);
                return -EIO;
            }
            continue;
        }
        trim_eol(line);
        int rc = callback(context, line);
        if (rc != 0)
            return rc;
    }
    return 0;
}

}  // namespace

int parse_output_lines(line_handler_t callback, void* context, const char* command, ...)
{
    if (callback == nullptr)
        return SHELL_ERR_BAD_ARGS;
    const char* caller = __func__;
    auto feed = [&](const char* name, char* line, int size) {
        FILE* file = fopen(name, "re");
        if (file == nullptr) {
            int result = -errno;
            __android_log_print(ANDROID_LOG_ERROR, STORAGE_TAG_SERVICE, "[%s, %d] open file. errno = %d.\n", caller,
                                __LINE__, -result);
            return result;
        }
        // The command array is free again: lines are read into it.
        int result = feed_lines(file, line, size, callback, context);
        fclose(file);
        return result;
    };
    va_list args;
    va_start(args, command);
    int result = with_command_output(caller, "[%s, %d] create temp file. errno = %d.\n", feed, command, args);
    va_end(args);
    return result;
}

int line_read_from_file(char* buf, int size, const char* filename, ...)
{
    if (buf == nullptr || size <= 0)
        return SHELL_ERR_BAD_ARGS;
    buf[0] = '\0';
    char name[SHELL_FILENAME_MAX];
    va_list args;
    va_start(args, filename);
    vsnprintf(name, sizeof(name), filename, args);
    va_end(args);

    FILE* file = fopen(name, "re");
    if (file == nullptr)
        return SHELL_ERR_NO_LINE;
    int result = SHELL_ERR_NO_LINE;
    if (fgets(buf, size, file) != nullptr)
        result = trim_eol(buf);
    fclose(file);
    return result;
}

int mtp_read_procfs(int minor, const char* item, char* buf, int size)
{
    return line_read_from_file(buf, size, "/proc/driver/mptp/%d/%s", minor, item);
}
