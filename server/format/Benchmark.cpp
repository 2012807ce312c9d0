// Disk benchmark: the external tool iozone runs on a thread of its own with
// its output in /tmp/iozone.txt; the service thread polls that file by timer
// to report progress, and the thread reads the mixed workload's figure out of
// it at the end.
#include "Benchmark.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <condition_variable>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <pthread.h>
#include <string>

#include "ByteOrder.h"
#include "MountTree.h"
#include "ServiceHandlers.h"
#include "ServiceLog.h"
#include "ShellProbe.h"
#include "SignalNo.h"
#include "StorageManagerService.h"
#include "StrUtil.h"

#define BENCHMARK_PROCESSES_PVR 2u
#define BENCHMARK_PROCESSES_OTHER 3u
// The figure's field between "=" and "." is copied into a buffer of this size.
#define BENCHMARK_FIGURE_BUF_LEN 11
// How long a cancel waits for the thread before it sends the kill again: the
// tool may not have been started yet when the first kill went out.
#define BENCHMARK_KILL_RETRY_MS 200
// A cancel ends within these bounds: TERM (killall) for BENCHMARK_TERM_MS,
// then KILL to the tool's process group for BENCHMARK_KILL_MS; a thread that
// has still not ended (its tool stuck in the kernel on a disk that went
// away) is left behind, and its end is ignored.
#define BENCHMARK_TERM_MS 3000
#define BENCHMARK_KILL_MS 2000
// The clean-up after a cancel may meet the same dead disk.
#define BENCHMARK_CLEANUP_S 5

