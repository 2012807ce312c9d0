// pvr mark DISK [--format]: asks the service to make DISK the PVR disk and
// waits for the marking's verdict. With --format the service formats the
// disk first; its steps are printed as they come.

#include <StorageEvents.h>
#include <StoragePvr.h>

#include "ctl_pvr.h"
#include "format_follow.h"
#include "lumctl/event_decoders.h"
#include "lumctl/volume_table.h"

namespace lumctl {

namespace {

struct Marking {
    CtlContext ctx;
    std::string disk;
    bool done = false;
    int32_t verdict = -1;

    // PVR_MARK names its disk cut at 31 characters; another disk's verdict
    // (another client's marking) is skipped.
    EventStep take(const CtlEvent& event)
    {
        const Json info = fields_json(decode_event(event.id, event.data.data(), event.data.size()));
        if (!info.contains("partitionId") ||
            info["partitionId"] != disk.substr(0, sizeof(SStorageMarkPvrInfo::partition_id) - 1))
            return EventStep::kMore;
        done = true;
        verdict = info["pvrFlag"];
        print(info["isPvrPartition"]);
        return EventStep::kDone;
    }

    void print(bool marked) const
    {
        std::string text = printable(disk) + (marked ? ": marked as the PVR disk" : ": not marked: ") +
                           (marked ? "" : std::string(verdict_name(verdict)) + " (" + std::to_string(verdict) + ")");
        print_line(ctx, text,
                   Json{{"disk", disk}, {"marked", marked}, {"verdict", verdict}, {"name", verdict_name(verdict)}});
        fflush(ctx.out);
    }
};

}  // namespace

int run_pvr_mark(const CtlContext& ctx, const DeviceArgs& args)
{
    const bool with_format = args.format;
    DeviceCall call{"pvr mark", "STORAGE_PVR_MARK_DEV", {}};
    device_args(ctx, &call, args, with_format ? kFormatTimeoutSeconds : kRunTimeoutSeconds);
    const std::string disk = call.args.operands[0];
    CtlContext local = device_context(ctx, call);
    FormatFollower follower{local, disk, false};
    Marking marking{local, disk};
    std::vector<int32_t> ids = with_format ? FormatFollower::event_ids()
                                           : std::vector<int32_t>{LUM_TV_EVT_STORAGE_PVR_DEV_CHANGE};
    ids.push_back(LUM_TV_EVT_STORAGE_PVR_MARK);
    auto take = [&follower, &marking](const CtlEvent& e) {
        if (e.id == LUM_TV_EVT_STORAGE_PVR_MARK)
            return marking.take(e);
        follower.take(e);
        return EventStep::kMore;
    };
    EventQuery query;
    std::string error;
    if (device_query(call, {disk, with_format ? "true" : "false"}, ids, take, &query, &error) != 0)
        return usage_error(ctx, error);
    int rc = device_run(ctx, call, query, [&follower, with_format] {
        bool formatting = with_format && follower.phase != FormatPhase::kEnded;
        return formatting ? follower.waiting() : std::string("the marking's verdict");
    });
    if (rc != kExitOk)
        return rc;
    return marking.verdict == PVR_SUCCESS ? kExitOk : kExitNo;
}

}  // namespace lumctl
