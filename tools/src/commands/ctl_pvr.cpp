// pvr WORD: the PVR requests. state, path, available, total, guide and limit
// are answered by the reply alone; mark waits for the marking's verdict.
#include <StorageEvents.h>
#include <StoragePvr.h>

#include "commands.h"

namespace lumctl {

namespace {

// The smallest limit the service takes.
constexpr uint32_t kLimitMinimumMb = 1800;

// Runs call's subcommand with command (null: its own) and fields, and reads
// the value of its reply.
template <typename T>
int ask(const CtlContext& ctx, const DeviceCall& call, const char* command, const std::vector<std::string>& fields,
        T* value)
{
    DeviceCall other = call;
    other.command = command != nullptr ? command : call.command;
    Json answer;
    int rc = direct_ask(ctx, other, fields, {}, &answer);
    if (rc == kExitOk)
        *value = answer["value"].get<T>();
    return rc;
}

const char kPathCommand[] = "STORAGE_PVR_MOUNT_PATH", kLimitCommand[] = "STORAGE_GET_PVR_DEV_SIZE_LIMIT";

std::string ignored_because(uint32_t asked)
{
    if (asked < kLimitMinimumMb)
        return "below the minimum of " + std::to_string(kLimitMinimumMb) + " MB";
    return "the service takes a new limit only while recording or timeshift is on";
}

// "4.0G (4096 MB)"; 0 switches the automatic choice off.
std::string limit_text(uint32_t mb)
{
    return mb == 0 ? "0 MB (no automatic choice)" : human_mb(mb) + " (" + std::to_string(mb) + " MB)";
}

// The outcome of a set: taken, already held, or ignored (exit kExitNo).
int report_set(const CtlContext& ctx, uint32_t before, uint32_t asked, uint32_t after)
{
    Json json = {{"limitMB", after}, {"previousMB", before}, {"requestedMB", asked}, {"changed", after != before}};
    std::string text = "PVR size limit: " + limit_text(after);
    if (after == asked)
        text += after == before ? ", unchanged: it was set already" : ", was " + limit_text(before);
    else
        text += ", unchanged: " + std::to_string(asked) + " MB ignored, " + ignored_because(asked);
    if (after != asked)
        json["ignored"] = ignored_because(asked);
    print_line(ctx, text, json);
    return after == asked ? kExitOk : kExitNo;
}

// PVR_MARK names its disk cut at 31 characters; another disk's verdict
// (another client's marking) is skipped.
struct Marking {
    CtlContext ctx;
    std::string disk;
    int32_t verdict = -1;

