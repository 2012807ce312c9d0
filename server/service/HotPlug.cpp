#include "HotPlug.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <linux/netlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <norvfw/NorvMsg.h>

#include "ServiceLog.h"
#include "ShellProbe.h"
#include "SignalNo.h"

#define HLOGD(fmt, ...) SLOG_TAG(ANDROID_LOG_DEBUG, STORAGE_TAG_HOTPLUG, fmt, ##__VA_ARGS__)
#define HLOGW(fmt, ...) SLOG_TAG(ANDROID_LOG_WARN, STORAGE_TAG_HOTPLUG, fmt, ##__VA_ARGS__)
#define HLOGE(fmt, ...) SLOG_TAG(ANDROID_LOG_ERROR, STORAGE_TAG_HOTPLUG, fmt, ##__VA_ARGS__)

#define HOTPLUG_PROBE_S 10  // the cold-plug probe's bound

CHotPlug::CHotPlug()
{
    const unsigned long signals[] = {SIG_ID_STORAGE_PLUG_IN, SIG_ID_STORAGE_PLUG_OUT};
    for (size_t i = 0; i < sizeof(signals) / sizeof(signals[0]); ++i) {
        m_Pending[i].signal = signals[i];
        m_Pending[i].queued.store(false);
        m_Pending[i].owed = false;
        m_Pending[i].refused = false;
    }
}

CHotPlug::~CHotPlug() = default;

bool proc_devs_exist()
{
    char cmd[256];
    snprintf(cmd, sizeof(cmd), "grep ' sd[a-z][0-9]* ' /proc/diskstats | awk '{print $3}' > %s",
             HOTPLUG_PROC_DEV_FILE);
    // The watcher's own probe, run before the service thread exists; its
    // status does not matter, the file tells. A grep of a proc file has no
    // reason to take long: it is stopped after HOTPLUG_PROBE_S.
    call_system_within(HOTPLUG_PROBE_S, "%s", cmd);
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

CHotPlug::SPending* CHotPlug::Find(unsigned long signal)
{
    for (SPending& p : m_Pending) {
        if (p.signal == signal)
            return &p;
    }
    return nullptr;
}

void CHotPlug::Taken(unsigned long signal)
{
    SPending* p = Find(signal);
    if (p != nullptr)
        p->queued.store(false);
}

void CHotPlug::Owe(unsigned long signal)
{
    SPending* p = Find(signal);
    if (p == nullptr)
        return;
    if (p->queued.load())
        HLOGD("[%s, %d] signal %lu waits already and covers this event\n", signal);
    else
        p->owed = true;
}

bool CHotPlug::PostOwed()
{
    bool clear = true;
    for (SPending& p : m_Pending) {
        if (!p.owed)
            continue;
        // Marked before the post: the service thread may take the signal
        // before NotifyObserversWithCallbackQueue returns.
        p.queued.store(true);
        CNorvMsg msg(p.signal);
        if (NotifyObserversWithCallbackQueue(&msg) > 0 || CountObserversWithCallbackQueue(p.signal) == 0) {
            p.owed = false;
            p.refused = false;
            continue;
        }
        p.queued.store(false);
        if (!p.refused)
            HLOGW("[%s, %d] ***W: the service queue is full, signal %lu is posted again every %d ms\n", p.signal,
                  HOTPLUG_RETRY_MS);
        p.refused = true;
        clear = false;
    }
    return clear;
}

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
    if (proc_devs_exist())
        Owe(SIG_ID_STORAGE_PLUG_IN);
    bool clear = PostOwed();

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
        struct pollfd pfd = {fd, POLLIN, 0};
        unsigned long signalName = 0;
        if (poll(&pfd, 1, clear ? -1 : HOTPLUG_RETRY_MS) > 0) {
            memset(buf, 0, sizeof(buf));
            int rc = static_cast<int>(recv(fd, buf, sizeof(buf) - 1, MSG_DONTWAIT));
            signalName = classify_uevent(buf, rc);
            if (rc <= 0)
                HLOGE("[%s, %d] call recv rc = %d\n", rc);
            else if (signalName != 0)
                Owe(signalName);
        }
        clear = PostOwed();
        // Logged once the event's run is queued or owed, never before.
        if (signalName != 0)
            HLOGD("[%s, %d] %s\n", buf);
    }
    close(fd);
}
