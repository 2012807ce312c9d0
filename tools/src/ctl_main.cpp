// lumstoragectl [--socket PATH] [--json] COMMAND [ARGS...]: global options,
// then a subcommand from the table or a command of StorageCmdList.h.
#include <cstring>
#include <unistd.h>

#include "ctl_log.h"
#include "lumctl/ctl.h"
#include "lumctl/request_build.h"
#include "lumproto/socket_path.h"

namespace lumctl {

namespace {

const char kUsage[] =
    "usage: lumstoragectl [--socket PATH] [--json] COMMAND [ARGS...]\n"
    "       lumstoragectl [--socket PATH] [--json] raw WORD [TYPE:VALUE...]\n"
    "       lumstoragectl [--socket PATH] watch [--json] [--count N] [--timeout S]\n"
    "       lumstoragectl [--json] list\n"
    "       lumstoragectl [--socket PATH] [--json] SUBCOMMAND [OPERAND] [--json] [--timeout S]\n"
    "COMMAND is a name from 'list' (STORAGE_DEV_MOUNT, DEV_MOUNT, dev-mount) or its number.\n"
    "ARGS follow the command's request letters: s string, i int32, u uint32, l int64,\n"
    "b true/false/1/0, c one character or a number, r raw bytes (@file, @@literal or\n"
    "literal; give - for the int32 before it to fill in the byte count).\n"
    "raw TYPE letters: i u l b c s, and x for hex bytes appended unpadded.\n"
    "SUBCOMMAND sends a request the service answers by event and waits for the event:\n"
    "  volumes          the volume list as a table (--json: the list and the device table)\n"
    "  devinfo DEVICE   vendor, model, serial and id of a device\n"
    "  mount DEVICE     mounts a device's volumes, printing each one and the count\n"
    "  umount DEVICE    unmounts them, printing each mount point and the count\n"
    "  size DEVICE      the size of a device or partition\n"
    "  used DEVICE      the space used on a partition\n"
    "  free UUID        the free space of a volume\n"
    "  uuid PATH        the uuid of the volume holding PATH\n"
    "  format VOLUME    formats a volume, printing each step and the result\n"
    "  bench MOUNT_PATH measures a volume with iozone, showing its progress; bench --cancel stops it\n"
    "  pvr state        whether there is a PVR partition, and its mount path\n"
    "  pvr path         the PVR partition's mount path\n"
    "  pvr available DISK  the service's verdict on DISK for PVR use\n"
    "  pvr total DISK   the size of DISK as the PVR checks see it\n"
    "  pvr mark DISK [--format]  makes DISK the PVR disk (formatting it first)\n"
    "  pvr guide        what the user interface is asked after a plug-in\n"
    "  pvr limit [MB]   the size limit of the automatic PVR choice; MB sets it\n"
    "  ls PATH [--filter N] [--no-tags] [--id N] [-h]\n"
    "                   lists a directory like ls -l: protection (r/w), size in KiB\n"
    "                   (-h: 1.5M), date, time, name and tags; --filter 0-7 chooses\n"
    "                   what is hidden (0 nothing, 1 dot names, 2 .idx/.desc, 3 those,\n"
    "                   .xml and dot names, 4-7 as 3 and regular files), --no-tags\n"
    "                   skips tags and playlists (filter 1 unless --filter is given)\n"
    "  cover FOLDER FILE  the link the service makes to FILE's cover\n"
    "File subcommands (absolute paths, as the service sees them), each printing\n"
    "the result's meaning; a result other than 0 exits 1:\n"
    "  mkdir PATH       creates a directory and its missing parents\n"
    "  rm [--recording] PATH  removes a file; --recording also PATH's .desc, .idx,\n"
    "                   .idx.desc and .xml (.xml.sig stays)\n"
    "  rm -r PATH       removes a tree;  rmdir PATH  removes an empty directory\n"
    "  protect PATH / unprotect PATH  sets or lifts write protection (98 bytes at most)\n"
    "  cp [--recording|-r] SRC DST  copies a file, a recording with its companions\n"
    "                   or a tree (SRC and DST at most 256 bytes) and waits for the end\n"
    "  cp --cancel      stops a running tree copy and returns at once\n"
    "  cp --direct [-r] SRC DST  copies on the request's own thread, no reason on failure\n"
    "  mv SRC DST [--recording] / rename SRC DST [--recording]  moves or renames\n"
    "  write PATH [FILE|-]  writes FILE (or standard input) into PATH\n"
    "Direct commands, answered by their reply:\n"
    "  exec [--capture] [--] COMMAND...  runs a shell command in the daemon (its\n"
    "                   result; --capture: its first 1024 bytes of output)\n"
    "  chmod PATH MODE  MODE in octal\n"
    "  fd open PATH FLAGS MODE  FLAGS like O_WRONLY|O_CREAT or a number; prints the fd,\n"
    "                   which stays open in the daemon until fd close\n"
    "  fd close FD, fd read FD BYTES (raw to standard output; --json: hex),\n"
    "  fd write FD [FILE|-], fd sync FD\n"
    "  --timeout S waits at most S seconds (mount, umount and pvr mark 60, format\n"
    "  and pvr mark --format 600, ls 30, cp and mv 3600, rm -r and exec 600, the\n"
    "  other file subcommands 60, the others 20).\n"
    "  A refused request or a time-out exits 1, as does a format that fails.\n"
    "  Command names (dev-mount, 4109) still send the command itself and print\n"
    "  its reply.\n"
    "The socket defaults to $LUMSTORAGED_SOCKET, else /run/lumstorage/lumstoraged.sock.\n"
    "Exit: 0 done, 1 connection or protocol error, or a failed file operation, 2\n"
    "usage error (nothing was sent), 3 the service answered no (pvr: a verdict\n"
    "other than success, no PVR partition or path, no size, a limit it did not\n"
    "take; cover: a status other than 0).\n";

int run_help(const CtlContext& ctx, int, char**)
{
    fputs(kUsage, ctx.out);
    return kExitOk;
}

struct SubcommandRow {
    const char* name;
    int (*run)(const CtlContext& ctx, int argc, char** argv);
};

// Exact words only: anything else goes to the command table.
const SubcommandRow kSubcommands[] = {
    {"list", run_list},     {"watch", run_watch},   {"raw", run_raw},       {"help", run_help},
    {"--help", run_help},   {"-h", run_help},       {"volumes", run_volumes}, {"devinfo", run_devinfo},
    {"mount", run_mount},   {"umount", run_umount}, {"size", run_size},     {"used", run_used},
    {"free", run_free},     {"uuid", run_uuid},     {"pvr", run_pvr},       {"format", run_format},
    {"bench", run_bench},   {"ls", run_ls},         {"cover", run_cover},   {"mkdir", run_mkdir},
    {"rm", run_rm},         {"rmdir", run_rmdir},   {"protect", run_protect}, {"unprotect", run_unprotect},
    {"mv", run_mv},         {"rename", run_rename}, {"write", run_write},   {"cp", run_cp},
    {"exec", run_exec},     {"chmod", run_chmod},   {"fd", run_fd},
};

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
            return i;
        } else {
            usage_error(*ctx, std::string("unknown option or missing value: ") + argv[i]);
            return -1;
        }
    }
    if (i >= argc) {
        fprintf(ctx->err, "lumstoragectl: no command\n%s", kUsage);
        return -1;
    }
    return i;
}

}  // namespace

