// The direct primitives, run in the daemon's process and answered by their
// reply: exec [--capture] COMMAND..., chmod PATH MODE, and fd WORD ... on
// descriptors that stay open in the daemon after lumstoragectl ends, until
// fd close (the result, and errno behind a negative one).
#include <cstring>
#include <functional>

#include "commands.h"
#include "lumproto/frame.h"

namespace lumctl {

namespace {

constexpr double kExecTimeoutSeconds = 600;  // the reply comes when the command ended
// The reply of a read holds the count twice and the bytes padded to 4.
constexpr long long kReadMax = lumproto::kMaxPayload - 16;

// The descriptor of an fd word (its first operand).
int fd_arg(const CtlContext& ctx, const DeviceCall& call, int32_t* fd)
{
    long long value = 0;
    if (!parse_number(call.args.operands[0], 0, INT32_MAX, &value, 10))
        return usage_error(
            ctx, std::string(call.sub) + ": FD is a number 0..2147483647, not '" + call.args.operands[0] + "'");
    *fd = static_cast<int32_t>(value);
    return kExitOk;
}

// direct_ask, then the result ("value", "count" for a read) and the errno
// behind a negative one, which is reported (with json, when JSON is asked
// for): kExitFailed.
int errno_call(const CtlContext& ctx, const DeviceCall& call, const std::vector<std::string>& fields,
               const Bytes& request, Json json, Json* answer, Bytes* bytes = nullptr)
{
    int rc = direct_ask(ctx, call, fields, request, answer, bytes);
    if (rc != kExitOk)
        return rc;
    const int32_t value = answer->contains("count") ? (*answer)["count"] : (*answer)["value"];
    if (value >= 0)
        return kExitOk;
    const int err = (*answer)["errno"];
    if (call.local.json) {
        json["result"] = value;
        json["errno"] = err;
        print_json(ctx.out, json);
    }
    return protocol_error(ctx, call.subject() + ": " + strerror(err) + " (errno " + std::to_string(err) + ")");
}

// errno_call, then on success json with key = the result, or the text of it.
int errno_run(const CtlContext& ctx, const DeviceCall& call, const std::vector<std::string>& fields,
              const Bytes& request, Json json, const char* key, const std::function<std::string(int32_t)>& text)
{
    Json answer;
    int rc = errno_call(ctx, call, fields, request, json, &answer);
    if (rc != kExitOk)
        return rc;
    json[key] = answer["value"];
    print_line(call.local, text(answer["value"]), json);
    return kExitOk;
}

}  // namespace

// exec: the command's words joined by blanks, as the parser left them
// behind a "--" that ended exec's options. Prints ok or the exit status, or
// with --capture the command's output.
int run_exec(const CtlContext& ctx, const DeviceArgs& args)
{
    DeviceCall call(ctx, "exec", args.capture ? "STORAGE_LUM_EXE_SYS_CMD_RET" : "STORAGE_LUM_EXE_SYS_CMD", args,
                    kExecTimeoutSeconds);
    std::string command;
    const std::vector<std::string>& words = args.operands;
    for (size_t i = !words.empty() && words[0] == "--" ? 1 : 0; i < words.size(); ++i)
        command += (command.empty() ? "" : " ") + words[i];
    if (command.empty())
        return usage_error(ctx, "exec takes a COMMAND");
    Bytes request;
    std::string error;
    if (build_exec(command, args.capture, &request, &error) != 0)
        return usage_error(ctx, "exec: " + error);
    Json answer;
    int rc = direct_ask(ctx, call, {}, request, &answer);
    if (rc != kExitOk)
        return rc;
    const int32_t result = answer["value"];
    if (!args.capture) {
        const std::string text = result == 0 ? "ok"
                                 : result < 0 ? "the command did not run (result " + std::to_string(result) + ")"
                                              : "exit status " + std::to_string(result);
        print_line(call.local, text, Json{{"shell", command}, {"result", result}});
        return result == 0 ? kExitOk : kExitFailed;
    }
    // The count of bytes read, and when above 0 the output up to its first NUL.
    const std::string output = answer.value("text", std::string());
    const bool cut = result >= static_cast<int32_t>(kCaptureMax);
    if (call.local.json)
        print_json(ctx.out, Json{{"shell", command}, {"count", result}, {"output", output}, {"cut", cut}});
    else
        fputs(output.c_str(), ctx.out);
    if (result < 0)
        return protocol_error(
            ctx, "exec --capture: the command could not be started (result " + std::to_string(result) + ")");
    if (cut)
        fprintf(ctx.err, "lumstoragectl: exec --capture: the service answers the first %zu bytes of output only\n",
                kCaptureMax);
    return kExitOk;
}

int run_chmod(const CtlContext& ctx, const DeviceArgs& args)
{
    DeviceCall call(ctx, "chmod", "STORAGE_LUM_CHMOD", args, kQueryTimeoutSeconds);
    int32_t mode = 0;
    const std::string path = args.operands[0];
    if (!parse_mode(args.operands[1], &mode))
        return usage_error(ctx, "chmod: MODE is octal 0 to 7777, not '" + args.operands[1] + "'");
    char octal[8];
    snprintf(octal, sizeof(octal), "%04o", static_cast<unsigned>(mode));
    return errno_run(ctx, call, {path, std::to_string(mode)}, {}, {{"path", path}, {"mode", octal}}, "result",
                     [&octal, &path](int32_t) { return "chmod " + std::string(octal) + " " + printable(path) + ": done"; });
}

int run_fd_open(const CtlContext& ctx, const DeviceArgs& args)
{
    DeviceCall call(ctx, "fd open", "STROAGE_LUM_OPEN", args, kQueryTimeoutSeconds);
    const std::vector<std::string>& ops = args.operands;
    int32_t flags = 0, mode = 0;
    if (!parse_open_flags(ops[1], &flags))
        return usage_error(ctx, "fd open: FLAGS are names like O_RDWR|O_CREAT or a number, not '" + ops[1] + "'");
    if (!parse_mode(ops[2], &mode))
        return usage_error(ctx, "fd open: MODE is octal 0 to 7777, not '" + ops[2] + "'");
    return errno_run(ctx, call, {ops[0], std::to_string(flags), std::to_string(mode)}, {},
                     {{"path", ops[0]}, {"flags", flags}, {"mode", mode}}, "fd", [](int32_t fd) {
                         return "fd " + std::to_string(fd) + " (it stays open in the daemon until fd close " +
                                std::to_string(fd) + ")";
                     });
}

int run_fd_close(const CtlContext& ctx, const DeviceArgs& args)
{
    DeviceCall call(ctx, "fd close", "STROAGE_LUM_CLOSE", args, kQueryTimeoutSeconds);
    int32_t fd = 0;
    int rc = fd_arg(ctx, call, &fd);
    return rc != kExitOk ? rc : errno_run(ctx, call, {std::to_string(fd)}, {}, {{"fd", fd}}, "result", [fd](int32_t) {
        return "closed fd " + std::to_string(fd);
    });
}

// The bytes go to standard output as they are; with --json as hex.
int run_fd_read(const CtlContext& ctx, const DeviceArgs& args)
{
    DeviceCall call(ctx, "fd read", "STROAGE_LUM_READ", args, kQueryTimeoutSeconds);
    int32_t fd = 0;
    long long bytes = 0;
    int rc = fd_arg(ctx, call, &fd);
    if (rc != kExitOk)
        return rc;
    if (!parse_number(args.operands[1], 0, kReadMax, &bytes, 10))
        return usage_error(
            ctx, "fd read: BYTES is a number 0.." + std::to_string(kReadMax) + ", not '" + args.operands[1] + "'");
    Json json = {{"fd", fd}}, answer;
    Bytes data;
    if ((rc = errno_call(ctx, call, {std::to_string(fd), std::to_string(bytes)}, {}, json, &answer, &data)) !=
        kExitOk)
        return rc;
    const int32_t count = answer["count"];
    if (answer["length"] != count)
        return protocol_error(ctx, "fd read: the counts of the reply differ");
    if (call.local.json) {
        json["count"] = count;
        json["hex"] = answer["data"];
        print_json(ctx.out, json);
    } else if (!data.empty()) {
        fwrite(data.data(), 1, data.size(), ctx.out);
    }
    return kExitOk;
}

int run_fd_write(const CtlContext& ctx, const DeviceArgs& args)
{
    DeviceCall call(ctx, "fd write", "STROAGE_LUM_WRITE", args, kQueryTimeoutSeconds);
    int32_t fd = 0;
    int rc = fd_arg(ctx, call, &fd);
    if (rc != kExitOk)
        return rc;
    Bytes data, request;
    std::string error;
    if (read_data(args.operands.size() > 1 ? args.operands[1] : "-", ctx.in, &data, &error) != 0 ||
        build_fd_write(fd, data, &request, &error) != 0)
        return usage_error(ctx, "fd write: " + error);
    const size_t size = data.size();
    return errno_run(ctx, call, {}, request, {{"fd", fd}, {"bytes", size}}, "result", [fd, size](int32_t written) {
        return "wrote " + std::to_string(written) + " of " + std::to_string(size) + " bytes to fd " +
               std::to_string(fd);
    });
}

int run_fd_sync(const CtlContext& ctx, const DeviceArgs& args)
{
    DeviceCall call(ctx, "fd sync", "STORAGE_LUM_SYNC", args, kQueryTimeoutSeconds);
    int32_t fd = 0;
    Json answer;
    int rc = fd_arg(ctx, call, &fd);
    if (rc != kExitOk || (rc = direct_ask(ctx, call, {std::to_string(fd)}, {}, &answer)) != kExitOk)
        return rc;
    const bool ok = answer["value"];
    print_line(call.local, (ok ? "synced the file system of fd " : "sync failed for fd ") + std::to_string(fd),
               Json{{"fd", fd}, {"ok", ok}});
    return ok ? kExitOk : kExitFailed;
}

}  // namespace lumctl
