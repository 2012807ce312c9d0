// watch: subscribe and print every event until --count events came or
// --timeout seconds passed; --hex adds each payload's bytes.
#include <cmath>
#include <cstring>
#include <unistd.h>

#include "lumctl/ctl.h"
#include "lumctl/ctl_args.h"

namespace lumctl {

namespace {

struct WatchOptions {
    bool json = false;
    bool hex = false;
    long count = -1;       // below 0: no limit
    double timeout = -1;   // seconds; below 0: no limit
};

int parse_watch(const CtlContext& ctx, int argc, char** argv, WatchOptions* opts)
{
    for (int i = 0; i < argc; ++i) {
        double v = 0;
        if (strcmp(argv[i], "--json") == 0) {
            opts->json = true;
        } else if (strcmp(argv[i], "--hex") == 0) {
            opts->hex = true;
        } else if (strcmp(argv[i], "--count") == 0 && i + 1 < argc && parse_non_negative(argv[i + 1], &v) &&
                   v >= 1 && v == std::floor(v)) {
            opts->count = static_cast<long>(v);
            ++i;
        } else if (strcmp(argv[i], "--timeout") == 0 && i + 1 < argc && parse_non_negative(argv[i + 1], &v)) {
            opts->timeout = v;
            ++i;
        } else {
            return usage_error(ctx, std::string("watch: bad option or value at '") + argv[i] + "'");
        }
    }
    return kExitOk;
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
    local.hex = opts.hex;
    int fd = ctl_connect(ctx.socket_path);
    if (fd < 0)
        return protocol_error(ctx, connect_error(ctx.socket_path, -fd));
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
