// What the service tests share: captured log lines and events, the private
// namespaces the process runs in, files, and signals for the service.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <mutex>
#include <set>
#include <string>
#include <sys/types.h>
#include <unistd.h>
#include <vector>

#include <binder/Parcel.h>

#include "StorageCmdTable.h"
#include "StorageManagerService.h"
#include "StorageModuleHub.h"

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
    std::string tag, msg;
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

// Runs this test binary again with the arguments "--child NAME" and returns its exit status (or -1); its
// standard output and error go to out. With noThreads, the child starts with a stack limit no address space
// holds (1 TiB; 4 GiB less one byte on a 32-bit system), which glibc takes as the default thread stack, so
// that no new thread can be created.
int run_child(const char* name, std::string* out, bool noThreads = false);
// Skips where run_child's noThreads cannot work: under ThreadSanitizer, and where a changed stack limit does
// not reach the process (qemu-user keeps RLIMIT_STACK to itself).
bool stack_limit_applies();
#if defined(__SANITIZE_THREAD__)
#define REQUIRE_THREADLESS_CHILD() GTEST_SKIP() << "SKIPPED under ThreadSanitizer: it cannot map a 1 TiB stack limit"
#else
#define REQUIRE_THREADLESS_CHILD()                                                                  \
    do {                                                                                            \
        if (!stack_limit_applies())                                                                 \
            GTEST_SKIP() << "SKIPPED: a stack limit does not reach this process (qemu-user keeps it to itself)"; \
    } while (0)
#endif

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

using Bytes = std::vector<unsigned char>;

void write_file(const std::string& path, const std::string& text, mode_t mode = 0644);
std::string read_file(const std::string& path);
bool exists(const std::string& path);  // lstat: a dangling link exists
mode_t mode_of(const std::string& path);
void make_dirs(const std::string& path);
// The names in dir but "." and ".." (none when it cannot be read).
std::set<std::string> list_dir(const std::string& dir);

// Mounts a test makes in its private mount namespace, taken off again in
// reverse order when it goes. Each call answers false when the mount fails.
class Mounts {
public:
    ~Mounts();
    bool tmpfs(const std::string& dir, const std::string& options);  // makes dir
    bool bind(const std::string& from, const std::string& onto);

private:
    std::vector<std::string> m_points;
};

// A request for the hub, built field by field.
class Request {
public:
    explicit Request(int word) { p.writeInt32(word); }
    Request& s(const std::string& text) { p.writeCString(text.c_str()); return *this; }
    Request& i(int32_t v) { p.writeInt32(v); return *this; }
    Request& b(bool v) { p.writeBool(v); return *this; }
    Request& raw(const std::string& bytes) { p.write(bytes.data(), bytes.size()); return *this; }
    // The reply's bytes; invoke's result must be 0.
    Bytes invoke()
    {
        android::Parcel reply;
        p.setDataPosition(0);
        EXPECT_EQ(StorageModuleHub::self()->invoke(p, &reply), 0);
        return Bytes(reply.data(), reply.data() + reply.dataSize());
    }
    android::Parcel p;
};

// Little-endian int32s, as a Parcel holds them.
inline Bytes le32(std::initializer_list<int32_t> values)
{
    Bytes out;
    for (int32_t v : values) {
        for (int k = 0; k < 4; ++k)
            out.push_back(static_cast<unsigned char>(static_cast<uint32_t>(v) >> (8 * k)));
    }
    return out;
}

// Big-endian, as the service's own tables carry numbers.
inline Bytes be32(uint32_t v)
{
    return {static_cast<unsigned char>(v >> 24), static_cast<unsigned char>(v >> 16),
            static_cast<unsigned char>(v >> 8), static_cast<unsigned char>(v)};
}

// The hub's bool replies.
const Bytes kTrue = {1, 0, 0, 0};
const Bytes kFalse = {0, 0, 0, 0};

// A queue the tests read what the hub's rows posted from, without a thread:
// the signal, the record, and the bytes a post put behind the record.
struct Posted {
    unsigned long signal;
    StorageManagerAction_t record;
    Bytes tail;
};
class PostProbe : public CThreadObjectWithQueue {
public:
    void ProcessNorvMsg(CNorvMsg* msg) override;
    std::vector<Posted> posted;
};
// Posts request (read from its current position) through row into probe with a fresh record, as the hub does;
// frees the record when the post leaves it to the caller, which recordLeft tells.
bool post_row(const SCmdRow& row, const android::Parcel& request, PostProbe& probe, bool* recordLeft = nullptr);

// The payloads of one event id, in order.
std::vector<Bytes> payloads(const std::vector<Event>& all, int id);

// Hands signal to the service's dispatcher as the service thread would, with a fresh record whose buf1 holds
// text and intValue1 value; no record when text is null.
void dispatch(unsigned long signal, const char* text = nullptr, int32_t value = 0);
// The service's queue, made once; no service thread reads it in the unit
// tests, so a test takes what it posted itself. Emptied here.
void ensure_service_queue();
// The timer thread, started once.
void ensure_timer_thread();
