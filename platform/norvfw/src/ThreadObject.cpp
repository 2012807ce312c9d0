// CThreadObject: a named pthread with a stop flag, and the list of running
// framework threads that the debug shell shows.
//
// Stopping: StopThread sets m_StopFlag and sends the wake signal to the
// thread. Its handler does nothing and is installed without SA_RESTART, so a
// blocking recv, accept or mq_receive returns EINTR and the thread's loop
// sees the flag. A signal that lands just before the thread blocks is lost;
// StopThreadAndWait therefore sends it again every few milliseconds until the
// thread has ended.
//
// Destruction: the product never stops its threads, so static thread objects
// are destroyed at exit while their threads run. The destructor asks the
// thread to stop and joins it for at most kExitJoinMs; a thread that does not
// end by then (blocked on a lock or condition variable the signal cannot
// break) is detached so that exit never hangs. On its own thread the
// destructor detaches at once. A derived class whose thread uses its members
// must stop the thread in its own destructor, as CThreadObjectWithQueue does:
// by the time this destructor runs, the derived part is gone. The new thread
// never reads the object's vtable (StartThread looks ThreadWorkFunction up),
// so an object destroyed right after StartThread cannot make it call a pure
// virtual function.
#include "norvfw/ThreadObject.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

#include "internal.h"
#include "norvfw/Nshell.h"
#include "norvfw/Trace.h"

namespace {

const double kExitJoinMs = 2000.0;
const long kWakeRepeatMs = 20;

struct ThreadEntry {
    unsigned long serial;
    CThreadObject* object;
    long tid;
    int type;
    const std::atomic<unsigned long>* processed;
};

// Never destroyed: thread objects with static storage outlive it otherwise.
struct ThreadRegistry {
    std::mutex lock;
    std::vector<ThreadEntry> entries;
    unsigned long nextSerial = 1;
};

ThreadRegistry& Registry()
{
    static ThreadRegistry* registry = new ThreadRegistry;
    return *registry;
}

unsigned long AddThread(CThreadObject* object, int type)
{
    ThreadRegistry& r = Registry();
    std::lock_guard<std::mutex> guard(r.lock);
    unsigned long serial = r.nextSerial++;
    r.entries.push_back(ThreadEntry{serial, object, 0, type, nullptr});
    return serial;
}

void SetThreadTid(unsigned long serial, long tid)
{
    ThreadRegistry& r = Registry();
    std::lock_guard<std::mutex> guard(r.lock);
    for (ThreadEntry& e : r.entries) {
        if (e.serial == serial) {
            e.tid = tid;
        }
    }
}

// Removes the run's entry. True if it was there, that is, if the object has
// not been destroyed in the meantime.
bool RemoveThread(unsigned long serial)
{
    ThreadRegistry& r = Registry();
    for (size_t i = 0; i < r.entries.size(); ++i) {
        if (r.entries[i].serial == serial) {
            r.entries.erase(r.entries.begin() + static_cast<long>(i));
            return true;
        }
    }
    return false;
}

void RemoveObject(const CThreadObject* object)
{
    ThreadRegistry& r = Registry();
    std::lock_guard<std::mutex> guard(r.lock);
    for (size_t i = r.entries.size(); i > 0; --i) {
        if (r.entries[i - 1].object == object) {
            r.entries.erase(r.entries.begin() + static_cast<long>(i - 1));
        }
    }
}

void NoOpHandler(int) {}

pthread_once_t g_WakeOnce = PTHREAD_ONCE_INIT;

void InstallWakeOnce()
{
    struct sigaction sa;
    memset(&sa, 0, sizeof(sa));
    sa.sa_handler = NoOpHandler;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0;  // no SA_RESTART: blocking calls must return EINTR
    if (sigaction(norvfw_internal::WakeSignal(), &sa, nullptr) != 0) {
        TraceFormattedString(TRACE_THREADOBJ, TRACELEVEL_ERROR, "cannot install the wake signal: %s",
                             strerror(errno));
    }
}

struct timespec RealtimeIn(long ms)
{
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    ts.tv_nsec += ms * 1000000L;
    ts.tv_sec += ts.tv_nsec / 1000000000L;
    ts.tv_nsec %= 1000000000L;
    return ts;
}

int CmdThreads(int argc, char** argv, std::string* out)
{
    (void)argc;
    (void)argv;
    ThreadRegistry& r = Registry();
    std::lock_guard<std::mutex> guard(r.lock);
    char line[128];
    snprintf(line, sizeof(line), "%-16s %-5s %8s %10s\n", "name", "type", "tid", "processed");
    out->append(line);
    for (const ThreadEntry& e : r.entries) {
        snprintf(line, sizeof(line), "%-16s %-5s %8ld %10lu\n", e.object->GetThreadName(),
                 e.type == THREAD_TYPE_MSG_QUEUE ? "queue" : "work", e.tid,
                 e.processed != nullptr ? e.processed->load() : 0UL);
        out->append(line);
    }
    return 0;
}

// The final overrider of ThreadWorkFunction as a plain function, looked up
// now, on the starting thread (a GNU extension; other compilers leave the
// lookup to the new thread).
// A run's start, handed to its new thread.
struct ThreadStart {
    CThreadObject* self;
    unsigned long serial;
    void (*work)(CThreadObject*);
    char name[16];
};

void (*ResolveWork(CThreadObject* object))(CThreadObject*)
{
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpmf-conversions"
    return reinterpret_cast<void (*)(CThreadObject*)>(object->*(&CThreadObject::ThreadWorkFunction));
#pragma GCC diagnostic pop
#else
    (void)object;
    return nullptr;
#endif
}

}  // namespace

