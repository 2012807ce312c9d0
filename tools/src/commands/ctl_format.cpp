// format VOLUME: asks the service to format a volume and follows the format
// to its result, printing each step as its event comes.
#include <StorageFormatInfo.h>

#include "ctl_device.h"
#include "format_follow.h"

namespace lumctl {

int run_format(const CtlContext& ctx, const DeviceArgs& args)
{
    DeviceCall call{"format", "STORAGE_DEV_FORMAT", {}};
    device_args(ctx, &call, args, kFormatTimeoutSeconds);
    const std::string volume = call.args.operands[0];
    // The service drops a longer name without any event: the wait would only
    // end in the time-out.
    if (volume.empty() || volume.size() >= STORAGE_FORMAT_DEVNAME_LEN)
        return usage_error(ctx, "format: VOLUME has 1 to " + std::to_string(STORAGE_FORMAT_DEVNAME_LEN - 1) +
                                    " characters");
    FormatFollower follower{device_context(ctx, call), volume, true};
    EventQuery query;
    std::string error;
    if (device_query(call, {volume}, FormatFollower::event_ids(),
                     [&follower](const CtlEvent& e) { return follower.take(e); }, &query, &error) != 0)
        return usage_error(ctx, error);
    int rc = device_run(ctx, call, query, [&follower] { return follower.waiting(); });
    if (rc != kExitOk)
        return rc;
    return follower.ok ? kExitOk : kExitFailed;
}

}  // namespace lumctl