namespace {

// One benchmark at a time. Every field below is guarded by g_benchmark_lock:
// the benchmark thread writes the progress and resets the state at its end,
// while the service thread's ticks and a cancel read and write it.
std::mutex g_benchmark_lock;
std::condition_variable g_benchmark_ended;
bool g_benchmark_active = false;  // a thread runs; g_benchmark_tid is valid
pthread_t g_benchmark_tid;
unsigned char g_benchmark_progress = 0;
unsigned long g_BenchmarkCounter = 0;
std::string g_benchmark_mount_path;
// Set by a cancel: it owns the thread from then on and joins it, and the
// thread sends nothing more and leaves the state to the cancel.
bool g_benchmark_stop = false;
// Each start gets the next number; a thread acts on the state only while its
// number is the current one, so that one left behind by a cancel never
// touches a later benchmark.
unsigned g_benchmark_gen = 0;
// The number of the last thread that ended, for the cancel's wait.
unsigned g_benchmark_done_gen = 0;
// The tool's shell, for a cancel's KILL.
SHELL_JOB g_benchmark_job;
std::atomic<int> g_benchmark_threads_alive{0};

struct SBenchmarkJob {
    StorageManagerService* service;
    unsigned gen;
    char path[STORAGE_ACTION_TEXT_LEN];
};

struct SStage {
    unsigned char from;
    const char* marker;
    unsigned char to;
};

// Each stage is left when the output holds its marker.
const SStage kStages[] = {
    {0, "Run began:", 1},
    {1, "initial writers", 50},
    {50, "mixed workload", 75},
    {75, "iozone test complete", 100},
};

void send_benchmark_event(StorageManagerService& service, unsigned char status, unsigned char progress,
                          uint32_t speed, uint32_t processes, bool padded = false)
{
    unsigned char buf[BENCHMARK_EVENT_LEN_NO_THREAD];
    size_t len = build_benchmark_event(buf, sizeof(buf), status, progress, speed, processes, padded);
    service.NotifyToStorageManager(LUM_TV_EVT_STORAGE_DEV_BENCHMARK, buf, static_cast<int>(len));
}

// The figure is an unsigned long, as on the television, where strtoul
// saturates it at 4294967295; a 64-bit build reads a ten-digit figure above
// that whole. The event's four bytes carry the television's number on both.
uint32_t speed_on_wire(unsigned long figure)
{
    return static_cast<uint32_t>(std::min<unsigned long long>(figure, UINT32_MAX));
}

// True when a cancel took the benchmark of generation gen over, or it is
// long gone. Called with g_benchmark_lock held.
bool stopped_locked(unsigned gen)
{
    return g_benchmark_stop || gen != g_benchmark_gen;
}

bool stop_requested(unsigned gen)
{
    std::lock_guard<std::mutex> hold(g_benchmark_lock);
    return stopped_locked(gen);
}

// Back to idle. Called with g_benchmark_lock held.
void reset_state_locked()
{
    g_benchmark_active = false;
    g_benchmark_progress = 0;
    g_BenchmarkCounter = 0;
    g_benchmark_mount_path.clear();
    g_benchmark_stop = false;
}

// The benchmark thread: runs the tool on the path it was started for, then
// reports the result, returns the state to idle and detaches itself, unless
// a cancel took it over meanwhile.
void* benchmark_thread(void* arg)
{
    auto* job = static_cast<SBenchmarkJob*>(arg);
    StorageManagerService& service = *job->service;
    unsigned gen = job->gen;
    char path[STORAGE_ACTION_TEXT_LEN];
    lum_strlcpy(path, job->path, sizeof(path));
    free(job);

    SLOGD("[%s, %d] ('%s')\n", path);
    call_system("rm -f /tmp/iozone.txt");
    // Volumes of the mount tree hold "/pvr/" and are measured with two
    // processes, anything else with three.
    bool pvr = strstr(path, "/pvr/") != nullptr;
    uint32_t processes = pvr ? BENCHMARK_PROCESSES_PVR : BENCHMARK_PROCESSES_OTHER;
    int status = 0;
    if (!stop_requested(gen)) {
        if (pvr)
            status = call_system_job(&g_benchmark_job, "iozone -t 2 -s 30m -r 16m -i 0 -i 8 -+p 50 -+n -F %s/iozone1.tmp %s/iozone2.tmp > "
                                 "/tmp/iozone.txt",
                                 path, path);
        else
            status = call_system_job(&g_benchmark_job, "iozone -t 3 -s 30m -r 16m -i 0 -i 8 -+p 33 -+n -F %s/iozone1.tmp %s/iozone2.tmp "
                                 "%s/iozone3.tmp > /tmp/iozone.txt",
                                 path, path, path);
    }
    status &= 0xff;

    bool stopped;
    {
        std::lock_guard<std::mutex> hold(g_benchmark_lock);
        stopped = stopped_locked(gen);
        if (!stopped)
            g_benchmark_progress = 100;
    }
    unsigned long writeSpeed = 0;
    unsigned long readSpeed = 0;
    if (!stopped) {
        SLOGD("[%s, %d] finished (rc=%d)\n", status);
        if (status == 0) {
            send_benchmark_event(service, BENCHMARK_STATUS_RUNNING, 100, 0, 0);
            status = service.ReadBenchmarkResult(&writeSpeed, &readSpeed);
        }
        SLOGD("[%s, %d] writeSpeed: %ld readSpeed %ld\n", static_cast<long>(writeSpeed),
              static_cast<long>(readSpeed));
    }

    {
        std::lock_guard<std::mutex> hold(g_benchmark_lock);
        // Checked again under the lock: a cancel that came in the meantime
        // has sent its own end, and joins this thread.
        if (!stopped_locked(gen)) {
            send_benchmark_event(service, static_cast<unsigned char>(status), 100, speed_on_wire(writeSpeed),
                                 processes);
            reset_state_locked();
            // Nobody joins a thread that ended by itself.
            pthread_detach(pthread_self());
        }
        g_benchmark_done_gen = gen;
        g_benchmark_ended.notify_all();
    }
    g_benchmark_threads_alive.fetch_sub(1);
    return nullptr;
}

}  // namespace

size_t build_benchmark_event(unsigned char* out, size_t size, unsigned char status, unsigned char progress,
                             uint32_t speed, uint32_t processes, bool padded)
{
    size_t len = padded ? BENCHMARK_EVENT_LEN_NO_THREAD : BENCHMARK_EVENT_LEN;
    if (out == nullptr || size < len)
        return 0;
    memset(out, 0, len);
    out[0] = status;
    out[1] = progress;
    put_be32(out + 2, speed);
    put_be32(out + 6, processes);
    return len;
}