int usage_error(const CtlContext& ctx, const std::string& message)
{
    fprintf(ctx.err, "lumstoragectl: %s\n(lumstoragectl help shows the usage)\n", message.c_str());
    return kExitUsage;
}

int protocol_error(const CtlContext& ctx, const std::string& message)
{
    CTL_LOG(ERROR, "%s: %s", ctx.socket_path.c_str(), message.c_str());
    fprintf(ctx.err, "lumstoragectl: %s\n", message.c_str());
    return kExitProtocol;
}

int transact_and_print(const CtlContext& ctx, const CmdRow* row, int32_t word,
                       const std::vector<uint8_t>& request)
{
    int fd = ctl_connect(ctx.socket_path);
    if (fd < 0)
        return protocol_error(ctx, "connect " + ctx.socket_path + ": " + strerror(-fd));
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
    if (ctx.json)
        fputc('[', ctx.out);
    for (size_t i = 0; i < count; ++i) {
        const CmdRow& r = rows[i];
        if (ctx.json)
            fprintf(ctx.out, "%s{\"name\":\"%s\",\"code\":%d,\"request\":\"%s\",\"reply\":\"%s\"}",
                    i > 0 ? "," : "", r.name, r.value, r.request, r.reply);
        else
            fprintf(ctx.out, "%-34s %5d  %-4s %s\n", r.name, r.value, r.request[0] ? r.request : "-",
                    r.reply[0] ? r.reply : "-");
    }
    if (ctx.json)
        fputs("]\n", ctx.out);
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
    int i = parse_globals(&ctx, argc, argv);
    if (i < 0)
        return kExitUsage;
    for (const SubcommandRow& sub : kSubcommands) {
        if (strcmp(argv[i], sub.name) == 0)
            return sub.run(ctx, argc - i - 1, argv + i + 1);
    }
    const CmdRow* row = cmd_find(argv[i]);
    if (row == nullptr)
        return usage_error(ctx, std::string("unknown command '") + argv[i] + "' (see 'list')");
    return run_command(ctx, *row, argc - i - 1, argv + i + 1);
}

}  // namespace lumctl
