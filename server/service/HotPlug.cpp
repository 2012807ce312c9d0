#include "HotPlug.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <norvfw/NorvMsg.h>

#include "ServiceLog.h"
#include "SignalNo.h"

#define HLOGD(fmt, ...) SLOG_TAG(ANDROID_LOG_DEBUG, STORAGE_TAG_HOTPLUG, fmt, ##__VA_ARGS__)
#define HLOGE(fmt, ...) SLOG_TAG(ANDROID_LOG_ERROR, STORAGE_TAG_HOTPLUG, fmt, ##__VA_ARGS__)

CHotPlug::CHotPlug() = default;

CHotPlug::~CHotPlug() = default;

bool proc_devs_exist()
{
    char cmd[256];
    snprintf(cmd, sizeof(cmd), "grep ' sd[a-z][0-9]* ' /proc/diskstats | awk '{print $3}' > %s",
             HOTPLUG_PROC_DEV_FILE);
    // The watcher's own probe, run with system(3) before the service thread
    // exists; its status does not matter, the file tells.
    int rc = system(cmd);
    (void)rc;
    FILE* file = fopen(HOTPLUG_PROC_DEV_FILE, "re");
    if (file == nullptr)
        return false;
    char line[256];
    int count = 0;
    while (fgets(line, sizeof(line), file) != nullptr) {
        line[strcspn(line, "\n")] = '\0';
        ++count;
        HLOGD("[%s, %d] [%d] dev:%s\n", count, line);
    }
    fclose(file);
    unlink(HOTPLUG_PROC_DEV_FILE);
    return count != 0;
}

namespace {

// The header (action@devpath) is the first string of the datagram; strstr
// stops at its NUL, so these tests see nothing of the key=value part.
bool header_has(const char* buf, const char* action)
{
    return strstr(buf, action) != nullptr && strstr(buf, "/usb") != nullptr && strstr(buf, "/block/sd") != nullptr;
}

bool is_whole_disk(char* buf, int rc)
{
    for (int i = 0; i < rc; ++i) {
        if (buf[i] == '\0')
            buf[i] = '\n';
    }
    return strstr(buf, "DEVTYPE=disk") != nullptr;
}

}  // namespace

unsigned long classify_uevent(char* buf, int rc)
{
    if (rc <= 0)
        return 0;
    if (header_has(buf, "add@"))
        return is_whole_disk(buf, rc) ? SIG_ID_STORAGE_PLUG_IN : 0;
    if (header_has(buf, "remove@"))
        return is_whole_disk(buf, rc) ? SIG_ID_STORAGE_PLUG_OUT : 0;
    return 0;
}

void CHotPlug::ThreadWorkFunction()
{
    int fd = -1;
    int reuse = 1;
    char buf[HOTPLUG_RECV_BUF_SIZE];
    memset(buf, 0, sizeof(buf));

    // Disks attached before the service started send no event: one plug-in
    // covers them all.
    if (proc_devs_exist()) {
        CNorvMsg msg(SIG_ID_STORAGE_PLUG_IN);
        NotifyObserversWithCallbackQueue(&msg);
    }

    fd = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT);
    if (fd < 0) {
        HLOGE("[%s, %d] call socket error: %m\n");
        return;
    }
    struct sockaddr_nl servaddr;
    memset(&servaddr, 0, sizeof(servaddr));
    servaddr.nl_family = AF_NETLINK;
    servaddr.nl_pid = static_cast<__u32>(getpid());
    servaddr.nl_groups = 1;
    if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof(reuse)) < 0) {
        HLOGE("[%s, %d] call setsockopt error: %m\n");
        close(fd);
        return;
    }
    if (bind(fd, reinterpret_cast<struct sockaddr*>(&servaddr), sizeof(servaddr)) < 0) {
        HLOGE("[%s, %d] call bind error: %m\n");
        close(fd);
        return;
    }

    while (!IsStopRequested()) {
        memset(buf, 0, sizeof(buf));
        int rc = static_cast<int>(recv(fd, buf, sizeof(buf) - 1, 0));
        if (rc <= 0) {
            HLOGE("[%s, %d] call recv rc = %d\n", rc);
            continue;
        }
        unsigned long signalName = classify_uevent(buf, rc);
        if (signalName == 0)
            continue;
        HLOGD("[%s, %d] %s\n", buf);
        CNorvMsg msg(signalName);
        NotifyObserversWithCallbackQueue(&msg);
    }
    close(fd);
}