unsigned char benchmark_next_stage(unsigned char current, const char* text)
{
    if (text == nullptr)
        return current;
    for (const SStage& stage : kStages) {
        if (stage.from == current)
            return strstr(text, stage.marker) != nullptr ? stage.to : current;
    }
    return current;
}

int parse_benchmark_figure(const char* text, unsigned long* figure)
{
    static const char kMixed[] = "mixed workload";
    static const char kAvg[] = "Avg throughput per process";
    const char* mixed = strstr(text, kMixed);
    if (mixed == nullptr)
        return BENCHMARK_RESULT_NO_MIXED;
    const char* avg = strstr(mixed + strlen(kMixed), kAvg);
    if (avg == nullptr)
        return BENCHMARK_RESULT_NO_AVG;
    const char* equals = strchr(avg + strlen(kAvg), '=');
    if (equals == nullptr)
        return BENCHMARK_RESULT_NO_EQUALS;
    const char* start = equals + 1;
    const char* dot = strchr(start, '.');
    if (dot == nullptr || dot == start || dot - start > BENCHMARK_FIGURE_BUF_LEN - 1)
        return BENCHMARK_RESULT_NO_FIGURE;
    char field[BENCHMARK_FIGURE_BUF_LEN];
    memcpy(field, start, static_cast<size_t>(dot - start));
    field[dot - start] = '\0';
    // strtoul skips the blanks that lead the field.
    *figure = strtoul(field, nullptr, 10);
    return BENCHMARK_RESULT_OK;
}

// Takes the running benchmark over for a cancel: true, with its thread, when
// one runs (on mountPoint or below it, when given) and no other cancel has
// taken it already. The unmount run of the format thread and a cancel on the
// service thread may both come; only one of them joins the thread.
static bool claim_for_cancel(const char* mountPoint, pthread_t* tid)
{
    std::lock_guard<std::mutex> hold(g_benchmark_lock);
    if (!g_benchmark_active || g_benchmark_stop)
        return false;
    if (mountPoint != nullptr) {
        size_t n = strlen(mountPoint);
        const std::string& path = g_benchmark_mount_path;
        if (path.compare(0, n, mountPoint) != 0 || (path.size() > n && path[n] != '/'))
            return false;
    }
    g_benchmark_stop = true;
    *tid = g_benchmark_tid;
    return true;
}

bool benchmark_running()
{
    std::lock_guard<std::mutex> hold(g_benchmark_lock);
    return g_benchmark_active;
}

unsigned char benchmark_progress()
{
    std::lock_guard<std::mutex> hold(g_benchmark_lock);
    return g_benchmark_progress;
}

unsigned long benchmark_ticks()
{
    std::lock_guard<std::mutex> hold(g_benchmark_lock);
    return g_BenchmarkCounter;
}

int benchmark_threads_alive()
{
    return g_benchmark_threads_alive.load();
}