    EventStep take(const CtlEvent& event)
    {
        const Json info = event_json(event);
        if (!info.contains("partitionId") ||
            info["partitionId"] != disk.substr(0, sizeof(SStorageMarkPvrInfo::partition_id) - 1))
            return EventStep::kMore;
        verdict = info["pvrFlag"];
        const bool marked = info["isPvrPartition"];
        std::string text = printable(disk) + (marked ? ": marked as the PVR disk" : ": not marked: ") +
                           (marked ? "" : std::string(verdict_name(verdict)) + " (" + std::to_string(verdict) + ")");
        print_line(ctx, text,
                   Json{{"disk", disk}, {"marked", marked}, {"verdict", verdict}, {"name", verdict_name(verdict)}});
        fflush(ctx.out);
        return EventStep::kDone;
    }
};

}  // namespace

int run_pvr_state(const CtlContext& ctx, const DeviceArgs& args)
{
    DeviceCall call(ctx, "pvr state", "STORAGE_PVR_DEV_STATE", args, kQueryTimeoutSeconds);
    bool pvr = false;
    std::string path;
    int rc = ask(ctx, call, nullptr, {}, &pvr);
    if (rc != kExitOk || (rc = ask(ctx, call, kPathCommand, {}, &path)) != kExitOk)
        return rc;
    std::string text = !pvr ? "no PVR partition"
                            : "PVR partition: " + (path.empty() ? "(mount path not known)" : printable(path));
    print_line(call.local, text, Json{{"pvr", pvr}, {"mountPath", path}});
    return pvr ? kExitOk : kExitNo;
}

int run_pvr_path(const CtlContext& ctx, const DeviceArgs& args)
{
    DeviceCall call(ctx, "pvr path", "STORAGE_PVR_MOUNT_PATH", args, kQueryTimeoutSeconds);
    std::string path;
    int rc = ask(ctx, call, kPathCommand, {}, &path);
    if (rc != kExitOk)
        return rc;
    if (call.local.json)
        print_json(ctx.out, Json{{"mountPath", path}});
    else if (path.empty())
        fprintf(ctx.err, "lumstoragectl: pvr path: no PVR mount path\n");
    else
        fprintf(ctx.out, "%s\n", printable(path).c_str());
    return path.empty() ? kExitNo : kExitOk;
}

// pvr available DISK (the verdict) and pvr total DISK (the size in MB).
int run_pvr_disk(const CtlContext& ctx, const DeviceArgs& args)
{
    const bool total = args.sub == "pvr total";
    DeviceCall call(ctx, total ? "pvr total" : "pvr available",
                    total ? "STORAGE_PVR_DISK_TOTAL" : "STORAGE_PVR_DEV_AVAILABLE", args, kQueryTimeoutSeconds);
    Json value;
    int rc = ask(ctx, call, nullptr, call.args.operands, &value);
    const int32_t verdict = rc == kExitOk && !total ? value.get<int32_t>() : 0;
    const int64_t mb = rc == kExitOk && total ? value.get<int64_t>() : 0;
    const std::string& disk = call.args.operands[0];
    if (rc != kExitOk || !total) {
        const char* name = verdict_name(verdict);
        if (rc == kExitOk)
            print_line(call.local, printable(disk) + ": verdict " + std::to_string(verdict) + ", " + name,
                       Json{{"disk", disk}, {"verdict", verdict}, {"name", name}, {"usable", verdict == 0}});
        return rc != kExitOk ? rc : verdict == 0 ? kExitOk : kExitNo;
    }
    // The service answers 0 for a disk it cannot size.
    std::string size = mb > 0 ? human_mb(static_cast<uint64_t>(mb)) + " " : "no size known ";
    print_line(call.local, printable(disk) + ": " + size + "(" + std::to_string(mb) + " MB)",
               Json{{"disk", disk}, {"totalMB", mb}});
    return mb > 0 ? kExitOk : kExitNo;
}

int run_pvr_guide(const CtlContext& ctx, const DeviceArgs& args)
{
    DeviceCall call(ctx, "pvr guide", "STORAGE_PVR_GET_DEV_GUIDE_INFO", args, kQueryTimeoutSeconds);
    Json answer;
    Bytes record;
    int rc = direct_ask(ctx, call, {}, {}, &answer, &record);
    if (rc != kExitOk)
        return rc;
    if (answer["value"] != 0)
        return protocol_error(ctx, "pvr guide: the service answered result " + answer["value"].dump());
    Decoded decoded;
    decode_guide(record.data(), record.size(), &decoded);
    Json guide = fields_json(decoded);
    guide["asks"] = guide_asks(guide);
    if (call.local.json)
        print_json(ctx.out, guide);
    else
        fputs(guide_text(guide).c_str(), ctx.out);
    return kExitOk;
}

// pvr limit [MB]: reads the limit, or sets it and reads it back. The set
// has no answer: the service ignores a value below its minimum, the value it
// holds, and any value while neither recording nor timeshift is on, so only
// the read-back tells what happened.
int run_pvr_limit(const CtlContext& ctx, const DeviceArgs& args)
{
    DeviceCall call(ctx, "pvr limit", "STORAGE_SET_PVR_DEV_SIZE_LIMIT", args, kQueryTimeoutSeconds);
    int rc = kExitOk;
    uint32_t before = 0, after = 0;
    long long asked = 0;
    if (!call.args.operands.empty() && !parse_number(call.args.operands[0], 0, UINT32_MAX, &asked, 10))
        return usage_error(ctx, "pvr limit: MB is a whole number of megabytes, not '" + call.args.operands[0] + "'");
    if ((rc = ask(ctx, call, kLimitCommand, {}, &before)) != kExitOk)
        return rc;
    if (call.args.operands.empty()) {
        print_line(call.local, "PVR size limit: " + limit_text(before), Json{{"limitMB", before}});
        return kExitOk;
    }
    if ((rc = direct_ask(ctx, call, {std::to_string(asked)}, {}, nullptr)) != kExitOk ||
        (rc = ask(ctx, call, kLimitCommand, {}, &after)) != kExitOk)
        return rc;
    return report_set(call.local, before, static_cast<uint32_t>(asked), after);
}

// pvr mark DISK [--format]: asks the service to make DISK the PVR disk and
// waits for the verdict; with --format the disk is formatted first, its
// steps printed as they come.
int run_pvr_mark(const CtlContext& ctx, const DeviceArgs& args)
{
    const bool with_format = args.format;
    DeviceCall call(ctx, "pvr mark", "STORAGE_PVR_MARK_DEV", args,
                    with_format ? kFormatTimeoutSeconds : kRunTimeoutSeconds);
    const std::string disk = call.args.operands[0];
    FormatFollower follower{call.local, disk, false};
    Marking marking{call.local, disk};
    std::vector<int32_t> ids = with_format ? FormatFollower::event_ids()
                                           : std::vector<int32_t>{LUM_TV_EVT_STORAGE_PVR_DEV_CHANGE};
    ids.push_back(LUM_TV_EVT_STORAGE_PVR_MARK);
    auto take = [&follower, &marking](const CtlEvent& e) {
        if (e.id == LUM_TV_EVT_STORAGE_PVR_MARK)
            return marking.take(e);
        follower.take(e);
        return EventStep::kMore;
    };
    int rc = device_ask(ctx, call, {disk, with_format ? "true" : "false"}, ids, take, [&follower, with_format] {
        bool formatting = with_format && follower.phase != FormatPhase::kEnded;
        return formatting ? follower.waiting() : std::string("the marking's verdict");
    });
    if (rc != kExitOk)
        return rc;
    return marking.verdict == PVR_SUCCESS ? kExitOk : kExitNo;
}

}  // namespace lumctl
