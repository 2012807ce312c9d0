// The service tests run in their own IPC namespace, because the service's
// queue name is system-wide, with their own /tmp, so that a test can see
// every temporary file the shell layer makes, and in their own network
// namespace, so that the uevents they inject reach nobody else. Without root an unprivileged
// user namespace gives the same; without either, the tests that need it skip.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "test_support.h"

int child_main(const char* name);

namespace {

bool write_file(const char* path, const char* text)
{
    int fd = open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    bool ok = write(fd, text, strlen(text)) == static_cast<ssize_t>(strlen(text));
    close(fd);
    return ok;
}

bool enter_namespaces()
{
    if (unshare(CLONE_NEWIPC | CLONE_NEWNS | CLONE_NEWNET) != 0) {
        uid_t uid = geteuid();
        gid_t gid = getegid();
        if (unshare(CLONE_NEWUSER | CLONE_NEWIPC | CLONE_NEWNS | CLONE_NEWNET) != 0)
            return false;
        char map[64];
        snprintf(map, sizeof(map), "0 %u 1", uid);
        write_file("/proc/self/setgroups", "deny");
        snprintf(map, sizeof(map), "0 %u 1", uid);
        if (!write_file("/proc/self/uid_map", map))
            return false;
        snprintf(map, sizeof(map), "0 %u 1", gid);
        if (!write_file("/proc/self/gid_map", map))
            return false;
    }
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return false;
    if (mount("lumtest", "/tmp", "tmpfs", 0, "mode=1777") != 0)
        return false;
    mkdir("/tmp/property", 0700);
    setenv("LMDROID_PROPERTY_DIR", "/tmp/property", 1);
    return true;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc == 3 && strcmp(argv[1], "--child") == 0)
        return child_main(argv[2]);
    // The television runs its tools in the C locale; GNU grep in a UTF-8
    // locale would call a line with a GBK label binary.
    setenv("LC_ALL", "C", 1);
    g_isolated = enter_namespaces();
    if (!g_isolated)
        fprintf(stderr, "service_tests: no private namespaces (%s); tests that need them skip\n",
                strerror(errno));
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