namespace norvfw_internal {

int WakeSignal()
{
    return SIGRTMIN + 4;
}

void InstallWakeSignal()
{
    pthread_once(&g_WakeOnce, InstallWakeOnce);
}

void SetCurrentThreadCounter(const std::atomic<unsigned long>* counter)
{
    long tid = static_cast<long>(syscall(SYS_gettid));
    ThreadRegistry& r = Registry();
    std::lock_guard<std::mutex> guard(r.lock);
    for (ThreadEntry& e : r.entries) {
        if (e.tid == tid) {
            e.processed = counter;
        }
    }
}

}  // namespace norvfw_internal

CThreadObject::CThreadObject() : m_StopFlag(0), m_Work(nullptr), m_Thread(), m_Running(false), m_Joinable(false), m_Serial(0)
{
    m_Name[0] = '\0';
}

CThreadObject::~CThreadObject()
{
    StopForDestruction();
    // After this the ending thread no longer touches the object.
    RemoveObject(this);
}

bool CThreadObject::StopForDestruction()
{
    bool onItself = false;
    {
        std::lock_guard<std::mutex> guard(m_Control);
        onItself = m_Joinable && pthread_equal(m_Thread, pthread_self());
    }
    CThreadObject::StopThread();
    if (!onItself && JoinWithWakes(kExitJoinMs) == 0) {
        return true;
    }
    std::lock_guard<std::mutex> guard(m_Control);
    if (m_Joinable) {
        if (!onItself) {
            TraceFormattedString(TRACE_THREADOBJ, TRACELEVEL_ERROR, "thread %s did not stop; detached", m_Name);
        }
        pthread_detach(m_Thread);
        m_Joinable = false;
    }
    RemoveObject(this);  // its counter goes with the derived part
    return onItself;
}

void* CThreadObject::Trampoline(void* arg)
{
    // What the run needs, copied by StartThread: a thread that the destructor
    // let go reads nothing more of an object that may be gone.
    ThreadStart* start = static_cast<ThreadStart*>(arg);
    CThreadObject* self = start->self;
    unsigned long serial = start->serial;
    void (*work)(CThreadObject*) = start->work;
    pthread_setname_np(pthread_self(), start->name);
    delete start;
    sigset_t wake;
    sigemptyset(&wake);
    sigaddset(&wake, norvfw_internal::WakeSignal());
    pthread_sigmask(SIG_UNBLOCK, &wake, nullptr);
    SetThreadTid(serial, static_cast<long>(syscall(SYS_gettid)));

    if (work != nullptr) {
        work(self);
    } else {
        self->ThreadWorkFunction();
    }

    ThreadRegistry& r = Registry();
    std::lock_guard<std::mutex> guard(r.lock);
    if (RemoveThread(serial)) {
        self->m_Running.store(false);
    }
    return nullptr;
}

