#include "child.h"

#include <cutils/properties.h>
#include <lmdroid/log_hook.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/wait.h>
#include <unistd.h>

namespace lmdroid_test {
namespace {
// get: prints property LMDROID_TEST_KEY. set: sets it to LMDROID_TEST_VALUE. setloop: sets it to "first" and
// "second value" in turn, forever, printing "r" after the first set. threshold: prints the log threshold.
int child_main(const char* mode) {
    const char* key = getenv("LMDROID_TEST_KEY");
    char value[PROPERTY_VALUE_MAX];
    if (strcmp(mode, "get") == 0) {
        property_get(key, value, "<none>");
        fputs(value, stdout);
    } else if (strcmp(mode, "set") == 0) {
        return property_set(key, getenv("LMDROID_TEST_VALUE")) == 0 ? 0 : 1;
    } else if (strcmp(mode, "threshold") == 0) {
        printf("%d", lmdroid_get_log_threshold());
    } else if (strcmp(mode, "setloop") == 0) {
        for (unsigned i = 0;; ++i) {
            if (property_set(key, i % 2 ? "second value" : "first") != 0) return 1;
            if (i == 0) {
                fputs("r", stdout);
                fflush(stdout);
            }
        }
    }
    return 0;
}

// Runs before GoogleTest's main(), which a child never reaches.
[[maybe_unused]] const bool g_dispatched = [] {
    const char* mode = getenv("LMDROID_TEST_CHILD");
    if (mode == nullptr) return false;
    int rc = child_main(mode);
    fflush(stdout);
    _exit(rc);
}();

}  // namespace

pid_t spawn_child(const char* mode, int* out_fd) {
    int fds[2];
    if (pipe(fds) != 0) return -1;
    setenv("LMDROID_TEST_CHILD", mode, 1);
    pid_t pid = fork();
    if (pid == 0) {
        dup2(fds[1], STDOUT_FILENO);
        execl("/proc/self/exe", "lmdroid_tests", static_cast<char*>(nullptr));
        _exit(127);
    }
    unsetenv("LMDROID_TEST_CHILD");
    close(fds[1]);
    if (pid < 0) close(fds[0]);
    *out_fd = fds[0];
    return pid;
}

std::string run_child(const char* mode, int* status) {
    int fd = -1;
    pid_t pid = spawn_child(mode, &fd);
    std::string out;
    *status = -1;
    if (pid < 0) return out;
    char buf[256];
    ssize_t n;
    while ((n = read(fd, buf, sizeof buf)) > 0) out.append(buf, static_cast<size_t>(n));
    close(fd);
    int ws = 0;
    *status = (waitpid(pid, &ws, 0) == pid && WIFEXITED(ws)) ? WEXITSTATUS(ws) : -1;
    return out;
}

}  // namespace lmdroid_test
