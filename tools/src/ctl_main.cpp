// lumstoragectl as a function, usage and protocol errors, and the
// subcommands of events and the service's commands: a command of the table
// or a raw request sent and its reply printed, list and watch.
#include <unistd.h>

#include <android/log.h>

#include "lumctl/ctl.h"
#include "lumproto/socket_path.h"

namespace lumctl {

int usage_error(const CtlContext& ctx, const std::string& message)
{
    std::string hint = "lumstoragectl help shows the usage";
    if (find_row(nullptr, ctx.command) != nullptr)
        hint = "lumstoragectl help " + ctx.command + " shows its usage";
    fprintf(ctx.err, "lumstoragectl: %s\n(%s)\n", message.c_str(), hint.c_str());
    return kExitUsage;
}

int protocol_error(const CtlContext& ctx, const std::string& message)
{
    // The message itself goes to standard error below; the log line, with the
    // socket, is for LUM_LOG_LEVEL=v.
    __android_log_print(ANDROID_LOG_VERBOSE, "lumstoragectl", "[%s, %d] %s: %s", __func__, __LINE__,
                        ctx.socket_path.c_str(), message.c_str());
    fprintf(ctx.err, "lumstoragectl: %s\n", message.c_str());
    return kExitFailed;
}

int transact_and_print(const CtlContext& ctx, const CmdRow* row, int32_t word,
                       const std::vector<uint8_t>& request)
{
    int fd = ctl_connect(ctx.socket_path);
    if (fd < 0)
        return protocol_error(ctx, connect_error(ctx.socket_path, -fd));
    CtlReply reply;
    std::string error;
    int rc = ctl_transact(fd, request, -1, &reply, &error);
    close(fd);
    if (rc != 1)
        return protocol_error(ctx, error);
    print_reply(ctx, row, word, reply);
    return kExitOk;
}

int run_command(const CtlContext& ctx, const CmdRow& row, const std::vector<std::string>& fields)
{
    std::vector<uint8_t> request;
    std::string error;
    if (build_request(row, fields, &request, &error) != 0)
        return usage_error(ctx, error);
    return transact_and_print(ctx, &row, row.value, request);
}

int run_raw(const CtlContext& ctx, const DeviceArgs& args)
{
    const std::string& name = args.operands[0];
    long long number = 0;
    const CmdRow* row = cmd_find(name.c_str());
    if (row == nullptr && !parse_number(name, 0, INT32_MAX, &number))
        return usage_error(ctx, "'" + name + "' is neither a command nor a number");
    const int32_t word = row != nullptr ? row->value : static_cast<int32_t>(number);
    std::vector<std::string> items(args.operands.begin() + 1, args.operands.end());
    std::vector<uint8_t> request;
    std::string error;
    if (build_raw_request(word, items, &request, &error) != 0)
        return usage_error(ctx, error);
    return transact_and_print(ctx, row, word, request);
}

int run_list(const CtlContext& ctx_in, const DeviceArgs& args)
{
    CtlContext ctx = ctx_in;
    ctx.json = ctx.json || args.json;
    size_t count = 0;
    const CmdRow* rows = cmd_rows(&count);
    Json table = Json::array();
    for (size_t i = 0; i < count; ++i) {
        const CmdRow& r = rows[i];
        if (ctx.json)
            table.push_back({{"name", r.name}, {"code", r.value}, {"request", r.request}, {"reply", r.reply}});
        else
            fprintf(ctx.out, "%-34s %5d  %-4s %s\n", r.name, r.value, r.request[0] ? r.request : "-",
                    r.reply[0] ? r.reply : "-");
    }
    if (ctx.json)
        print_json(ctx.out, table);
    return kExitOk;
}

// watch: every event until --count events came or --timeout seconds passed
// (below 0: no limit); --hex adds each payload's bytes.
int run_watch(const CtlContext& ctx_in, const DeviceArgs& args)
{
    CtlContext ctx = ctx_in;
    ctx.json = ctx.json || args.json;
    ctx.hex = args.hex;
    int fd = ctl_connect(ctx.socket_path);
    if (fd < 0)
        return protocol_error(ctx, connect_error(ctx.socket_path, -fd));
    std::string error;
    int rc = ctl_subscribe(fd, &error) != 0 ? protocol_error(ctx, error) : kExitOk;
    double deadline = args.timeout >= 0 ? now_seconds() + args.timeout : -1;
    for (long seen = 0; rc == kExitOk && (args.count < 0 || seen < args.count);) {
        CtlIncoming in;
        int got = ctl_next_incoming(fd, time_left_ms(deadline), &in, &error);
        if (got > 0 && in.is_reply) {
            got = -1;
            error = "unexpected REPLY frame";
        }
        if (got < 0)
            rc = protocol_error(ctx, error);
        else if (got == 0 && args.count >= 0)
            rc = protocol_error(ctx, "timed out after " + std::to_string(seen) + " of " + std::to_string(args.count) +
                                         " events");
        if (got <= 0)
            break;
        print_event(ctx, in.event);
        seen += in.event.dropped ? 0 : 1;
    }
    close(fd);
    return rc;
}

int ctl_main(int argc, char** argv, FILE* out, FILE* err)
{
    CtlContext ctx;
    ctx.socket_path = lumproto::default_socket_path();
    ctx.out = out;
    ctx.err = err;
    return run_command_line(&ctx, argc, argv);
}

}  // namespace lumctl
