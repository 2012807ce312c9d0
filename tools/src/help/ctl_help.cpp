// lumstoragectl's help: the overview (help, --help, -h) and the help of one
// subcommand (help WORD, WORD --help) or of one command of the service
// (help dev-mount). The command line's rows carry each subcommand's usage
// lines, which feed both the overview and its own page.
#include <functional>
#include <sstream>

#include "lumctl/ctl.h"

namespace lumctl {

namespace {

const char kUsageHead[] =
    "usage: lumstoragectl [--socket PATH] [--json] SUBCOMMAND [ARGS...] [--json] [--timeout S]\n"
    "       lumstoragectl [--socket PATH] [--json] COMMAND [FIELDS...]\n"
    "       lumstoragectl help [SUBCOMMAND|COMMAND]   (or SUBCOMMAND --help)\n"
    "\nSends the storage service's commands to lumstoraged, which hosts the service,\n"
    "and prints what comes back: replies and events, in words or as JSON.\n";

const char kOptions[] =
    "Options:\n"
    "  --socket PATH  the daemon's socket (default $LUMSTORAGED_SOCKET, else\n"
    "                 /run/lumstorage/lumstoraged.sock)\n"
    "  --json         one JSON object per line instead of words, for every query\n"
    "  --timeout S    how long to wait for the answer (each subcommand has its own\n"
    "                 default; see its help)\n"
    "  --help         this text; after a subcommand, its help\n";

const char kExitStatus[] =
    "Exit status:\n"
    "  0 done: answered, and the operation succeeded\n"
    "  1 failed: no connection, a refused request, no answer in time, or an\n"
    "    operation that failed (a file result other than 0, a failed format,\n"
    "    benchmark, listing or shell command)\n"
    "  2 usage error: nothing was sent\n"
    "  3 the service answered no: no PVR partition or path, a PVR verdict other\n"
    "    than success, no size, a size limit it did not take, no device\n"
    "    information, a cover status other than 0\n";

// The lines of a row, each "SYNOPSIS\tSUMMARY", joined by fn's texts: the
// overview's "  SYNOPSIS  SUMMARY" (the summary on a line of its own when
// the synopsis is long) or a page's synopsis with the summary below.
std::string form_lines(const SubRow& row, const std::function<std::string(const std::string&, const std::string&)>& fn)
{
    std::string out;
    std::istringstream lines(row.usage);
    for (std::string line; std::getline(lines, line);)
        out += fn(line.substr(0, line.find('\t')), line.substr(line.find('\t') + 1));
    return out;
}

void print_overview(FILE* out)
{
    std::string text = kUsageHead;
    const char* group = nullptr;
    for (const SubRow* row = kSubRows; row != kSubRows + kSubRowCount; ++row) {
        if (row->parent != nullptr)
            continue;
        if (group == nullptr || strcmp(group, row->group) != 0)
            text += std::string("\n") + row->group + ":\n";
        group = row->group;
        text += form_lines(*row, [](const std::string& synopsis, const std::string& summary) {
            const size_t column = 30;
            return "  " + synopsis +
                   (synopsis.size() < column ? std::string(column - synopsis.size(), ' ')
                                             : "\n" + std::string(column + 2, ' ')) +
                   summary + "\n";
        });
    }
    text += std::string("\n") + kOptions + "\n" + kExitStatus;
    fputs(text.c_str(), out);
}

// A subcommand's page: each form with what it does, then the details.
void print_row(FILE* out, const SubRow& row)
{
    std::string text = form_lines(row, [](const std::string& synopsis, const std::string& summary) {
        return "  lumstoragectl " + synopsis + "\n      " + summary + "\n";
    });
    fputs(("usage:\n" + text + "\n" + row.details).c_str(), out);
}

struct Words {
    const char* token;
    const char* words;
};

// The request letters and the reply tokens of StorageCmdList.h in words.
const Words kLetters[] = {{"s", "string"}, {"i", "int32"}, {"u", "uint32"}, {"l", "int64"}, {"b", "bool"},
                          {"c", "char"},   {"r", "raw bytes (as many as the int32 before them)"}};
const Words kReplies[] = {
    {"", "none (the service writes nothing)"},
    {"b", "bool (a posted command: true when it was queued)"},
    {"s", "cstring"}, {"l", "int64"}, {"u", "uint32"}, {"i", "int32"},
    {"i>s", "int32 count, then a cstring when it is above 0"},
    {"i<i", "int32 result, then an int32 errno when it is negative"},
    {"iG", "int32 result, then the 63000-byte guide record"},
    {"R", "int32 count; 0 or more: the count again and that many bytes; below 0: an int32 errno"},
};

template <size_t N>
const char* words_for(const Words (&table)[N], const std::string& token, const char* unknown)
{
    for (const Words& row : table) {
        if (token == row.token)
            return row.words;
    }
    return unknown;
}

void print_command(FILE* out, const CmdRow& row)
{
    std::string fields;
    for (const char* f = row.request; *f != '\0'; ++f)
        fields += std::string(fields.empty() ? "" : ", ") + *f + " " + words_for(kLetters, std::string(1, *f), "?");
    fprintf(out,
            "%s: command %d (0x%x)\n"
            "usage: lumstoragectl [--socket PATH] [--json] %s%s%s\n"
            "request fields: %s\n"
            "reply: %s\n"
            "Prints the command's result and its reply; exit 0 whatever they say.\n",
            row.name, row.value, static_cast<unsigned>(row.value), row.name, row.request[0] != '\0' ? " " : "",
            row.request, fields.empty() ? "none" : fields.c_str(), words_for(kReplies, row.reply, row.reply));
}

}  // namespace

int print_help(const CtlContext& ctx, const char* word)
{
    if (word == nullptr)
        print_overview(ctx.out);
    else if (const SubRow* row = find_row(nullptr, word))
        print_row(ctx.out, *row);
    else if (const CmdRow* cmd = cmd_find(word))
        print_command(ctx.out, *cmd);
    else
        return usage_error(ctx, std::string("help: no subcommand or command '") + word +
                                    "' (lumstoragectl help lists the subcommands, lumstoragectl list the commands)");
    return kExitOk;
}

int run_help(const CtlContext& ctx, const DeviceArgs& args)
{
    return print_help(ctx, args.operands.empty() ? nullptr : args.operands[0].c_str());
}

}  // namespace lumctl
