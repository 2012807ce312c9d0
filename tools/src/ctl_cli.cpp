// lumstoragectl's command line, read by CLI11: the global options, one row
// per subcommand (its operands and options), --help anywhere before the
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
    kDirect = 1u << 5,
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

struct SubRow {
    const char* parent;  // pvr or fd for their words, else null
    const char* name;
    Runner* run;
    // Names of the operands: "[NAME]" may be left out, "NAME..." takes
    // every word left.
    const char* operands;
    unsigned options;
};

// The order of the overview. Each top row has a help page of its name
// (ctl_help.cpp).
const SubRow kRows[] = {
    {nullptr, "list", run_list, "", kJson},
    {nullptr, "watch", run_watch, "", kJson | kWatchTimeout | kHex | kCount},
    {nullptr, "raw", run_raw, "WORD [FIELD...]", 0},
    {nullptr, "help", run_help, "[WORD]", 0},
    {nullptr, "volumes", run_volumes, "", kDev},
    {nullptr, "devinfo", run_devinfo, "DEVICE", kDev},
    {nullptr, "mount", run_device_run, "DEVICE", kDev},
    {nullptr, "umount", run_device_run, "DEVICE", kDev},
    {nullptr, "size", run_query, "DEVICE", kDev},
    {nullptr, "used", run_query, "DEVICE", kDev},
    {nullptr, "free", run_query, "UUID", kDev},
    {nullptr, "uuid", run_query, "PATH", kDev},
    {nullptr, "pvr", nullptr, "", kWords},
    {"pvr", "state", run_pvr_state, "", kDev}, {"pvr", "path", run_pvr_path, "", kDev},
    {"pvr", "available", run_pvr_available, "DISK", kDev}, {"pvr", "total", run_pvr_total, "DISK", kDev},
    {"pvr", "mark", run_pvr_mark, "DISK", kDev | kFormat}, {"pvr", "guide", run_pvr_guide, "", kDev},
    {"pvr", "limit", run_pvr_limit, "[MB]", kDev},
    {nullptr, "format", run_format, "VOLUME", kDev},
    {nullptr, "bench", run_bench, "MOUNT_PATH", kDev | kCancel},
    {nullptr, "ls", run_ls, "PATH", kDev | kLs},
    {nullptr, "cover", run_cover, "FOLDER FILE", kDev},
    {nullptr, "mkdir", run_mkdir, "PATH", kDev},
    {nullptr, "rm", run_rm, "PATH", kDev | kRecording | kTree},
    {nullptr, "rmdir", run_rmdir, "PATH", kDev},
    {nullptr, "protect", run_protection, "PATH", kDev},
    {nullptr, "unprotect", run_protection, "PATH", kDev},
    {nullptr, "mv", run_two_paths, "SRC DST", kDev | kRecording},
    {nullptr, "rename", run_two_paths, "SRC DST", kDev | kRecording},
    {nullptr, "write", run_write, "PATH [FILE]", kDev},
    {nullptr, "cp", run_cp, "SRC DST", kDev | kRecording | kTree | kDirect | kCancel},
    {nullptr, "exec", run_exec, "COMMAND", kDev | kCapture | kCommandTail},
    {nullptr, "chmod", run_chmod, "PATH MODE", kDev},
    {nullptr, "fd", nullptr, "", kWords},
    {"fd", "open", run_fd_open, "PATH FLAGS MODE", kDev}, {"fd", "close", run_fd_close, "FD", kDev},
    {"fd", "read", run_fd_read, "FD BYTES", kDev}, {"fd", "write", run_fd_write, "FD [FILE]", kDev},
    {"fd", "sync", run_fd_sync, "FD", kDev},
};

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
    CLI::Option* direct = (row.options & kDirect) ? sub->add_flag("--direct", args->direct) : nullptr;
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

// The row of name under parent (null: a top row).
const SubRow& row_named(const char* parent, const std::string& name)
{
    for (const SubRow& row : kRows) {
        if ((row.parent == nullptr ? parent == nullptr : parent != nullptr && strcmp(parent, row.parent) == 0) &&
            name == row.name)
            return row;
    }
    return kRows[0];
}

// "state, path, ..." for pvr.
std::string words_of(const std::string& parent)
{
    std::string words;
    for (const SubRow& row : kRows) {
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
    for (const SubRow& row : kRows) {
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
    const CLI::App* top = nullptr;
    try {
        app.parse(argc, argv);
        top = app.get_subcommands().empty() ? nullptr : app.get_subcommands()[0];
    } catch (const CLI::CallForHelp&) {
        top = app.get_subcommands().empty() ? nullptr : app.get_subcommands()[0];
        return print_help(*ctx, top != nullptr ? top->get_name().c_str() : nullptr);
    } catch (const CLI::ParseError& e) {
        top = app.get_subcommands().empty() ? nullptr : app.get_subcommands()[0];
        ctx->command = top != nullptr ? top->get_name() : "";
        std::string what = e.what();
        if (top != nullptr && (row_named(nullptr, ctx->command).options & kWords) && top->get_subcommands().empty())
            what = "a word is missing or unknown: " + words_of(ctx->command);
        return usage_error(*ctx, (top != nullptr ? ctx->command + ": " : "") + what);
    }
    if (top == nullptr)
        return run_service_command(ctx, app.remaining());
    ctx->command = top->get_name();
    const SubRow& row = row_named(nullptr, ctx->command);
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
    return row_named(ctx->command.c_str(), args.word).run(*ctx, args);
}

}  // namespace lumctl
