// exec [--capture] COMMAND...: runs a shell command in the service's
// process and prints its result, or with --capture its output.
#include <cstring>

#include "ctl_pvr.h"
#include "lumctl/file_requests.h"

namespace lumctl {

namespace {

constexpr double kExecTimeoutSeconds = 600;  // the reply comes when the command ended

struct ExecArgs {
    bool capture = false;
    std::string command;  // the words joined by blanks
};

// Options stand before the command; "--" or the first other word starts
// it, so the command's own options stay its own.
int exec_args(const CtlContext& ctx, int argc, char** argv, DeviceCall* call, ExecArgs* args)
{
    call->args.json = ctx.json;
    call->args.timeout = kExecTimeoutSeconds;
    int i = 0;
    for (; i < argc && strncmp(argv[i], "--", 2) == 0; ++i) {
        double v = 0;
        if (strcmp(argv[i], "--") == 0) {
            ++i;
            break;
        } else if (strcmp(argv[i], "--capture") == 0) {
            args->capture = true;
        } else if (strcmp(argv[i], "--json") == 0) {
            call->args.json = true;
        } else if (strcmp(argv[i], "--timeout") == 0 && i + 1 < argc && parse_non_negative(argv[i + 1], &v) && v > 0) {
            call->args.timeout = v;
            ++i;
        } else {
            return usage_error(ctx, std::string("exec: bad option or value at '") + argv[i] +
                                        "' (put -- before a command that starts with --)");
        }
    }
    for (int k = i; k < argc; ++k)
        args->command += (k > i ? " " : "") + std::string(argv[k]);
    if (args->command.empty())
        return usage_error(ctx, "exec takes a COMMAND");
    return kExitOk;
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

int run_exec(const CtlContext& ctx, int argc, char** argv)
{
    DeviceCall call{"exec", "STORAGE_LUM_EXE_SYS_CMD", {}};
    ExecArgs args;
    int rc = exec_args(ctx, argc, argv, &call, &args);
    if (rc != kExitOk)
        return rc;
    Bytes request;
    std::string error;
    if (build_exec(args.command, args.capture, &request, &error) != 0)
        return usage_error(ctx, "exec: " + error);
    if (args.capture)
        call.command = "STORAGE_LUM_EXE_SYS_CMD_RET";
    CtlReply reply;
    if ((rc = direct_request(ctx, call, request, &reply)) != kExitOk)
        return rc;
    const CtlContext local = device_context(ctx, call);
    return args.capture ? print_captured(local, args.command, reply) : print_plain(local, args.command, reply);
}

}  // namespace lumctl
