// cp: a file, a recording with its companions (--recording) or a tree (-r)
// copied by the service's copy engine and followed to its end event;
// cp --cancel stops a running tree copy; cp --direct copies on the
// caller's thread and answers by its reply alone.
#include <StorageEvents.h>

#include "ctl_pvr.h"
#include "lumctl/file_requests.h"
#include "lumctl/volume_table.h"

namespace lumctl {

namespace {

// The copy engine joins a tree's entries to both roots as they are, so both
// end in "/".
std::string with_slash(const std::string& path)
{
    return !path.empty() && path.back() == '/' ? path : path + "/";
}

// True when the reply is result 0 and carries a bool (its value in *value).
bool reply_bool(const CtlReply& reply, bool* value)
{
    int32_t raw = 0;
    if (ReplyParcel(reply).parcel.readInt32(&raw) != android::OK)
        return false;
    *value = raw != 0;
    return true;
}

// Sends the cancel and returns: no event answers it.
int cancel(const CtlContext& ctx, const DeviceArgs& args)
{
    DeviceCall call{"cp --cancel", "STORAGE_COPY", {}};
    device_args(ctx, &call, args, kQueryTimeoutSeconds);
    Bytes request;
    std::string error;
    if (build_copy_cancel(&request, &error) != 0)
        return usage_error(ctx, error);
    CtlReply reply;
    bool queued = false;
    int rc = direct_request(ctx, call, request, &reply);
    if (rc != kExitOk)
        return rc;
    if (!reply_bool(reply, &queued))
        return protocol_error(ctx, "cp --cancel: the reply holds no bool");
    if (device_context(ctx, call).json)
        print_json(ctx.out, Json{{"cancel", true}, {"queued", queued}});
    else if (queued)
        fprintf(ctx.out, "cancel sent (a running tree copy stops before its next entry)\n");
    return queued ? kExitOk : protocol_error(ctx, "cp --cancel: the service did not queue the cancel");
}

// STORAGE_COPY_FILE / STORAGE_COPY_DIRS: true or false, no reason.
int direct_copy(const CtlContext& ctx, DeviceCall* call, const std::string& src, const std::string& dst, bool tree)
{
    call->sub = "cp --direct";
    call->command = tree ? "STORAGE_COPY_DIRS" : "STORAGE_COPY_FILE";
    Bytes request;
    std::string error;
    if (build_copy_direct(src, dst, tree, &request, &error) != 0)
        return usage_error(ctx, "cp: " + error);
    CtlReply reply;
    bool ok = false;
    int rc = direct_request(ctx, *call, request, &reply);
    if (rc != kExitOk)
        return rc;
    if (!reply_bool(reply, &ok))
        return protocol_error(ctx, "cp --direct: the reply holds no bool");
    const CtlContext local = device_context(ctx, *call);
    if (local.json)
        print_json(ctx.out, Json{{"source", src}, {"destination", dst}, {"ok", ok}});
    else
        fprintf(ctx.out, "%s: %s\n", printable(subject(*call)).c_str(),
                ok ? "done" : "failed (the reply gives no reason)");
    return ok ? kExitOk : kExitFailed;
}

}  // namespace

int run_cp(const CtlContext& ctx, const DeviceArgs& args)
{
    if (args.cancel)
        return cancel(ctx, args);
    FileOp op;
    op.call = {"cp", "STORAGE_COPY", {}, "no copy will run"};
    device_args(ctx, &op.call, args, kCopyTimeoutSeconds);
    std::vector<std::string>& paths = op.call.args.operands;
    if (!args.tree && !paths[0].empty() && paths[0].back() == '/')
        return usage_error(ctx, "cp: '" + paths[0] + "' ends in '/': a directory takes cp -r");
    if (args.tree)
        paths = {with_slash(paths[0]), with_slash(paths[1])};
    if (args.direct)
        return direct_copy(ctx, &op.call, paths[0], paths[1], args.tree);
    op.event = LUM_TV_EVT_STORAGE_COPY;
    op.space_notices = true;
    op.progress = true;
    op.shape = args.tree ? CopyShape::kTree : args.recording ? CopyShape::kRecording : CopyShape::kFile;
    op.names = {{"source", paths[0]}, {"destination", paths[1]}, {"recording", args.recording}};
    std::string error;
    if (build_copy(paths[0], paths[1], args.recording ? kCopyRecording : kCopyPlain, &op.request, &error) != 0)
        return usage_error(ctx, "cp: " + error);
    return run_file_op(ctx, op);
}

}  // namespace lumctl
