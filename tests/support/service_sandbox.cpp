#include "service_sandbox.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <climits>
#include <string>
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

// A fresh /tmp. A build tree that lives in /tmp (a clone there) stays visible: its top folder is bound back
// into the new /tmp, so the test binaries still find their libraries and scripts.
bool private_tmp()
{
    char exe[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", exe, sizeof(exe) - 1);
    std::string top;
    if (n > 0) {
        exe[n] = '\0';
        if (strncmp(exe, "/tmp/", 5) == 0)
            top = std::string(exe).substr(0, std::string(exe).find('/', 5));
    }
    int oldTmp = open("/tmp", O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (oldTmp < 0)
        return false;
    bool ok = mount("lumsandbox", "/tmp", "tmpfs", 0, "mode=1777") == 0;
    if (ok && !top.empty()) {
        char source[PATH_MAX];
        snprintf(source, sizeof(source), "/proc/self/fd/%d/%s", oldTmp, top.c_str() + 5);
        ok = mkdir(top.c_str(), 0755) == 0 && mount(source, top.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0;
    }
    close(oldTmp);
    return ok;
}

}  // namespace

bool enter_service_sandbox(bool privateTmp, bool unprivileged)
{
    const int flags = CLONE_NEWIPC | CLONE_NEWNS | CLONE_NEWNET;
    if (unprivileged) {
        if (!enter_user_namespace(flags))
            return false;
    } else if (unshare(flags) != 0 && !enter_user_namespace(flags)) {
        return false;
    }
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return false;
    // /dev/null reads as an empty list of disks.
    for (const char* list : {"/proc/diskstats", "/proc/partitions"}) {
        if (mount("/dev/null", list, nullptr, MS_BIND, nullptr) != 0)
            return false;
    }
    if (privateTmp && !private_tmp())
        return false;
    if (privateTmp) {
        mkdir("/tmp/property", 0700);
        setenv("LMDROID_PROPERTY_DIR", "/tmp/property", 1);
    }
    // The television runs its tools in the C locale; GNU grep in a UTF-8
    // locale would call a line with a GBK label binary.
    setenv("LC_ALL", "C", 1);
    return true;
}