bool StorageManagerService::StartBenchmark(std::string mountPoint)
{
    SLOGD("[%s, %d] mountPoint : %s \n", mountPoint.c_str());
    // The path goes into the tool's command line and into "rm -f" unquoted.
    if (mountPoint.size() >= STORAGE_ACTION_TEXT_LEN || !is_plain_word(mountPoint.c_str())) {
        SLOGE("[%s, %d] ***E: '%s' is no plain mount path, not measured\n", mountPoint.c_str());
        send_benchmark_event(*this, BENCHMARK_STATUS_STOPPED, 0, 0, 0, true);
        return true;
    }
    int rc;
    {
        std::lock_guard<std::mutex> hold(g_benchmark_lock);
        if (g_benchmark_active) {
            // The running benchmark keeps its path and sends its own end.
            SLOGW("[%s, %d] ***W: benchmark of %s is running, %s not measured\n", g_benchmark_mount_path.c_str(),
                  mountPoint.c_str());
            return true;
        }
        g_benchmark_mount_path = mountPoint;
        g_benchmark_progress = 0;
        g_BenchmarkCounter = 0;
        g_benchmark_stop = false;
        ++g_benchmark_gen;

        auto* job = static_cast<SBenchmarkJob*>(calloc(1, sizeof(SBenchmarkJob)));
        if (job == nullptr) {
            rc = ENOMEM;
        } else {
            job->service = this;
            job->gen = g_benchmark_gen;
            lum_strlcpy(job->path, mountPoint.c_str(), sizeof(job->path));
            g_benchmark_threads_alive.fetch_add(1);
            // Created with the lock held: the thread finds its id stored
            // before it can look at the state.
            rc = pthread_create(&g_benchmark_tid, nullptr, benchmark_thread, job);
            if (rc != 0) {
                g_benchmark_threads_alive.fetch_sub(1);
                free(job);
            }
        }
        if (rc != 0) {
            SLOGE("[%s, %d] ***E: creating benchmark thread: %d\n", rc);
            reset_state_locked();
        } else {
            g_benchmark_active = true;
            SLOGD("[%s, %d] benchmark thread was created (thread-ID=%u)\n",
                  static_cast<unsigned>(g_benchmark_tid));
        }
    }
    if (rc != 0) {
        send_benchmark_event(*this, BENCHMARK_STATUS_STOPPED, 0, 0, 0, true);
        return true;
    }
    TosvBenchmarkProgress.StartTimer(BENCHMARK_FIRST_POLL_MS, SIG_ID_STORAGE_BENCHMARK_PROGRESS, GetQueueHandle(), 0);
    return true;
}

int StorageManagerService::ReadBenchmarkResult(unsigned long* pWriteSpeed, unsigned long* pReadSpeed)
{
    char buf[BENCHMARK_OUTPUT_BUF_LEN];
    if (buffer_read_from_file(buf, sizeof(buf), BENCHMARK_OUTPUT_FILE) <= 0)
        return BENCHMARK_RESULT_NO_OUTPUT;
    unsigned long figure = 0;
    int rc = parse_benchmark_figure(buf, &figure);
    if (rc != BENCHMARK_RESULT_OK)
        return rc;
    // The one figure stands for both directions of the mixed workload.
    *pWriteSpeed = figure;
    *pReadSpeed = figure;
    return BENCHMARK_RESULT_OK;
}

int StorageManagerService::ReadBenchmarkProgress()
{
    char buf[BENCHMARK_OUTPUT_BUF_LEN];
    // Nothing to read ends the polling; the thread still sends the end.
    if (buffer_read_from_file(buf, sizeof(buf), BENCHMARK_OUTPUT_FILE) <= 0)
        return 2;
    unsigned char before;
    unsigned char now;
    bool rearm;
    {
        std::lock_guard<std::mutex> hold(g_benchmark_lock);
        before = g_benchmark_progress;
        now = benchmark_next_stage(before, buf);
        g_benchmark_progress = now;
        rearm = now < 100 && g_benchmark_active;
    }
    if (now != before)
        send_benchmark_event(*this, BENCHMARK_STATUS_RUNNING, now, 0, 0);
    if (rearm)
        TosvBenchmarkProgress.StartTimer(BENCHMARK_NEXT_POLL_MS, SIG_ID_STORAGE_BENCHMARK_PROGRESS, GetQueueHandle(),
                                         0);
    return 0;
}

void StorageManagerService::CancelBenchmark()
{
    pthread_t tid;
    if (!claim_for_cancel(nullptr, &tid)) {
        SLOGW("[%s, %d] ***W: no benchmark is running, nothing to cancel\n");
        return;
    }
    StopClaimedBenchmark(tid);
}

bool StorageManagerService::StopBenchmarkOn(const char* mountPoint)
{
    pthread_t tid;
    if (mountPoint == nullptr || !claim_for_cancel(mountPoint, &tid))
        return false;
    SLOGW("[%s, %d] ***W: %s goes away: its benchmark is stopped\n", mountPoint);
    StopClaimedBenchmark(tid);
    return true;
}

