// The copy request of STORAGE_COPY: Copy takes it apart on the service
// thread and starts the copy thread, which copies and sends the one
// LUM_TV_EVT_STORAGE_COPY of the request. At most one copy thread runs; a
// request with an empty source asks a running tree copy to stop.
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <pthread.h>

#include "CopyEngine.h"
#include "FileProtect.h"
#include "ServiceHandlers.h"
#include "ServiceLog.h"
#include "StorageManagerService.h"

namespace {

// The busy flag and the thread's id are guarded by g_copy_lock: Copy claims
// them on the service thread and the copy thread gives them back after its
// event.
std::mutex g_copy_lock;
bool g_copy_busy = false;
pthread_t g_copy_tid;
// Set by a cancel request, polled by the copy thread before each entry of a
// tree and each block of a file; cleared when a copy starts.
std::atomic<bool> g_copy_cancel{false};
std::atomic<int> g_copy_threads_alive{0};

int copy_single(const COPY_THREAD_CONTEXT* ctx)
{
    return copy_file_until(ctx->src, ctx->dst, &g_copy_cancel);
}

// The main file, then its companions. A companion that is missing or fails
// is no failure of the recording; none is tried when the main file failed
// or was cancelled. The companions are small and always copied whole.
int copy_recording(const COPY_THREAD_CONTEXT* ctx)
{
    int rc = copy_file_until(ctx->src, ctx->dst, &g_copy_cancel) & 0xff;
    if (rc != 0)
        return rc;
    for (const char* const* suffix = kCopyCompanions; *suffix != nullptr; ++suffix) {
        // Paths of at most 256 bytes and a suffix always fit.
        char src[COPY_COMPANION_PATH_LEN];
        char dst[COPY_COMPANION_PATH_LEN];
        snprintf(src, sizeof(src), "%s%s", ctx->src, *suffix);
        snprintf(dst, sizeof(dst), "%s%s", ctx->dst, *suffix);
        CopyFile(src, dst);
        SLOGD("[%s, %d] %s -> %s t=%d\n", src, dst, ctx->type);
    }
    return rc;
}

int copy_tree(const COPY_THREAD_CONTEXT* ctx)
{
    return copy_dir_walk(ctx->src, ctx->dst, &g_copy_cancel, nullptr);
}

struct SCopyKind {
    int type;
    int (*run)(const COPY_THREAD_CONTEXT* ctx);
};

// What each type copies; a type without a row (a cut copy among them) is
// refused by the thread with result 1.
const SCopyKind kCopyKinds[] = {
    {COPY_TYPE_TREE, copy_tree},
    {COPY_TYPE_FILE, copy_single},
    {1, copy_recording},
    {2, copy_recording},
};

struct SResultRow {
    unsigned char status;
    unsigned char result;
    bool outOfSpace;  // LUM_TV_EVT_STORAGE_OUT_OF_SPACE goes first
};

// Statuses that clients know by another byte.
const SResultRow kResultRows[] = {
    {ENOSPC, COPY_RESULT_REFUSED, true},
    {ENOEXEC, 6, false},
    {EMFILE, COPY_RESULT_BUSY, false},
};

unsigned char run_copy(const COPY_THREAD_CONTEXT* ctx)
{
    for (const SCopyKind& kind : kCopyKinds) {
        if (kind.type == ctx->type)
            return static_cast<unsigned char>(kind.run(ctx));
    }
    SLOGE("[%s, %d] ***E: type: %d\n", ctx->type);
    return COPY_RESULT_REFUSED;
}

unsigned char result_byte(unsigned char rc)
{
    for (const SResultRow& row : kResultRows) {
        if (row.status != rc)
            continue;
        if (row.outOfSpace)
            NotifyDiscOutOfSpace(LUM_TV_EVT_STORAGE_COPY);
        return row.result;
    }
    return rc;
}

void send_copy_result(unsigned char rc)
{
    theStorageManagerService.NotifyToStorageManager(LUM_TV_EVT_STORAGE_COPY, &rc, 1);
}

// Copies what the request asked for, sends the result, and only then gives
// the busy flag back: a request sent at once on the event may still be
// answered with 5.
void* copy_thread(void* arg)
{
    const auto* ctx = static_cast<const COPY_THREAD_CONTEXT*>(arg);
    SLOGD("[%s, %d] %s->%s t=%d\n", ctx->src, ctx->dst, ctx->type);
    send_copy_result(result_byte(run_copy(ctx)));
    {
        std::lock_guard<std::mutex> hold(g_copy_lock);
        g_copy_busy = false;
        g_copy_tid = pthread_t();
    }
    g_copy_threads_alive.fetch_sub(1);
    return nullptr;
}

// Claims the copy thread for a request and starts it. Returns 0, or the
// result byte of a refusal. The context is written only here, while no copy
// thread runs.
unsigned char start_copy(const unsigned char* buf, int len, COPY_THREAD_CONTEXT* ctx)
{
    std::lock_guard<std::mutex> hold(g_copy_lock);
    if (g_copy_busy) {
        SLOGD("[%s, %d] copy in progress (tid=%08lx)\n", static_cast<unsigned long>(g_copy_tid));
        return COPY_RESULT_BUSY;
    }
    int rc = parse_copy_request(buf, len, ctx);
    if (rc != 0)
        return static_cast<unsigned char>(rc);
    g_copy_cancel = false;
    g_copy_threads_alive.fetch_add(1);
    pthread_t tid;
    int err = pthread_create(&tid, nullptr, copy_thread, ctx);
    if (err != 0) {
        g_copy_threads_alive.fetch_sub(1);
        SLOGE("[%s, %d] ***E: creating copy thread: %d\n", err);
        return COPY_RESULT_BUSY;
    }
    g_copy_busy = true;
    g_copy_tid = tid;
    // The id as created: the thread may have ended already (it waits for
    // the lock only to give the flag back).
    pthread_detach(tid);
    return 0;
}

}  // namespace

bool NotifyDiscOutOfSpace(int cmd_id)
{
    unsigned char b = static_cast<unsigned char>(cmd_id & 0xff);
    theStorageManagerService.NotifyToStorageManager(LUM_TV_EVT_STORAGE_OUT_OF_SPACE, &b, 1);
    return true;
}

bool copy_running()
{
    std::lock_guard<std::mutex> hold(g_copy_lock);
    return g_copy_busy;
}

int copy_threads_alive()
{
    return g_copy_threads_alive.load();
}

void StorageManagerService::Copy(const unsigned char* buf, int len)
{
    static COPY_THREAD_CONTEXT g_context;
    if (buf != nullptr && len >= 1 && buf[0] == '\0') {
        SLOGD("[%s, %d] cancel requested\n");
        g_copy_cancel = true;
        return;
    }
    unsigned char rc = start_copy(buf, len, &g_context);
    if (rc != 0)
        send_copy_result(rc);
}

// The hub posts the whole request behind the record; an old client's
// request is the source alone, in buf1.
void handle_copy(StorageManagerService& service, CNorvMsg* msg, StorageManagerAction_t* action)
{
    size_t size = msg->GetSignalSize();
    if (size > sizeof(*action)) {
        service.Copy(reinterpret_cast<const unsigned char*>(action + 1), static_cast<int>(size - sizeof(*action)));
        return;
    }
    size_t len = strnlen(reinterpret_cast<const char*>(action->buf1), sizeof(action->buf1) - 1) + 1;
    service.Copy(action->buf1, static_cast<int>(len));
}
