// CNorvMsgQueue: a POSIX message queue of fixed-size records. The records
// carry the payload pointer, not the payload, so a queue only ever connects
// threads of one process.
#include "norvfw/NorvMsgQueue.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <mqueue.h>
#include <mutex>
#include <string>
#include <sys/stat.h>
#include <vector>

#include "internal.h"
#include "norvfw/Nshell.h"
#include "norvfw/Trace.h"

#if defined(__SANITIZE_THREAD__)
extern "C" void __tsan_acquire(void* addr);
extern "C" void __tsan_release(void* addr);
#endif

namespace {

// What travels through the kernel for one CNorvMsg.
struct Record {
    unsigned long signal;
    void* ptr;
    unsigned long size;
    const void* timerOwner;
    unsigned long timerGeneration;
};

struct QueueEntry {
    std::string name;
    int handle;
};

// Never destroyed: queues owned by static objects may outlive it otherwise.
struct QueueRegistry {
    std::mutex lock;
    std::vector<QueueEntry> entries;
};

QueueRegistry& Registry()
{
    static QueueRegistry* registry = new QueueRegistry;
    return *registry;
}

void RegisterQueue(const char* name, int handle)
{
    QueueRegistry& r = Registry();
    std::lock_guard<std::mutex> guard(r.lock);
    r.entries.push_back(QueueEntry{name, handle});
}

void UnregisterQueue(int handle)
{
    QueueRegistry& r = Registry();
    std::lock_guard<std::mutex> guard(r.lock);
    for (size_t i = 0; i < r.entries.size(); ++i) {
        if (r.entries[i].handle == handle) {
            r.entries.erase(r.entries.begin() + static_cast<long>(i));
            return;
        }
    }
}

// The system's ceiling on queue depth; -1 when it cannot be read.
long SystemMaxDepth()
{
    FILE* f = fopen("/proc/sys/fs/mqueue/msg_max", "re");
    if (f == nullptr) {
        return -1;
    }
    long value = -1;
    if (fscanf(f, "%ld", &value) != 1) {
        value = -1;
    }
    fclose(f);
    return value;
}

void ToRecord(const CNorvMsg& msg, Record* rec)
{
    rec->signal = msg.GetSignalName();
    rec->ptr = msg.GetSignalPtr();
    rec->size = msg.GetSignalSize();
    rec->timerOwner = msg.GetTimerOwner();
    rec->timerGeneration = msg.GetTimerGeneration();
}

void FromRecord(const Record& rec, CNorvMsg* msg)
{
    msg->SetSignalName(rec.signal);
    msg->SetSignalPtr(rec.ptr, rec.size);
    msg->SetTimerStamp(rec.timerOwner, rec.timerGeneration);
}

// True if name still refers to the queue open as handle: a later Create of
// the same name has replaced it otherwise, and the name is no longer ours.
bool NameIsOurs(const char* name, int handle)
{
    mqd_t other = mq_open(name, O_RDONLY | O_CLOEXEC);
    if (other == static_cast<mqd_t>(-1)) {
        return false;
    }
    struct stat a;
    struct stat b;
    bool same = fstat(handle, &a) == 0 && fstat(static_cast<int>(other), &b) == 0 && a.st_dev == b.st_dev &&
                a.st_ino == b.st_ino;
    mq_close(other);
    return same;
}

// A deadline long past: the timed calls then never wait.
const struct timespec kPast = {0, 0};

int ReceiveRecord(int handle, CNorvMsg* msg, bool wait)
{
    if (msg == nullptr) {
        return -EINVAL;
    }
    if (handle < 0) {
        return -EBADF;
    }
    Record rec;
    ssize_t n = wait ? mq_receive(handle, reinterpret_cast<char*>(&rec), sizeof(rec), nullptr)
                     : mq_timedreceive(handle, reinterpret_cast<char*>(&rec), sizeof(rec), nullptr, &kPast);
    if (n < 0) {
        return errno == ETIMEDOUT ? -EAGAIN : -errno;
    }
    if (static_cast<size_t>(n) != sizeof(rec)) {
        return -EBADMSG;
    }
    norvfw_internal::QueueSyncAcquire(handle);
    FromRecord(rec, msg);
    return 0;
}

int CmdQueues(int argc, char** argv, std::string* out)
{
    (void)argc;
    (void)argv;
    QueueRegistry& r = Registry();
    std::lock_guard<std::mutex> guard(r.lock);
    char line[160];
    snprintf(line, sizeof(line), "%-40s %6s %7s\n", "name", "handle", "waiting");
    out->append(line);
    for (const QueueEntry& e : r.entries) {
        struct mq_attr attr;
        long waiting = mq_getattr(e.handle, &attr) == 0 ? attr.mq_curmsgs : -1;
        snprintf(line, sizeof(line), "%-40s %6d %7ld\n", e.name.c_str(), e.handle, waiting);
        out->append(line);
    }
    return 0;
}

}  // namespace

