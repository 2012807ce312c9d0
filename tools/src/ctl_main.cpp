// lumstoragectl [--socket PATH] [--json] COMMAND [ARGS...]: global options,
// then a subcommand from the table or a command of StorageCmdList.h.
#include <cstring>
#include <unistd.h>

#include "ctl_log.h"
#include "lumctl/ctl.h"
#include "lumctl/ctl_help.h"
#include "lumctl/request_build.h"
#include "lumproto/socket_path.h"

namespace lumctl {

namespace {

struct SubcommandRow {
    const char* name;
    int (*run)(const CtlContext& ctx, int argc, char** argv);
    // Options stand before the first other word, which begins what the
    // subcommand passes on (exec's shell command): a --help behind it is not
    // lumstoragectl's.
    bool options_first = false;
};

// Exact words only: anything else goes to the command table. Each has a
// help page of the same name (ctl_help.cpp).
const SubcommandRow kSubcommands[] = {
    {"list", run_list},     {"watch", run_watch},   {"raw", run_raw},       {"help", run_help},
    {"volumes", run_volumes}, {"devinfo", run_devinfo},
    {"mount", run_mount},   {"umount", run_umount}, {"size", run_size},     {"used", run_used},
    {"free", run_free},     {"uuid", run_uuid},     {"pvr", run_pvr},       {"format", run_format},
    {"bench", run_bench},   {"ls", run_ls},         {"cover", run_cover},   {"mkdir", run_mkdir},
    {"rm", run_rm},         {"rmdir", run_rmdir},   {"protect", run_protect}, {"unprotect", run_unprotect},
    {"mv", run_mv},         {"rename", run_rename}, {"write", run_write},   {"cp", run_cp},
    {"exec", run_exec, true}, {"chmod", run_chmod}, {"fd", run_fd},
};

// A --help among the words, before "--" (and before the first word that is
// not an option when options come first).
bool wants_help(int argc, char** argv, bool options_first)
{
    for (int i = 0; i < argc; ++i) {
        if (strcmp(argv[i], "--") == 0 || (options_first && strncmp(argv[i], "--", 2) != 0))
            return false;
        if (strcmp(argv[i], "--help") == 0)
            return true;
    }
    return false;
}

// Consumes the global options; returns the index of the command word, or
// -1 after a usage error.
int parse_globals(CtlContext* ctx, int argc, char** argv)
{
    int i = 1;
    for (; i < argc && argv[i][0] == '-' && argv[i][1] == '-'; ++i) {
        if (strcmp(argv[i], "--json") == 0) {
            ctx->json = true;
        } else if (strcmp(argv[i], "--socket") == 0 && i + 1 < argc) {
            ctx->socket_path = argv[++i];
        } else if (strcmp(argv[i], "--help") == 0) {
            return i;  // the help word itself
        } else {
            usage_error(*ctx, std::string("unknown option or missing value: ") + argv[i]);
            return -1;
        }
    }
    if (i >= argc) {
        usage_error(*ctx, "no subcommand or command given");
        return -1;
    }
    return i;
}

}  // namespace

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

int run_command(const CtlContext& ctx, const CmdRow& row, int argc, char** argv)
{
    std::vector<std::string> args(argv, argv + argc);
    std::vector<uint8_t> request;
    std::string error;
    if (build_request(row, args, &request, &error) != 0)
        return usage_error(ctx, error);
    return transact_and_print(ctx, &row, row.value, request);
}

int run_raw(const CtlContext& ctx, int argc, char** argv)
{
    if (argc < 1)
        return usage_error(ctx, "raw wants a command word");
    int32_t word = 0;
    const CmdRow* row = cmd_find(argv[0]);
    if (row != nullptr)
        word = row->value;
    else if (!parse_cmd_number(argv[0], &word))
        return usage_error(ctx, std::string("'") + argv[0] + "' is neither a command nor a number");
    std::vector<std::string> items(argv + 1, argv + argc);
    std::vector<uint8_t> request;
    std::string error;
    if (build_raw_request(word, items, &request, &error) != 0)
        return usage_error(ctx, error);
    return transact_and_print(ctx, row, word, request);
}

int run_list(const CtlContext& ctx, int, char**)
{
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

std::vector<std::string> subcommand_names()
{
    std::vector<std::string> names;
    for (const SubcommandRow& sub : kSubcommands)
        names.push_back(sub.name);
    return names;
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
    int i = parse_globals(&ctx, argc, argv);
    if (i < 0)
        return kExitUsage;
    if (strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0)
        return print_help(ctx, nullptr);
    ctx.command = argv[i];
    int rest = argc - i - 1;
    char** words = argv + i + 1;
    for (const SubcommandRow& sub : kSubcommands) {
        if (strcmp(argv[i], sub.name) != 0)
            continue;
        if (sub.run != run_help && wants_help(rest, words, sub.options_first))
            return print_help(ctx, sub.name);
        return sub.run(ctx, rest, words);
    }
    const CmdRow* row = cmd_find(argv[i]);
    if (row == nullptr)
        return usage_error(ctx, std::string("unknown subcommand or command '") + argv[i] +
                                    "': lumstoragectl help lists the subcommands, lumstoragectl list the commands");
    if (wants_help(rest, words, false))
        return print_help(ctx, argv[i]);
    return run_command(ctx, *row, rest, words);
}

}  // namespace lumctl
