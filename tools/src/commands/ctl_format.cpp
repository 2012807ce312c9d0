// format VOLUME: a format followed to its result, each step printed as its
// event comes (JSON lines are {"step":NAME} plus the event's fields); bench
// MOUNT_PATH: the service's disk benchmark with its progress as a bar, bench
// --cancel stops the running one.
#include <StorageEvents.h>
#include <StorageFormatInfo.h>

#include "commands.h"

namespace lumctl {

namespace {

using Phase = FormatPhase;

// {"step":step,...the event's fields}
Json step_json(const char* step, const CtlEvent& event)
{
    Json json = {{"step", step}};
    json.update(event_json(event));
    return json;
}

bool before(Phase a, Phase b) { return static_cast<int>(a) < static_cast<int>(b); }

void enter(FormatFollower* f, Phase phase, const char* word)
{
    if (!before(f->phase, phase))
        return;
    f->phase = phase;
    f->say(word, Json{{"step", word}});
}

// retVal, the device, and with retVal 0 the size in MB, as the event's
// decoder reads them; an event it cannot read names no volume.
EventStep on_partition(FormatFollower* f, const CtlEvent& event)
{
    const Json fields = event_json(event);
    if (f->phase == Phase::kEnded || !fields.contains("device") || fields["device"] != f->volume)
        return EventStep::kMore;
    f->have_partition = true;
    f->ret_val = fields["retVal"];
    f->size_mb = fields.value("sizeMB", -1LL);
    Json line = {{"step", "partition"}};
    line.update(fields);
    f->say("", line);
    return EventStep::kMore;
}

struct ReasonRow {
    int ret_val;
    const char* reason;
};

const ReasonRow kReasons[] = {{4, "no table row"}, {5, "tool failed"}};

// Why a format failed, from the SET_ALL_PARTITION that came for it.
std::string failure_reason(const FormatFollower* f, int32_t result)
{
    if (result == 0)
        return "";
    if (result != -1)
        return "result " + std::to_string(result);
    if (!f->have_partition || f->ret_val == 0)
        return "";
    for (const ReasonRow& row : kReasons) {
        if (row.ret_val == f->ret_val)
            return row.reason;
    }
    return "error " + std::to_string(f->ret_val);
}

EventStep finish(FormatFollower* f, int32_t result, const std::string& reason)
{
    f->phase = Phase::kEnded;
    f->ok = result == 0;
    Json json = {{"step", "result"}, {"volume", f->volume}, {"ok", f->ok}, {"result", result}};
    std::string text = f->ok ? "result: ok" : "result: failed";
    if (f->ok && f->size_mb >= 0) {
        json["sizeMB"] = f->size_mb;
        text += ", " + human_mb(static_cast<uint64_t>(f->size_mb)) + " (" + std::to_string(f->size_mb) + " MB)";
    }
    if (!reason.empty()) {
        json["reason"] = reason;
        text += " (" + reason + ")";
    }
    f->say(text, json);
    return EventStep::kDone;
}

EventStep on_format(FormatFollower* f, const CtlEvent& event)
{
    const Json fields = event_json(event);
    if (f->phase == Phase::kEnded || !fields.contains("devName") || fields["devName"] != f->volume)
        return EventStep::kMore;
    const int32_t result = fields["result"];
    const auto code = static_cast<unsigned int>(result);
    if (code == STORAGE_FORMAT_RESULT_TIMEOUT) {
        f->say("watchdog expired, still formatting", step_json("watchdog", event));
        return EventStep::kMore;
    }
    // Busy answers the request only before its format showed any step; later
    // it is another client's request for the same volume.
    if (code == STORAGE_FORMAT_RESULT_BUSY)
        return f->busy_counts && f->phase == Phase::kWaiting ? finish(f, result, "another format is running")
                                                             : EventStep::kMore;
    return finish(f, result, failure_reason(f, result));
}

using Text = std::string (*)(const CtlEvent& event);

// The steps told from events: one that counts while the format is between
// low and high (mount and unmount events carry no volume name) enters phase,
// saying word once, goes on to after, and says text and {"step":step,...};
// or, for the partition and the result, the row's own handler.
struct StepRow {
    int32_t id;
    Phase low, high, phase;
    const char* word;  // null: the phase stays
    Phase after;
    const char* step;
    Text text;
    EventStep (*take)(FormatFollower* f, const CtlEvent& event);
};

const StepRow kSteps[] = {
    {LUM_TV_EVT_STORAGE_DEV_UMOUNT, Phase::kWaiting, Phase::kUnmounting, Phase::kUnmounting, "unmounting",
     Phase::kUnmounting, "unmounted", unmounted_text, nullptr},
    {LUM_TV_EVT_STORAGE_DEV_UMOUNT_END, Phase::kWaiting, Phase::kUnmounting, Phase::kUnmounting, "unmounting",
     Phase::kFormatting, "formatting", [](const CtlEvent&) { return std::string("formatting"); }, nullptr},
    {LUM_TV_EVT_STORAGE_DEV_MOUNT, Phase::kFormatting, Phase::kMounting, Phase::kMounting, "mounting",
     Phase::kMounting, "mounted", mounted_text, nullptr},
    {LUM_TV_EVT_STORAGE_DEV_MOUNT_END, Phase::kFormatting, Phase::kMounting, Phase::kMounting, "mounting",
     Phase::kMounted, "mountEnd", [](const CtlEvent&) { return std::string(); }, nullptr},
    {LUM_TV_EVT_STORAGE_PVR_PLUG_OUT, Phase::kWaiting, Phase::kEnded, Phase::kWaiting, nullptr, Phase::kWaiting,
     "pvrPlugOut", [](const CtlEvent& e) { return "PVR partition gone: " + path_text(e); }, nullptr},
    {LUM_TV_EVT_STORAGE_PVR_DEV_CHANGE, Phase::kWaiting, Phase::kEnded, Phase::kWaiting, nullptr, Phase::kWaiting,
     "pvrChange", [](const CtlEvent& e) { return "PVR partition now " + path_text(e); }, nullptr},
    {LUM_TV_EVT_STORAGE_SET_ALL_PARTITION, {}, {}, {}, nullptr, {}, nullptr, nullptr, on_partition},
    {LUM_TV_EVT_STORAGE_FORMAT, {}, {}, {}, nullptr, {}, nullptr, nullptr, on_format},
};

const char* const kPhaseNames[] = {"no step yet", "unmounting", "formatting", "mounting",
                                   "mounted again, no result yet", "ended"};

}  // namespace

std::vector<int32_t> FormatFollower::event_ids()
{
    std::vector<int32_t> ids;
    for (const StepRow& row : kSteps)
        ids.push_back(row.id);
    return ids;
}

EventStep FormatFollower::take(const CtlEvent& event)
{
    for (const StepRow& row : kSteps) {
        if (row.id != event.id)
            continue;
        if (row.take != nullptr)
            return row.take(this, event);
        if (before(phase, row.low) || before(row.high, phase))
            return EventStep::kMore;
        if (row.word != nullptr) {
            enter(this, row.phase, row.word);
            phase = row.after;
        }
        say(row.text(event), step_json(row.step, event));
    }
    return EventStep::kMore;
}

std::string FormatFollower::waiting() const
{
    return std::string("the result of the format of ") + printable(volume) + " (so far: " +
           kPhaseNames[static_cast<int>(phase)] + ")";
}

void FormatFollower::say(const std::string& text, const Json& json) const
{
    if (ctx.json)
        print_json(ctx.out, json);
    else if (!text.empty())
        fprintf(ctx.out, "%s\n", text.c_str());
    fflush(ctx.out);
}

namespace {

// The service stops a benchmark after 450 progress polls, 2 s and then 4 s
// apart: about 1800 s.
constexpr double kBenchTimeoutSeconds = 1860;
constexpr unsigned kBenchRunning = 8;

// Every benchmark event until one that ends the run; its decoded fields
// (status, progress, speed, processes) are also its JSON.
struct BenchFollower {
    CtlContext ctx;
    bool ok = false;
    EventStep take(const CtlEvent& event)
    {
        const Json e = event_json(event);
        if (e.empty())
            return EventStep::kMore;  // shorter than a benchmark event
        const unsigned status = e["status"], speed = e["speed"], processes = e["processes"];
        const unsigned progress = e["progress"], filled = (progress > 100 ? 100 : progress) / 5;
        if (ctx.json)
            print_json(ctx.out, e);
        else if (status == kBenchRunning)
            fprintf(ctx.out, "[%s%s] %u%%\n", std::string(filled, '#').c_str(), std::string(20 - filled, ' ').c_str(),
                    progress);
        else if (status == 0)  // iozone's kB/s (of 1024 bytes)
            fprintf(ctx.out, "result: %u kB/s per process (%sB/s), %u processes\n", speed, human_kib(speed).c_str(),
                    processes);
        else if (status == 1)
            fprintf(ctx.out, "result: cancelled or not started (status 1)\n");
        else
            fprintf(ctx.out, "result: failed (status %u)\n", status);
        fflush(ctx.out);
        ok = status == 0;
        return status == kBenchRunning ? EventStep::kMore : EventStep::kDone;
    }
};

}  // namespace

int run_format(const CtlContext& ctx, const DeviceArgs& args)
{
    DeviceCall call(ctx, "format", "STORAGE_DEV_FORMAT", args, kFormatTimeoutSeconds);
    const std::string volume = call.args.operands[0];
    // The service drops a longer name without any event: the wait would only
    // end in the time-out.
    if (volume.empty() || volume.size() >= STORAGE_FORMAT_DEVNAME_LEN)
        return usage_error(ctx, "format: VOLUME has 1 to " + std::to_string(STORAGE_FORMAT_DEVNAME_LEN - 1) +
                                    " characters");
    FormatFollower follower{call.local, volume, true};
    int rc = device_ask(ctx, call, {volume}, FormatFollower::event_ids(),
                        [&follower](const CtlEvent& e) { return follower.take(e); },
                        [&follower] { return follower.waiting(); });
    return rc != kExitOk ? rc : follower.ok ? kExitOk : kExitFailed;
}

int run_bench(const CtlContext& ctx, const DeviceArgs& args)
{
    if (args.cancel) {
        DeviceCall call(ctx, "bench", "STORAGE_DEV_CANCEL_BENCHMARK", args, kQueryTimeoutSeconds);
        int rc = direct_ask(ctx, call, {}, {}, nullptr);
        if (rc == kExitOk)
            print_line(call.local, "cancel requested", Json{{"cancel", true}});
        return rc;
    }
    DeviceCall call(ctx, "bench", "STORAGE_DEV_BENCHMARK", args, kBenchTimeoutSeconds);
    BenchFollower follower{call.local};
    int rc = device_ask(ctx, call, {call.args.operands[0]}, {LUM_TV_EVT_STORAGE_DEV_BENCHMARK},
                        [&follower](const CtlEvent& e) { return follower.take(e); },
                        [] { return std::string("the benchmark's end"); });
    return rc != kExitOk ? rc : follower.ok ? kExitOk : kExitFailed;
}

}  // namespace lumctl
