// exec [--capture] COMMAND...: runs a shell command in the service's
// process and prints its result, or with --capture its output.
#include "ctl_pvr.h"
#include "lumctl/file_requests.h"

namespace lumctl {

namespace {

constexpr double kExecTimeoutSeconds = 600;  // the reply comes when the command ended

// The command's words joined by blanks; the parser left them as they
// came, behind a "--" that ended exec's options.
std::string command_of(const DeviceArgs& args)
{
    std::string command;
    const std::vector<std::string>& words = args.operands;
    for (size_t i = !words.empty() && words[0] == "--" ? 1 : 0; i < words.size(); ++i)
        command += (command.empty() ? "" : " ") + words[i];
    return command;
}

std::string result_text(int32_t result)
{
    if (result == 0)
        return "ok";
    if (result < 0)
        return "the command did not run (result " + std::to_string(result) + ")";
    return "exit status " + std::to_string(result);
}

int print_plain(const CtlContext& ctx, const std::string& command, const CtlReply& reply)
{
    int32_t result = 0;
    if (ReplyParcel(reply).parcel.readInt32(&result) != android::OK)
        return protocol_error(ctx, "exec: the reply holds no result");
    if (ctx.json)
        print_json(ctx.out, Json{{"shell", command}, {"result", result}});
    else
        fprintf(ctx.out, "%s\n", result_text(result).c_str());
    return result == 0 ? kExitOk : kExitFailed;
}

// The count of bytes read, and when above 0 the output up to its first NUL.
int print_captured(const CtlContext& ctx, const std::string& command, const CtlReply& reply)
{
    ReplyParcel in(reply);
    int32_t count = 0;
    const char* output = "";
    if (in.parcel.readInt32(&count) != android::OK || (count > 0 && (output = in.parcel.readCString()) == nullptr))
        return protocol_error(ctx, "exec --capture: the reply ends early");
    const bool cut = count >= static_cast<int32_t>(kCaptureMax);
    if (ctx.json)
        print_json(ctx.out, Json{{"shell", command}, {"count", count}, {"output", output}, {"cut", cut}});
    else
        fputs(output, ctx.out);
    if (count < 0)
        return protocol_error(
            ctx, "exec --capture: the command could not be started (result " + std::to_string(count) + ")");
    if (cut)
        fprintf(ctx.err, "lumstoragectl: exec --capture: the service answers the first %zu bytes of output only\n",
                kCaptureMax);
    return kExitOk;
}

}  // namespace

int run_exec(const CtlContext& ctx, const DeviceArgs& args)
{
    DeviceCall call{"exec", "STORAGE_LUM_EXE_SYS_CMD", {}};
    device_args(ctx, &call, args, kExecTimeoutSeconds);
    const std::string command = command_of(args);
    if (command.empty())
        return usage_error(ctx, "exec takes a COMMAND");
    Bytes request;
    std::string error;
    if (build_exec(command, args.capture, &request, &error) != 0)
        return usage_error(ctx, "exec: " + error);
    if (args.capture)
        call.command = "STORAGE_LUM_EXE_SYS_CMD_RET";
    CtlReply reply;
    int rc = direct_request(ctx, call, request, &reply);
    if (rc != kExitOk)
        return rc;
    const CtlContext local = device_context(ctx, call);
    return args.capture ? print_captured(local, command, reply) : print_plain(local, command, reply);
}

}  // namespace lumctl
