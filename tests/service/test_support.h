// What the service tests share: captured log lines and events, and the
// private namespaces the process runs in.
#pragma once

#include <mutex>
#include <string>
#include <unistd.h>
#include <vector>

// True when main() gave the process its own IPC namespace (so the service's
// system-wide queue name is ours) and its own /tmp.
extern bool g_isolated;
#define REQUIRE_ISOLATION()                                                          \
    do {                                                                             \
        if (!g_isolated)                                                             \
            GTEST_SKIP() << "SKIPPED: needs private IPC and mount namespaces "       \
                            "(root or unprivileged user namespaces)";                \
    } while (0)

struct LogLine {
    int prio;
    std::string tag;
    std::string msg;
};

// Collects every log line while it lives.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    std::vector<LogLine> lines();
    int count(const std::string& needle);
    bool has(const std::string& needle) { return count(needle) > 0; }
    void clear();

private:
    static void hook(int prio, const char* tag, const char* msg, void* ctx);
    std::mutex m_lock;
    std::vector<LogLine> m_lines;
};

struct Event {
    int id;
    std::vector<unsigned char> data;
};

// Collects every event handed to EMAL_Notify while it lives.
class EventCapture {
public:
    EventCapture();
    ~EventCapture();
    std::vector<Event> events();

private:
    static void sink(int event, const void* data, int len, void* ctx);
    std::mutex m_lock;
    std::vector<Event> m_events;
};

// Runs this test binary again with the arguments "--child NAME" and returns
// its exit status (or -1); its standard output and error go to out. With
// noThreads, the child starts with a stack limit no address space holds (1
// TiB; 4 GiB less one byte on a 32-bit system), which glibc takes as the
// default thread stack, so that no new thread can be created.
int run_child(const char* name, std::string* out, bool noThreads = false);
// False where a changed stack limit does not reach the process (qemu-user
// keeps RLIMIT_STACK to itself): there run_child's noThreads cannot work.
bool stack_limit_applies();

// Waits for a condition that another thread of the service brings about; the
// bound (60 s) only keeps a broken build from hanging.
template <class F>
bool eventually(F done)
{
    for (int i = 0; i < 6000; ++i) {
        if (done())
            return true;
        usleep(10000);
    }
    return done();
}
