// pvr WORD: the PVR requests. state, path, available and total are answered
// by the reply alone; mark, guide and limit live in their own files.
#include <cstring>

#include "ctl_pvr.h"
#include "lumctl/device_decoders.h"
#include "lumctl/volume_table.h"

namespace lumctl {

namespace {

int malformed(const CtlContext& ctx, const DeviceCall& call)
{
    return protocol_error(ctx, std::string(call.sub) + ": the reply is shorter than " + call.command + " answers");
}

// One request without operands and its cstring reply.
int read_path(const CtlContext& ctx, const DeviceCall& call, std::string* path)
{
    DeviceCall path_call{call.sub, "STORAGE_PVR_MOUNT_PATH", call.args};
    CtlReply reply;
    int rc = direct_run(ctx, path_call, {}, &reply);
    if (rc != kExitOk)
        return rc;
    ReplyParcel in(reply);
    const char* text = in.parcel.readCString();
    if (text == nullptr)
        return malformed(ctx, path_call);
    *path = text;
    return kExitOk;
}

// Runs call, with its operands as fields or none, within the query timeout
// and reads the one number of its reply.
template <typename T>
int read_number(const CtlContext& ctx, DeviceCall* call, const DeviceArgs& args, bool with_operands, T* value)
{
    device_args(ctx, call, args, kQueryTimeoutSeconds);
    CtlReply reply;
    int rc = direct_run(ctx, *call, with_operands ? call->args.operands : std::vector<std::string>{}, &reply);
    if (rc != kExitOk)
        return rc;
    ReplyParcel in(reply);
    android::status_t read;
    if constexpr (sizeof(T) == 8)
        read = in.parcel.readInt64(value);
    else
        read = in.parcel.readInt32(value);
    return read == android::OK ? kExitOk : malformed(ctx, *call);
}

int pvr_state(const CtlContext& ctx, const DeviceArgs& args)
{
    DeviceCall call{"pvr state", "STORAGE_PVR_DEV_STATE", {}};
    int32_t state = 0;
    std::string path;
    int rc = read_number(ctx, &call, args, false, &state);
    if (rc != kExitOk || (rc = read_path(ctx, call, &path)) != kExitOk)
        return rc;
    std::string text = state == 0 ? "no PVR partition"
                                  : "PVR partition: " + (path.empty() ? "(mount path not known)" : printable(path));
    print_line(device_context(ctx, call), text, Json{{"pvr", state != 0}, {"mountPath", path}});
    return state != 0 ? kExitOk : kExitNo;
}

int pvr_path(const CtlContext& ctx, const DeviceArgs& args)
{
    DeviceCall call{"pvr path", "STORAGE_PVR_MOUNT_PATH", {}};
    device_args(ctx, &call, args, kQueryTimeoutSeconds);
    std::string path;
    int rc = read_path(ctx, call, &path);
    if (rc != kExitOk)
        return rc;
    CtlContext local = device_context(ctx, call);
    if (local.json)
        print_json(local.out, Json{{"mountPath", path}});
    else if (path.empty())
        fprintf(ctx.err, "lumstoragectl: pvr path: no PVR mount path\n");
    else
        fprintf(local.out, "%s\n", printable(path).c_str());
    return path.empty() ? kExitNo : kExitOk;
}

int pvr_available(const CtlContext& ctx, const DeviceArgs& args)
{
    DeviceCall call{"pvr available", "STORAGE_PVR_DEV_AVAILABLE", {}};
    int32_t verdict = 0;
    int rc = read_number(ctx, &call, args, true, &verdict);
    if (rc != kExitOk)
        return rc;
    const std::string& disk = call.args.operands[0];
    const char* name = verdict_name(verdict);
    print_line(device_context(ctx, call), printable(disk) + ": verdict " + std::to_string(verdict) + ", " + name,
               Json{{"disk", disk}, {"verdict", verdict}, {"name", name}, {"usable", verdict == 0}});
    return verdict == 0 ? kExitOk : kExitNo;
}

int pvr_total(const CtlContext& ctx, const DeviceArgs& args)
{
    DeviceCall call{"pvr total", "STORAGE_PVR_DISK_TOTAL", {}};
    int64_t mb = 0;
    int rc = read_number(ctx, &call, args, true, &mb);
    if (rc != kExitOk)
        return rc;
    const std::string& disk = call.args.operands[0];
    // The service answers 0 for a disk it cannot size.
    std::string size = mb > 0 ? human_mb(static_cast<uint64_t>(mb)) + " " : "no size known ";
    print_line(device_context(ctx, call), printable(disk) + ": " + size + "(" + std::to_string(mb) + " MB)",
               Json{{"disk", disk}, {"totalMB", mb}});
    return mb > 0 ? kExitOk : kExitNo;
}

const WordRow kPvrWords[] = {
    {"state", pvr_state},  {"path", pvr_path},         {"available", pvr_available}, {"total", pvr_total},
    {"mark", run_pvr_mark}, {"guide", run_pvr_guide}, {"limit", run_pvr_limit},
};

}  // namespace

int run_pvr(const CtlContext& ctx, const DeviceArgs& args)
{
    return run_word(ctx, kPvrWords, sizeof(kPvrWords) / sizeof(kPvrWords[0]), args);
}

}  // namespace lumctl
