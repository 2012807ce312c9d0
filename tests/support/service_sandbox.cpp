#include "service_sandbox.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <initializer_list>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

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

bool enter_user_namespace(int flags)
{
    uid_t uid = geteuid();
    gid_t gid = getegid();
    if (unshare(CLONE_NEWUSER | flags) != 0)
        return false;
    char map[64];
    write_file("/proc/self/setgroups", "deny");
    snprintf(map, sizeof(map), "0 %u 1", uid);
    if (!write_file("/proc/self/uid_map", map))
        return false;
    snprintf(map, sizeof(map), "0 %u 1", gid);
    return write_file("/proc/self/gid_map", map);
}

}  // namespace

bool enter_service_sandbox(bool privateTmp)
{
    const int flags = CLONE_NEWIPC | CLONE_NEWNS | CLONE_NEWNET;
    if (unshare(flags) != 0 && !enter_user_namespace(flags))
        return false;
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return false;
    // /dev/null reads as an empty list of disks.
    for (const char* list : {"/proc/diskstats", "/proc/partitions"}) {
        if (mount("/dev/null", list, nullptr, MS_BIND, nullptr) != 0)
            return false;
    }
    if (privateTmp) {
        if (mount("lumsandbox", "/tmp", "tmpfs", 0, "mode=1777") != 0)
            return false;
        mkdir("/tmp/property", 0700);
        setenv("LMDROID_PROPERTY_DIR", "/tmp/property", 1);
    }
    // The television runs its tools in the C locale; GNU grep in a UTF-8
    // locale would call a line with a GBK label binary.
    setenv("LC_ALL", "C", 1);
    return true;
}