namespace norvfw_internal {

#if defined(__SANITIZE_THREAD__)
namespace {
char g_SyncTokens[256];
}
void QueueSyncRelease(int handle)
{
    __tsan_release(&g_SyncTokens[static_cast<unsigned>(handle) % sizeof(g_SyncTokens)]);
}
void QueueSyncAcquire(int handle)
{
    __tsan_acquire(&g_SyncTokens[static_cast<unsigned>(handle) % sizeof(g_SyncTokens)]);
}
#else
void QueueSyncRelease(int) {}
void QueueSyncAcquire(int) {}
#endif

}  // namespace norvfw_internal

CNorvMsgQueue::CNorvMsgQueue() : m_Handle(-1)
{
    m_Name[0] = '\0';
}

CNorvMsgQueue::~CNorvMsgQueue()
{
    Destroy();
}

int CNorvMsgQueue::Create(const char* name, int depth)
{
    if (name == nullptr || name[0] == '\0' || depth <= 0) {
        return -EINVAL;
    }
    long maxDepth = SystemMaxDepth();
    if (maxDepth > 0 && depth > maxDepth) {
        TraceFormattedString(TRACE_NORVMSGQUEUE, TRACELEVEL_ERROR,
                             "queue %s: depth %d exceeds the system's msg_max %ld", name, depth, maxDepth);
        return -EINVAL;
    }
    // POSIX queue names start with one '/' and hold no other.
    char full[sizeof(m_Name)];
    int len = snprintf(full, sizeof(full), "%s%s", name[0] == '/' ? "" : "/", name);
    if (len < 0 || static_cast<size_t>(len) >= sizeof(full)) {
        return -ENAMETOOLONG;
    }
    if (strchr(full + 1, '/') != nullptr) {
        return -EINVAL;
    }
    Destroy();
    mq_unlink(full);  // a queue left behind by an earlier run of the process
    struct mq_attr attr;
    memset(&attr, 0, sizeof(attr));
    attr.mq_maxmsg = depth;
    attr.mq_msgsize = sizeof(Record);
    mqd_t q = mq_open(full, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600, &attr);
    if (q == static_cast<mqd_t>(-1)) {
        int err = errno;
        TraceFormattedString(TRACE_NORVMSGQUEUE, TRACELEVEL_ERROR, "queue %s: mq_open failed: %s", full,
                             strerror(err));
        return -err;
    }
    m_Handle = static_cast<int>(q);
    snprintf(m_Name, sizeof(m_Name), "%s", full);
    RegisterQueue(m_Name, m_Handle);
    return 0;
}

void CNorvMsgQueue::Destroy()
{
    if (m_Handle < 0) {
        return;
    }
    UnregisterQueue(m_Handle);
    if (NameIsOurs(m_Name, m_Handle)) {
        mq_unlink(m_Name);
    }
    mq_close(static_cast<mqd_t>(m_Handle));
    m_Handle = -1;
    m_Name[0] = '\0';
}

int CNorvMsgQueue::GetHandle() const
{
    return m_Handle;
}

const char* CNorvMsgQueue::GetName() const
{
    return m_Name;
}

int CNorvMsgQueue::Post(int handle, const CNorvMsg& msg)
{
    if (handle < 0) {
        return -EBADF;
    }
    Record rec;
    ToRecord(msg, &rec);
    norvfw_internal::QueueSyncRelease(handle);
    // An expired deadline makes a full queue answer at once instead of waiting.
    if (mq_timedsend(static_cast<mqd_t>(handle), reinterpret_cast<const char*>(&rec), sizeof(rec), 0,
                     &kPast) != 0) {
        return errno == ETIMEDOUT ? -EAGAIN : -errno;
    }
    return 0;
}

int CNorvMsgQueue::Receive(CNorvMsg* msg)
{
    return ReceiveRecord(m_Handle, msg, true);
}

int CNorvMsgQueue::TryReceive(CNorvMsg* msg)
{
    return ReceiveRecord(m_Handle, msg, false);
}

int CNorvMsgQueue::Count() const
{
    if (m_Handle < 0) {
        return -1;
    }
    struct mq_attr attr;
    if (mq_getattr(static_cast<mqd_t>(m_Handle), &attr) != 0) {
        return -1;
    }
    return static_cast<int>(attr.mq_curmsgs);
}

void InitNorvMsgQueueNshell()
{
    nshell.AddNshellCmd("queues", "lists the message queues: name, handle, messages waiting", CmdQueues);
}