int CThreadObject::StartThread(const char* name, int priority, int stackSize)
{
    norvfw_internal::InstallWakeSignal();
    std::lock_guard<std::mutex> guard(m_Control);
    if (m_Running.load()) {
        TraceFormattedString(TRACE_THREADOBJ, TRACELEVEL_WARNING, "thread %s runs already", m_Name);
        return -EBUSY;
    }
    if (m_Joinable) {  // the previous run has ended; collect it
        pthread_join(m_Thread, nullptr);
        m_Joinable = false;
    }
    snprintf(m_Name, sizeof(m_Name), "%s", name != nullptr ? name : "norv_thread");
    if (priority != 0) {
        TraceFormattedString(TRACE_THREADOBJ, TRACELEVEL_DEBUG, "thread %s: priority %d not applied", m_Name,
                             priority);
    }
    m_StopFlag.store(0);
    m_Work = ResolveWork(this);
    m_Serial = AddThread(this, GetThreadType());

    pthread_attr_t attr;
    pthread_attr_init(&attr);
    if (stackSize > 0) {
        size_t size = static_cast<size_t>(stackSize);
        size_t least = static_cast<size_t>(PTHREAD_STACK_MIN);
        pthread_attr_setstacksize(&attr, size < least ? least : size);
    }
    m_Running.store(true);
    ThreadStart* start = new ThreadStart{this, m_Serial, m_Work, {}};
    memcpy(start->name, m_Name, sizeof(start->name));
    int rc = pthread_create(&m_Thread, &attr, Trampoline, start);
    pthread_attr_destroy(&attr);
    if (rc != 0) {
        delete start;
        m_Running.store(false);
        {
            std::lock_guard<std::mutex> regGuard(Registry().lock);
            RemoveThread(m_Serial);
        }
        TraceFormattedString(TRACE_THREADOBJ, TRACELEVEL_ERROR, "thread %s: pthread_create failed: %s", m_Name,
                             strerror(rc));
        return -rc;
    }
    m_Joinable = true;
    return 0;
}

int CThreadObject::StopThread()
{
    m_StopFlag.store(1);
    std::lock_guard<std::mutex> guard(m_Control);
    if (m_Joinable && m_Running.load()) {
        int rc = pthread_kill(m_Thread, norvfw_internal::WakeSignal());
        if (rc != 0) {
            return -rc;
        }
    }
    return 0;
}

int CThreadObject::StopThreadAndWait()
{
    StopThread();
    return JoinWithWakes(-1.0);
}

int CThreadObject::JoinWithWakes(double timeoutMs)
{
    double deadline = norvfw_internal::MonotonicMs() + timeoutMs;
    for (;;) {
        {
            std::lock_guard<std::mutex> guard(m_Control);
            if (!m_Joinable) {
                return 0;
            }
            if (pthread_equal(m_Thread, pthread_self())) {
                return -EDEADLK;
            }
            struct timespec until = RealtimeIn(kWakeRepeatMs);
            int rc = pthread_timedjoin_np(m_Thread, nullptr, &until);
            if (rc == 0) {
                m_Joinable = false;
                return 0;
            }
            if (rc != ETIMEDOUT) {
                return -rc;
            }
            pthread_kill(m_Thread, norvfw_internal::WakeSignal());
        }
        if (timeoutMs >= 0 && norvfw_internal::MonotonicMs() >= deadline) {
            return -ETIMEDOUT;
        }
    }
}

int CThreadObject::GetThreadType()
{
    return THREAD_TYPE_WORK_FUNCTION;
}

unsigned long CThreadObject::GetNrOfProcessedMsgs() const
{
    return 0;
}

bool CThreadObject::IsStopRequested() const
{
    return m_StopFlag.load() != 0;
}

bool CThreadObject::IsRunning() const
{
    return m_Running.load();
}

const char* CThreadObject::GetThreadName() const
{
    return m_Name;
}

void InitThreadObjectNshell()
{
    nshell.AddNshellCmd("threads", "lists the framework threads: name, type, tid, messages processed",
                        CmdThreads);
}
