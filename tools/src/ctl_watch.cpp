// watch: subscribe and print every event until --count events came or
// --timeout seconds passed.
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <unistd.h>

#include "lumctl/ctl.h"

namespace lumctl {

namespace {

struct WatchOptions {
    bool json = false;
    long count = -1;       // below 0: no limit
    double timeout = -1;   // seconds; below 0: no limit
};

bool parse_positive(const char* text, double* out)
{
    char* end = nullptr;
    errno = 0;
    double v = strtod(text, &end);
    if (errno != 0 || end == text || *end != '\0' || !std::isfinite(v) || v < 0 || v > 1e9)
        return false;
    *out = v;
    return true;
}

int parse_watch(const CtlContext& ctx, int argc, char** argv, WatchOptions* opts)
{
    for (int i = 0; i < argc; ++i) {
        double v = 0;
        if (strcmp(argv[i], "--json") == 0) {
            opts->json = true;
        } else if (strcmp(argv[i], "--count") == 0 && i + 1 < argc && parse_positive(argv[i + 1], &v) &&
                   v >= 1 && v == std::floor(v)) {
            opts->count = static_cast<long>(v);
            ++i;
        } else if (strcmp(argv[i], "--timeout") == 0 && i + 1 < argc && parse_positive(argv[i + 1], &v)) {
            opts->timeout = v;
            ++i;
        } else {
            return usage_error(ctx, std::string("watch: bad option or value at '") + argv[i] + "'");
        }
    }
    return kExitOk;
}

double now_seconds()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

// Milliseconds left before the deadline; -1 without one.
int time_left_ms(double deadline)
{
    if (deadline < 0)
        return -1;
    double left = deadline - now_seconds();
    return left <= 0 ? 0 : static_cast<int>(std::ceil(left * 1000));
}

int watch_loop(const CtlContext& ctx, int fd, const WatchOptions& opts)
{
    double deadline = opts.timeout >= 0 ? now_seconds() + opts.timeout : -1;
    long seen = 0;
    while (opts.count < 0 || seen < opts.count) {
        CtlEvent event;
        std::string error;
        int rc = ctl_next_event(fd, time_left_ms(deadline), &event, &error);
        if (rc < 0)
            return protocol_error(ctx, error);
        if (rc == 0 && opts.count < 0)
            return kExitOk;
        if (rc == 0)
            return protocol_error(ctx, "timed out after " + std::to_string(seen) + " of " +
                                           std::to_string(opts.count) + " events");
        print_event(ctx, event);
        if (!event.dropped)
            ++seen;
    }
    return kExitOk;
}

}  // namespace

int run_watch(const CtlContext& ctx, int argc, char** argv)
{
    WatchOptions opts;
    opts.json = ctx.json;
    int rc = parse_watch(ctx, argc, argv, &opts);
    if (rc != kExitOk)
        return rc;
    CtlContext local = ctx;
    local.json = opts.json;
    int fd = ctl_connect(ctx.socket_path);
    if (fd < 0)
        return protocol_error(ctx, "connect " + ctx.socket_path + ": " + strerror(-fd));
    std::string error;
    if (ctl_subscribe(fd, &error) != 0) {
        close(fd);
        return protocol_error(ctx, error);
    }
    rc = watch_loop(local, fd, opts);
    close(fd);
    return rc;
}

}  // namespace lumctl