namespace {

// Waits up to ms for the thread of generation gen to end, sending TERM
// (killall) every BENCHMARK_KILL_RETRY_MS when term, in case the tool
// started only after the first one. true when it ended.
bool wait_thread_end(unsigned gen, int ms, bool term)
{
    bool killed = false;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    for (;;) {
        if (term && call_system("killall iozone") == 0 && !killed) {
            killed = true;
            SLOGD("[%s, %d] CFilesystemDrv::CancelBenchmark(): kill iozone threads");
        }
        std::unique_lock<std::mutex> hold(g_benchmark_lock);
        auto until = std::min(deadline, std::chrono::steady_clock::now() +
                                            std::chrono::milliseconds(BENCHMARK_KILL_RETRY_MS));
        if (g_benchmark_ended.wait_until(hold, until, [gen] { return g_benchmark_done_gen == gen; }))
            return true;
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
    }
}

}  // namespace

void StorageManagerService::StopClaimedBenchmark(pthread_t tid)
{
    // The thread is stopped by ending its tool rather than by pthread_cancel:
    // a thread cancelled in the middle of call_system would leave the shell
    // unreaped, and one cancelled while sending could leave a lock held. A
    // tool that ignores TERM gets KILL, with its shell; a thread that still
    // does not end is left behind, so that the service thread, and an
    // unmount run with its lock, go on.
    unsigned gen;
    {
        std::lock_guard<std::mutex> hold(g_benchmark_lock);
        gen = g_benchmark_gen;
    }
    bool ended = wait_thread_end(gen, BENCHMARK_TERM_MS, true);
    if (!ended) {
        SLOGW("[%s, %d] ***W: iozone ignores TERM, killed\n");
        shell_job_kill(&g_benchmark_job, SIGKILL);
        ended = wait_thread_end(gen, BENCHMARK_KILL_MS, false);
    }
    if (ended) {
        pthread_join(tid, nullptr);
    } else {
        SLOGE("[%s, %d] ***E: benchmark thread does not end, left behind\n");
        pthread_detach(tid);
    }

    std::string path;
    {
        std::lock_guard<std::mutex> hold(g_benchmark_lock);
        path = g_benchmark_mount_path;
    }
    if (!path.empty()) {
        call_system_within(BENCHMARK_CLEANUP_S, "rm -f %s/iozone*.tmp", path.c_str());
        call_system_within(BENCHMARK_CLEANUP_S, "sync");
    }
    // Three processes whichever command ran: the number clients have always seen.
    send_benchmark_event(*this, BENCHMARK_STATUS_STOPPED, 100, 0, BENCHMARK_PROCESSES_OTHER);
    TosvBenchmarkProgress.StopTimer();
    std::lock_guard<std::mutex> hold(g_benchmark_lock);
    reset_state_locked();
    // A thread left behind finds its generation gone and touches nothing.
    ++g_benchmark_gen;
}

void handle_benchmark(StorageManagerService& service, CNorvMsg*, StorageManagerAction_t* action)
{
    char path[STORAGE_ACTION_TEXT_LEN];
    lum_copy_span(path, sizeof(path), reinterpret_cast<const char*>(action->buf1),
                  strnlen(reinterpret_cast<const char*>(action->buf1), sizeof(path) - 1));
    service.StartBenchmark(path);
}

void handle_cancel_benchmark(StorageManagerService& service, CNorvMsg*, StorageManagerAction_t*)
{
    service.CancelBenchmark();
}

void handle_benchmark_progress(StorageManagerService& service, CNorvMsg* msg, StorageManagerAction_t*)
{
    if (service.TosvBenchmarkProgress.TimerIsValid(msg) == 0 || !benchmark_running())
        return;
    SLOGD("[%s, %d] <FS>: SIG_ID_FILESYS_BENCHMARK_PROGRESS");
    if (benchmark_ticks() < BENCHMARK_MAX_TICKS) {
        service.ReadBenchmarkProgress();
        std::lock_guard<std::mutex> hold(g_benchmark_lock);
        if (g_benchmark_active)
            ++g_BenchmarkCounter;
    } else {
        SLOGW("[%s, %d] <FS>: benchmark is running for 15min --> cancel benchmark");
        service.CancelBenchmark();
    }
}
