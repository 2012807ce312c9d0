// bench MOUNT_PATH: measures a volume with the service's disk benchmark and
// shows its progress as a bar; bench --cancel: stops the running one.
#include <cstring>
#include <string>

#include <StorageEvents.h>

#include "ctl_device.h"
#include "lumctl/event_decoders.h"
#include "lumctl/volume_table.h"

namespace lumctl {

namespace {

// The service stops a benchmark after 450 progress polls, 2 s and then 4 s
// apart: about 1800 s.
constexpr double kBenchTimeoutSeconds = 1860;
constexpr uint8_t kBenchRunning = 8;


// iozone's kB/s (of 1024 bytes) as MB/s or GB/s.
std::string rate_text(uint32_t kib_per_s)
{
    return human_kib(kib_per_s) + "B/s";
}

std::string bar(unsigned progress)
{
    unsigned filled = (progress > 100 ? 100 : progress) / 5;
    return "[" + std::string(filled, '#') + std::string(20 - filled, ' ') + "] " + std::to_string(progress) + "%";
}

// e: the fields of the benchmark event's decoder (status, progress, speed,
// processes), which are also its JSON.
void print_event(const CtlContext& ctx, const Json& e)
{
    const unsigned status = e["status"], speed = e["speed"], processes = e["processes"];
    if (ctx.json) {
        print_json(ctx.out, e);
    } else if (status == kBenchRunning) {
        fprintf(ctx.out, "%s\n", bar(e["progress"]).c_str());
    } else if (status == 0) {
        fprintf(ctx.out, "result: %u kB/s per process (%s), %u processes\n", speed, rate_text(speed).c_str(),
                processes);
    } else if (status == 1) {
        fprintf(ctx.out, "result: cancelled or not started (status 1)\n");
    } else {
        fprintf(ctx.out, "result: failed (status %u)\n", status);
    }
    fflush(ctx.out);
}

// Every benchmark event until one that ends the run.
struct BenchFollower {
    CtlContext ctx;
    bool ok = false;
    EventStep take(const CtlEvent& event)
    {
        if (event.id != LUM_TV_EVT_STORAGE_DEV_BENCHMARK)
            return EventStep::kMore;
        const Json e = fields_json(decode_event(event.id, event.data.data(), event.data.size()));
        if (e.empty())
            return EventStep::kMore;  // shorter than a benchmark event
        print_event(ctx, e);
        if (e["status"] == kBenchRunning)
            return EventStep::kMore;
        ok = e["status"] == 0;
        return EventStep::kDone;
    }
};

int run_cancel(const CtlContext& ctx, const DeviceArgs& args)
{
    DeviceCall call{"bench", "STORAGE_DEV_CANCEL_BENCHMARK", {}};
    device_args(ctx, &call, args, kQueryTimeoutSeconds);
    CtlReply reply;
    int rc = direct_run(ctx, call, {}, &reply);
    if (rc != kExitOk)
        return rc;
    if (device_context(ctx, call).json)
        print_json(ctx.out, Json{{"cancel", true}});
    else
        fprintf(ctx.out, "cancel requested\n");
    return kExitOk;
}

}  // namespace

int run_bench(const CtlContext& ctx, const DeviceArgs& args)
{
    if (args.cancel)
        return run_cancel(ctx, args);
    DeviceCall call{"bench", "STORAGE_DEV_BENCHMARK", {}};
    device_args(ctx, &call, args, kBenchTimeoutSeconds);
    BenchFollower follower{device_context(ctx, call)};
    EventQuery query;
    std::string error;
    if (device_query(call, {call.args.operands[0]}, {LUM_TV_EVT_STORAGE_DEV_BENCHMARK},
                     [&follower](const CtlEvent& e) { return follower.take(e); }, &query, &error) != 0)
        return usage_error(ctx, error);
    int rc = device_run(ctx, call, query, [] { return std::string("the benchmark's end"); });
    if (rc != kExitOk)
        return rc;
    return follower.ok ? kExitOk : kExitFailed;
}

}  // namespace lumctl
