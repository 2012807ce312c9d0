// watch: subscribe and print every event until --count events came or
// --timeout seconds passed; --hex adds each payload's bytes.
#include <unistd.h>

#include "lumctl/ctl.h"
#include "lumctl/ctl_args.h"

namespace lumctl {

namespace {

// --count and --timeout below 0: no limit.
int watch_loop(const CtlContext& ctx, int fd, const DeviceArgs& opts)
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

int run_watch(const CtlContext& ctx, const DeviceArgs& args)
{
    CtlContext local = ctx;
    local.json = ctx.json || args.json;
    local.hex = args.hex;
    int fd = ctl_connect(ctx.socket_path);
    if (fd < 0)
        return protocol_error(ctx, connect_error(ctx.socket_path, -fd));
    std::string error;
    if (ctl_subscribe(fd, &error) != 0) {
        close(fd);
        return protocol_error(ctx, error);
    }
    int rc = watch_loop(local, fd, args);
    close(fd);
    return rc;
}

}  // namespace lumctl
