// lumstoragectl's command line, read by CLI11: the global options, one row
// per subcommand (its operands, options and help texts), --help anywhere before the
// words that belong to others, and usage errors (exit 2). A word that is no
// subcommand is a command of StorageCmdList.h; its fields stay unparsed, as
// the raw forms take any word.
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <sstream>

#include <CLI/CLI.hpp>

#include "lumctl/ctl.h"

namespace lumctl {

namespace {

// The options a row takes.
enum : unsigned {
    kJson = 1u << 0,
    kTimeout = 1u << 1,      // --timeout S, above 0
    kWatchTimeout = 1u << 2, // --timeout S, 0 too
    kRecording = 1u << 3,
    kTree = 1u << 4,
    kDirectCopy = 1u << 5,
    kCancel = 1u << 6,       // --cancel instead of the operands
    kCapture = 1u << 7,
    kHex = 1u << 8,
    kCount = 1u << 9,
    kLs = 1u << 10,          // --filter, --id, --no-tags, -h
    kFormat = 1u << 11,
    kCommandTail = 1u << 12, // the operands are another program's words, taken as they come
    kWords = 1u << 13,       // a word of the rows naming it as parent follows
};
constexpr unsigned kDev = kJson | kTimeout;

const char kDevices[] = "Devices and volumes";
const char kPvr[] = "PVR, format and benchmark";
const char kFiles[] = "Files (absolute paths, as the service sees them)";
const char kDirect[] = "Direct primitives (run in the daemon's process)";
const char kRaw[] = "Events and the service's commands";

}  // namespace

// The order of the overview; each top row has a help page of its name, the
// pvr and fd rows follow their parent.
const SubRow kSubRows[] = {
    {nullptr, "volumes", run_volumes, "", kDev, kDevices, "volumes\tthe volume table: disks, partitions, phones",
     "Prints NAME TYPE CONN FSTYPE LABEL SIZE USED MOUNTPOINT VENDOR MODEL, partitions\n"
     "under their disk; sizes as 48M, 1.9G. --json: the volume list and the device\n"
     "table as the service sent them. Default --timeout 20 s.\n"},
    {nullptr, "devinfo", run_devinfo, "DEVICE", kDev, kDevices,
     "devinfo DEVICE\tvendor, model, serial and id of a device",
     "DEVICE as the volume table names it (/dev/sdb). Exit 3 when the service has no\n"
     "information for it. Default --timeout 20 s.\n"},
    {nullptr, "mount", run_device_run, "DEVICE", kDev, kDevices,
     "mount DEVICE\tmounts a device's volumes, printing each and the count",
     "DEVICE: /dev/sdb, sdb1 or a phone's id (VEN_...). Prints each volume as the\n"
     "service announces it, then the count. Default --timeout 60 s.\n"},
    {nullptr, "umount", run_device_run, "DEVICE", kDev, kDevices,
     "umount DEVICE\tunmounts them, printing each mount point and the count",
     "As mount, the other way. Default --timeout 60 s.\n"},
    {nullptr, "size", run_query, "DEVICE", kDev, kDevices, "size DEVICE\tthe size of a device or partition",
     "Prints '/dev/sdb1: 48M (48 MB)'. Default --timeout 20 s; an unknown device\n"
     "gets no answer, so it ends in the time-out (exit 1).\n"},
    {nullptr, "used", run_query, "DEVICE", kDev, kDevices,
     "used DEVICE\tthe space used on a partition", "As size. Default --timeout 20 s.\n"},
    {nullptr, "free", run_query, "UUID", kDev, kDevices, "free UUID\tthe free space of the volume with that uuid",
     "The service sends no answer for an unknown uuid: exit 1 after --timeout\n"
     "(default 20 s).\n"},
    {nullptr, "uuid", run_query, "PATH", kDev, kDevices, "uuid PATH\tthe uuid of the volume holding PATH",
     "No answer for a path on no known volume: exit 1 after --timeout (default 20 s).\n"},
    {nullptr, "pvr", nullptr, "", kWords, kPvr,
     "pvr state\twhether there is a PVR partition, and its mount path\n"
     "pvr path\tthe PVR partition's mount path alone\n"
     "pvr available DISK\tthe service's verdict on DISK for PVR use\n"
     "pvr total DISK\tthe size of DISK as the PVR checks see it\n"
     "pvr mark DISK [--format]\tmakes DISK the PVR disk (formatting it first)\n"
     "pvr guide\twhat the user interface is asked after a plug-in\n"
     "pvr limit [MB]\tthe size limit of the automatic PVR choice; MB sets it",
     "Exit 3 when the answer is no: no PVR partition or path, a verdict other than\n"
     "success (1 capacity smaller than the limit, 2 format unusable, 3 no mount\n"
     "path, 4 identity failed, 5 bad parameters), no size, a limit the service did\n"
     "not take (below 1800 MB, or recording and timeshift both off). Default\n"
     "--timeout 20 s, mark 60 s, mark --format 600 s.\n"},
    {"pvr", "state", run_pvr_state, "", kDev}, {"pvr", "path", run_pvr_path, "", kDev},
    {"pvr", "available", run_pvr_disk, "DISK", kDev}, {"pvr", "total", run_pvr_disk, "DISK", kDev},
    {"pvr", "mark", run_pvr_mark, "DISK", kDev | kFormat}, {"pvr", "guide", run_pvr_guide, "", kDev},
    {"pvr", "limit", run_pvr_limit, "[MB]", kDev},
    {nullptr, "format", run_format, "VOLUME", kDev, kPvr,
     "format VOLUME\tformats a volume, printing each step and the result",
     "VOLUME as the volume table names it (/dev/sdb2), 1 to 29 characters. Prints\n"
     "unmounting, formatting, mounting and the result with the new size. Exit 1\n"
     "when the format fails or another one runs. Default --timeout 600 s.\n"},
    {nullptr, "bench", run_bench, "MOUNT_PATH", kDev | kCancel, kPvr,
     "bench MOUNT_PATH\tmeasures a volume with iozone, showing its progress\n"
     "bench --cancel\tstops the running benchmark",
     "Prints a progress bar, then the figure: iozone's average throughput per\n"
     "process (kB/s) and the number of processes. Exit 1 when it fails or is\n"
     "cancelled. Default --timeout 1860 s (the service stops a benchmark after\n"
     "about 30 minutes).\n"},
    {nullptr, "ls", run_ls, "PATH", kDev | kLs, kFiles,
     "ls PATH [--filter N] [--no-tags] [--id N] [-h]\tlists a directory or playlist like ls -l",
     "One line per entry: protection (r protected, w writable), size in KiB (-h:\n"
     "4.1M), date, time, name, and the tags TagLib read (title, artist, album,\n"
     "genre, year, track, duration, bit rate, link). A playlist (.m3u) is listed\n"
     "as a folder: PATH/list.m3u/.\n"
     "  --filter N  0 hides nothing, 1 names starting with '.', 2 .idx and .desc,\n"
     "              3 those, .xml and dot names, 4-7 as 3 and every regular file\n"
     "  --no-tags   no tags, playlists as plain files (filter 1 unless --filter)\n"
     "  --id N      the listing's id, 0 to 65535\n"
     "Exit 1 when the service could not list PATH. Default --timeout 30 s.\n"},
    {nullptr, "cover", run_cover, "FOLDER FILE", kDev, kFiles,
     "cover FOLDER FILE\tthe link the service makes to FILE's cover",
     "FOLDER and FILE at most 99 bytes each. Exit 3 for a status other than 0.\n"
     "Default --timeout 20 s.\n"},
    {nullptr, "mkdir", run_mkdir, "PATH", kDev, kFiles, "mkdir PATH\tcreates a directory and its missing parents",
     "Prints the result's meaning; exit 1 for a result other than 0. Default\n"
     "--timeout 60 s.\n"},
    {nullptr, "rm", run_rm, "PATH", kDev | kRecording | kTree, kFiles,
     "rm [--recording] PATH\tremoves a file; --recording also PATH's companions\n"
     "rm -r PATH\tremoves a tree",
     "--recording removes PATH (a .ts file) and its .desc, .idx, .idx.desc and\n"
     ".xml; the .xml.sig signature stays. A write-protected file is refused\n"
     "(lumstoragectl unprotect PATH lifts it). Exit 1 for a result other than 0.\n"
     "Default --timeout 60 s, rm -r 600 s.\n"},
    {nullptr, "rmdir", run_rmdir, "PATH", kDev, kFiles,
     "rmdir PATH\tremoves an empty directory", "Exit 1 for a result other than 0. Default --timeout 60 s.\n"},
    {nullptr, "protect", run_protection, "PATH", kDev, kFiles, "protect PATH\twrite-protects a file (98 bytes at most)",
     "Clears the owner-write bit, which the service's file operations honour.\n"
     "Exit 1 for a result other than 0. Default --timeout 60 s.\n"},
    {nullptr, "unprotect", run_protection, "PATH", kDev, kFiles,
     "unprotect PATH\tlifts the write protection", "As protect. Default --timeout 60 s.\n"},
    {nullptr, "cp", run_cp, "SRC DST", kDev | kRecording | kTree | kDirectCopy | kCancel, kFiles,
     "cp [--recording|-r] SRC DST\tcopies a file, a recording with its companions, or a tree\n"
     "cp --cancel\tstops a running tree copy and returns at once\n"
     "cp --direct [-r] SRC DST\tcopies on the request's own thread, no reason on failure",
     "SRC and DST at most 256 bytes. --recording copies the .desc, .idx, .idx.desc\n"
     "and .xml beside the copy (not the .xml.sig). -r copies a tree into a DST that\n"
     "does not exist yet, without links. One copy runs at a time (result 5: busy).\n"
     "Exit 1 for a result other than 0. Default --timeout 3600 s.\n"},
    {nullptr, "mv", run_two_paths, "SRC DST", kDev | kRecording, kFiles,
     "mv SRC DST [--recording]\tmoves a file, recording or tree, across volumes too",
     "Exit 1 for a result other than 0. Default --timeout 3600 s (a move to another\n"
     "volume copies first).\n"},
    {nullptr, "rename", run_two_paths, "SRC DST", kDev | kRecording, kFiles,
     "rename SRC DST [--recording]\trenames within a volume",
     "Exit 1 for a result other than 0. Default --timeout 60 s.\n"},
    {nullptr, "write", run_write, "PATH [FILE]", kDev, kFiles,
     "write PATH [FILE|-]\twrites FILE (or standard input) into PATH",
     "The service writes no empty file (result 1). Exit 1 for a result other than\n"
     "0. Default --timeout 60 s.\n"},
    {nullptr, "exec", run_exec, "COMMAND", kDev | kCapture | kCommandTail, kDirect,
     "exec [--capture] [--] COMMAND...\truns a shell command in the daemon",
     "Prints ok or the exit status; --capture prints the command's first 1024\n"
     "bytes of output instead. Options stand before COMMAND (-- ends them).\n"
     "Exit 1 when the command exits non-zero or cannot run. Default --timeout 600 s.\n"},
    {nullptr, "chmod", run_chmod, "PATH MODE", kDev, kDirect,
     "chmod PATH MODE\tsets PATH's mode (octal)", "Default --timeout 20 s.\n"},
    {nullptr, "fd", nullptr, "", kWords, kDirect,
     "fd open PATH FLAGS MODE\topens a file in the daemon; prints its descriptor\n"
     "fd close FD\tcloses it\n"
     "fd read FD BYTES\treads, raw to standard output (--json: hex)\n"
     "fd write FD [FILE|-]\twrites FILE or standard input\n"
     "fd sync FD\tflushes the file system of FD",
     "FLAGS: names joined by | (O_WRONLY|O_CREAT) or a number; MODE octal. A\n"
     "descriptor stays open in the daemon until fd close. Exit 1 when the call\n"
     "fails (the message names errno). Default --timeout 20 s.\n"},
    {"fd", "open", run_fd_open, "PATH FLAGS MODE", kDev}, {"fd", "close", run_fd_close, "FD", kDev},
    {"fd", "read", run_fd_read, "FD BYTES", kDev}, {"fd", "write", run_fd_write, "FD [FILE]", kDev},
    {"fd", "sync", run_fd_sync, "FD", kDev},
    {nullptr, "watch", run_watch, "", kJson | kWatchTimeout | kHex | kCount, kRaw,
     "watch [--count N] [--hex]\tprints every event the service sends",
     "One line per event: its name, id and decoded payload. --hex adds the\n"
     "payload's bytes (JSON: \"hex\"). --count N ends after N events, --timeout S\n"
     "after S seconds (exit 1 when the count was not reached); without them it\n"
     "runs until interrupted.\n"},
    {nullptr, "list", run_list, "", kJson, kRaw,
     "list\tthe service's commands: name, number, request fields, reply\n"
     "COMMAND [FIELDS...]\tsends a command by name (dev-mount) or number, prints its reply",
     "COMMAND: a name of the list, exactly (STORAGE_DEV_MOUNT) or without its\n"
     "STORAGE_ prefix in any case with - for _ (dev-mount), or its number (4109,\n"
     "0x100d). FIELDS, one per request letter: s string, i int32, u uint32, l\n"
     "int64, b true/false/1/0, c a character or number, r raw bytes (@file, @@text\n"
     "or text; - for the int32 before them fills in the count). Exit 0 whatever\n"
     "the command's result. lumstoragectl help COMMAND shows one command.\n"},
    {nullptr, "raw", run_raw, "WORD [FIELD...]", 0, kRaw,
     "raw WORD [TYPE:VALUE...]\tsends any request, malformed ones too",
     "WORD: a command name or any number. TYPE: i u l b c s as for COMMAND, and x\n"
     "for hex bytes appended without padding (x:0a0b).\n"},
    {nullptr, "help", run_help, "[WORD]", 0, kRaw,
     "help [SUBCOMMAND|COMMAND]\tthis text, or the help of one subcommand or command",
     "SUBCOMMAND --help shows the same page.\n"},
};
const size_t kSubRowCount = sizeof(kSubRows) / sizeof(kSubRows[0]);

const SubRow* find_row(const char* parent, const std::string& name)
{
    for (const SubRow& row : kSubRows) {
        if ((row.parent == nullptr ? parent == nullptr : parent != nullptr && strcmp(parent, row.parent) == 0) &&
            name == row.name)
            return &row;
    }
    return nullptr;
}

namespace {

// Seconds from 0 (zero_ok) or above 0, to 1e9; CLI11 itself would take
// "nan" and "inf".
CLI::Validator seconds(bool zero_ok)
{
    return CLI::Validator(
        [zero_ok](std::string& text) -> std::string {
            char* end = nullptr;
            errno = 0;
            double v = strtod(text.c_str(), &end);
            if (errno == 0 && end != text.c_str() && *end == '\0' && std::isfinite(v) && v <= 1e9 &&
                (v > 0 || (zero_ok && v == 0)))
                return "";
            return std::string("seconds ") + (zero_ok ? "from 0" : "above 0") + " to 1e9, not '" + text + "'";
        },
        "S");
}

void add_options(CLI::App* sub, const SubRow& row, DeviceArgs* args)
{
    sub->set_help_flag("--help");
    if (row.options & kJson)
        sub->add_flag("--json", args->json);
    if (row.options & (kTimeout | kWatchTimeout))
        sub->add_option("--timeout", args->timeout)->check(seconds((row.options & kWatchTimeout) != 0));
    CLI::Option* recording = (row.options & kRecording) ? sub->add_flag("--recording", args->recording) : nullptr;
    CLI::Option* tree = (row.options & kTree) ? sub->add_flag("-r", args->tree) : nullptr;
    if (tree != nullptr && recording != nullptr)
        tree->excludes(recording);
    CLI::Option* direct = (row.options & kDirectCopy) ? sub->add_flag("--direct", args->direct) : nullptr;
    if (direct != nullptr && recording != nullptr)
        direct->excludes(recording);
    if (row.options & kCapture)
        sub->add_flag("--capture", args->capture);
    if (row.options & kHex)
        sub->add_flag("--hex", args->hex);
    if (row.options & kCount)
        sub->add_option("--count", args->count)->check(CLI::Range(1L, 1000000000L));
    if (row.options & kFormat)
        sub->add_flag("--format", args->format);
    if (row.options & kLs) {
        sub->add_option("--filter", args->filter)->check(CLI::Range(0, kListingFilters - 1));
        sub->add_option("--id", args->id)->check(CLI::Range(0, 0xFFFF));
        sub->add_flag("--no-tags", args->no_tags);
        sub->add_flag("-h", args->human);
    }
}

// One positional per name of row.operands, each adding its word to
// args->operands. In a group (required false) the group's rules say which
// are needed.
std::vector<CLI::Option*> add_operand_names(CLI::App* holder, const SubRow& row, DeviceArgs* args, bool required)
{
    std::vector<CLI::Option*> added;
    std::istringstream names(row.operands);
    for (std::string name; names >> name;) {
        const bool optional = name[0] == '[';
        if (optional)
            name = name.substr(1, name.size() - 2);
        const bool rest = name.size() > 3 && name.compare(name.size() - 3, 3, "...") == 0;
        if (rest)
            name.resize(name.size() - 3);
        CLI::Option* opt = nullptr;
        if (rest) {
            opt = holder->add_option_function<std::vector<std::string>>(name, [args](const std::vector<std::string>& v) {
                args->operands.insert(args->operands.end(), v.begin(), v.end());
            });
        } else {
            opt = holder->add_option_function<std::string>(
                name, [args](const std::string& v) { args->operands.push_back(v); });
        }
        opt->required(required && !optional);
        added.push_back(opt);
    }
    return added;
}

void add_operands(CLI::App* sub, const SubRow& row, DeviceArgs* args)
{
    if (row.options & kCommandTail) {
        // CLI11 hands a "--" back to the parent unless a positional of the
        // subcommand still waits for a value; this one waits and takes no
        // word, so "--" and what follows stay exec's, in its remaining words.
        sub->prefix_command()->validate_positionals();
        sub->add_option("COMMAND")->check(CLI::Validator([](std::string&) { return "no"; }, ""));
        return;
    }
    if (!(row.options & kCancel)) {
        add_operand_names(sub, row, args, true);
        return;
    }
    // The operands, all of them, or --cancel, which excludes the other options.
    CLI::App* what = sub->add_option_group("operands or --cancel");
    what->require_option();
    CLI::Option* cancel = what->add_flag("--cancel", args->cancel);
    for (const char* name : {"-r", "--recording", "--direct"}) {
        if (CLI::Option* other = sub->get_option_no_throw(name))
            cancel->excludes(other);
    }
    std::vector<CLI::Option*> operands = add_operand_names(what, row, args, false);
    for (CLI::Option* operand : operands) {
        cancel->excludes(operand);
        for (CLI::Option* other : operands) {
            if (other != operand)
                operand->needs(other);
        }
    }
}

CLI::App* add_row(CLI::App* app, const SubRow& row, DeviceArgs* args)
{
    CLI::App* sub = app->add_subcommand(row.name);
    add_options(sub, row, args);
    add_operands(sub, row, args);
    if (row.options & kWords)
        sub->require_subcommand(1, 1);
    return sub;
}

// "state, path, ..." for pvr.
std::string words_of(const std::string& parent)
{
    std::string words;
    for (const SubRow& row : kSubRows) {
        if (row.parent != nullptr && parent == row.parent)
            words += (words.empty() ? "" : ", ") + std::string(row.name);
    }
    return words;
}

// A --help among the words of a command of the service, before "--".
bool wants_help(const std::vector<std::string>& words)
{
    for (const std::string& word : words) {
        if (word == "--")
            return false;
        if (word == "--help")
            return true;
    }
    return false;
}

// A word of the service's table with its fields (the words behind it).
int run_service_command(CtlContext* ctx_in, std::vector<std::string> words)
{
    const CtlContext& ctx = *ctx_in;
    if (words.empty())
        return usage_error(ctx, "no subcommand or command given");
    const std::string name = words[0];
    words.erase(words.begin());
    ctx_in->command = name;
    const CmdRow* row = cmd_find(name.c_str());
    if (row == nullptr && name[0] == '-')
        return usage_error(ctx, "unknown option or missing value: " + name);
    if (row == nullptr)
        return usage_error(ctx, "unknown subcommand or command '" + name +
                                    "': lumstoragectl help lists the subcommands, lumstoragectl list the commands");
    if (wants_help(words))
        return print_help(ctx, name.c_str());
    return run_command(ctx, *row, words);
}

// The global options and a subcommand per row, reading into ctx and args.
// The words that are no subcommand's are left to the service's table.
void build_app(CLI::App* app, CtlContext* ctx, DeviceArgs* args)
{
    app->set_help_flag("-h,--help");
    app->add_option("--socket", ctx->socket_path);
    app->add_flag("--json", ctx->json);
    app->prefix_command();
    app->require_subcommand(0, 1);
    CLI::App* parent = nullptr;  // the last top row, for the words behind it
    for (const SubRow& row : kSubRows) {
        CLI::App* sub = add_row(row.parent == nullptr ? app : parent, row, args);
        if (row.parent == nullptr)
            parent = sub;
    }
}

}  // namespace

int run_command_line(CtlContext* ctx, int argc, char** argv)
{
    DeviceArgs args;
    CLI::App app("lumstoragectl", "lumstoragectl");
    build_app(&app, ctx, &args);
    auto top_of = [&app]() { return app.get_subcommands().empty() ? nullptr : app.get_subcommands()[0]; };
    const CLI::App* top = nullptr;
    try {
        app.parse(argc, argv);
        top = top_of();
    } catch (const CLI::CallForHelp&) {
        return print_help(*ctx, (top = top_of()) != nullptr ? top->get_name().c_str() : nullptr);
    } catch (const CLI::ParseError& e) {
        ctx->command = (top = top_of()) != nullptr ? top->get_name() : "";
        std::string what = e.what();
        if (top != nullptr && (find_row(nullptr, ctx->command)->options & kWords) && top->get_subcommands().empty())
            what = "a word is missing or unknown: " + words_of(ctx->command);
        return usage_error(*ctx, (top != nullptr ? ctx->command + ": " : "") + what);
    }
    if (top == nullptr)
        return run_service_command(ctx, app.remaining());
    ctx->command = top->get_name();
    const SubRow& row = *find_row(nullptr, ctx->command);
    std::vector<std::string> stray = app.remaining(!(row.options & kCommandTail));
    if (!stray.empty())
        return usage_error(*ctx, ctx->command + ": not its option or operand: '" + stray[0] + "'");
    if (row.options & kCommandTail) {
        args.operands = top->remaining();
        // An option exec does not know is a mistake more often than a
        // command's first word; "--" lets such a word through.
        if (!args.operands.empty() && args.operands[0][0] == '-' && args.operands[0] != "--")
            return usage_error(*ctx, ctx->command + ": unknown option " + args.operands[0] +
                                         " (put -- before a command that starts with -)");
    }
    args.sub = ctx->command;
    if (!(row.options & kWords))
        return row.run(*ctx, args);
    args.word = top->get_subcommands()[0]->get_name();
    args.sub += " " + args.word;
    return find_row(ctx->command.c_str(), args.word)->run(*ctx, args);
}

}  // namespace lumctl
