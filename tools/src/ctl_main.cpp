// lumstoragectl as a function, and what its subcommands share: usage and
// protocol errors, a request sent and its reply printed, the raw forms.
#include <unistd.h>

#include "ctl_log.h"
#include "lumctl/ctl.h"
#include "lumctl/ctl_help.h"
#include "lumctl/request_build.h"
#include "lumproto/socket_path.h"

namespace lumctl {

int usage_error(const CtlContext& ctx, const std::string& message)
{
    std::string hint = "lumstoragectl help shows the usage";
    if (!ctx.command.empty() && has_help(ctx.command.c_str()))
        hint = "lumstoragectl help " + ctx.command + " shows its usage";
    fprintf(ctx.err, "lumstoragectl: %s\n(%s)\n", message.c_str(), hint.c_str());
    return kExitUsage;
}

int protocol_error(const CtlContext& ctx, const std::string& message)
{
    // The message itself goes to standard error below; the log line, with the
    // socket, is for LUM_LOG_LEVEL=v.
    CTL_LOG(VERBOSE, "%s: %s", ctx.socket_path.c_str(), message.c_str());
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
    int rc = ctl_transact(fd, request, &reply, &error);
    close(fd);
    if (rc != 0)
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
    int32_t word = 0;
    const CmdRow* row = cmd_find(name.c_str());
    if (row != nullptr)
        word = row->value;
    else if (!parse_cmd_number(name.c_str(), &word))
        return usage_error(ctx, "'" + name + "' is neither a command nor a number");
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

int ctl_main(int argc, char** argv, FILE* out, FILE* err)
{
    return ctl_main(argc, argv, stdin, out, err);
}

int ctl_main(int argc, char** argv, FILE* in, FILE* out, FILE* err)
{
    CtlContext ctx;
    ctx.socket_path = lumproto::default_socket_path();
    ctx.in = in;
    ctx.out = out;
    ctx.err = err;
    return run_command_line(&ctx, argc, argv);
}

}  // namespace lumctl
