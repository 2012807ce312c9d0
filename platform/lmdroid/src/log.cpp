// __android_log_print for a Linux box: one logcat "threadtime" line per call
// on standard error, e.g.
//   07-14 09:26:53.114  1234  1240 I lumstor : mounted /mnt/usb1
// Each line goes out in a single write(2) so that lines from concurrent
// threads never mix.

#include <android/log.h>
#include <lmdroid/log_hook.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <unistd.h>

namespace {

constexpr size_t kMsgMax = 1024;   // message buffer, NUL included
constexpr int kTagMax = 64;        // longer tags are cut in the line
constexpr size_t kLineMax = kMsgMax + kTagMax + 64;

// -1 until the first use reads LUM_LOG_LEVEL.
std::atomic<int> g_threshold{-1};

std::mutex g_hook_mutex;
lmdroid_log_hook_t g_hook = nullptr;
void* g_hook_ctx = nullptr;
bool g_hook_quiet = false;
// Set while this thread runs the hook: a hook that logs itself writes to
// standard error only, instead of dead-locking on g_hook_mutex.
thread_local bool t_in_hook = false;

int parse_level(const char* s) {
    if (s == nullptr || s[0] == '\0' || s[1] != '\0') return ANDROID_LOG_DEBUG;
    if (s[0] >= '2' && s[0] <= '8') return s[0] - '0';
    switch (s[0]) {
        case 'v': case 'V': return ANDROID_LOG_VERBOSE;
        case 'd': case 'D': return ANDROID_LOG_DEBUG;
        case 'i': case 'I': return ANDROID_LOG_INFO;
        case 'w': case 'W': return ANDROID_LOG_WARN;
        case 'e': case 'E': return ANDROID_LOG_ERROR;
        case 'f': case 'F': return ANDROID_LOG_FATAL;
        case 's': case 'S': return ANDROID_LOG_SILENT;
        default: return ANDROID_LOG_DEBUG;
    }
}

char prio_letter(int prio) {
    static const char kLetters[] = "??VDIWEF";
    return (prio >= 0 && prio < ANDROID_LOG_SILENT) ? kLetters[prio] : '?';
}

void write_all(int fd, const char* buf, size_t len) {
    while (len > 0) {
        ssize_t n = ::write(fd, buf, len);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        buf += n;
        len -= static_cast<size_t>(n);
    }
}

// Formats the threadtime line for msg into line; returns its length.
size_t format_line(char* line, size_t cap, int prio, const char* tag, const char* msg) {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    struct tm tm;
    localtime_r(&now.tv_sec, &tm);
    char stamp[32];
    if (strftime(stamp, sizeof stamp, "%m-%d %H:%M:%S", &tm) == 0) stamp[0] = '\0';

    size_t mlen = strlen(msg);
    if (mlen > 0 && msg[mlen - 1] == '\n') --mlen;  // the line feed is added below
    int n = snprintf(line, cap, "%s.%03ld %5d %5d %c %-8.*s: %.*s\n", stamp,
                     now.tv_nsec / 1000000L, static_cast<int>(getpid()),
                     static_cast<int>(gettid()), prio_letter(prio), kTagMax, tag,
                     static_cast<int>(mlen), msg);
    if (n < 0) return 0;
    if (static_cast<size_t>(n) >= cap) {
        line[cap - 2] = '\n';
        return cap - 1;
    }
    return static_cast<size_t>(n);
}

}  // namespace

extern "C" {

void lmdroid_set_log_threshold(int prio) { g_threshold.store(prio); }

int lmdroid_get_log_threshold(void) {
    int t = g_threshold.load();
    if (t >= 0) return t;
    int env = parse_level(getenv("LUM_LOG_LEVEL"));
    // A threshold set meanwhile by lmdroid_set_log_threshold wins.
    if (g_threshold.compare_exchange_strong(t, env)) return env;
    return t;
}

void lmdroid_set_log_hook(lmdroid_log_hook_t hook, void* ctx, int quiet) {
    std::lock_guard<std::mutex> lock(g_hook_mutex);
    g_hook = hook;
    g_hook_ctx = ctx;
    g_hook_quiet = hook != nullptr && quiet != 0;
}

int __android_log_print(int prio, const char* tag, const char* fmt, ...) {
    const int saved_errno = errno;  // %m reports the caller's errno
    if (prio < ANDROID_LOG_VERBOSE) prio = ANDROID_LOG_VERBOSE;
    if (prio >= ANDROID_LOG_SILENT || prio < lmdroid_get_log_threshold()) {
        errno = saved_errno;
        return -EPERM;
    }
    if (tag == nullptr) tag = "";

    char msg[kMsgMax];
    msg[0] = '\0';
    if (fmt != nullptr) {
        va_list ap;
        va_start(ap, fmt);
        errno = saved_errno;
        vsnprintf(msg, sizeof msg, fmt, ap);
        va_end(ap);
    }
    char line[kLineMax];
    size_t len = format_line(line, sizeof line, prio, tag, msg);

    bool to_stderr = true;
    if (!t_in_hook) {
        std::lock_guard<std::mutex> lock(g_hook_mutex);
        if (g_hook != nullptr) {
            t_in_hook = true;
            g_hook(prio, tag, msg, g_hook_ctx);
            t_in_hook = false;
            to_stderr = !g_hook_quiet;
        }
    }
    if (to_stderr) write_all(STDERR_FILENO, line, len);
    errno = saved_errno;
    return static_cast<int>(strlen(msg));
}

}  // extern "C"
