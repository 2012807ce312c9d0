// lumstoragectl's help: the overview (help, --help, -h) and the help of one
// subcommand (help WORD, WORD --help) or of one command of the service
// (help dev-mount). One row per subcommand; its usage lines feed both the
// overview and its own page.
#include "lumctl/ctl.h"

namespace lumctl {

namespace {

struct HelpRow {
    const char* name;
    const char* group;
    // Lines of "SYNOPSIS\tSUMMARY", one per form of the subcommand.
    const char* usage;
    // Options, output, default --timeout and exit status of the page.
    const char* details;
};

const char kDevices[] = "Devices and volumes";
const char kPvr[] = "PVR, format and benchmark";
const char kFiles[] = "Files (absolute paths, as the service sees them)";
const char kDirect[] = "Direct primitives (run in the daemon's process)";
const char kRaw[] = "Events and the service's commands";

const HelpRow kHelp[] = {
    {"volumes", kDevices, "volumes\tthe volume table: disks, partitions, phones",
     "Prints NAME TYPE CONN FSTYPE LABEL SIZE USED MOUNTPOINT VENDOR MODEL, partitions\n"
     "under their disk; sizes as 48M, 1.9G. --json: the volume list and the device\n"
     "table as the service sent them. Default --timeout 20 s.\n"},
    {"devinfo", kDevices, "devinfo DEVICE\tvendor, model, serial and id of a device",
     "DEVICE as the volume table names it (/dev/sdb). Exit 3 when the service has no\n"
     "information for it. Default --timeout 20 s.\n"},
    {"mount", kDevices, "mount DEVICE\tmounts a device's volumes, printing each and the count",
     "DEVICE: /dev/sdb, sdb1 or a phone's id (VEN_...). Prints each volume as the\n"
     "service announces it, then the count. Default --timeout 60 s.\n"},
    {"umount", kDevices, "umount DEVICE\tunmounts them, printing each mount point and the count",
     "As mount, the other way. Default --timeout 60 s.\n"},
    {"size", kDevices, "size DEVICE\tthe size of a device or partition",
     "Prints '/dev/sdb1: 48M (48 MB)'. Default --timeout 20 s; an unknown device\n"
     "gets no answer, so it ends in the time-out (exit 1).\n"},
    {"used", kDevices, "used DEVICE\tthe space used on a partition", "As size. Default --timeout 20 s.\n"},
    {"free", kDevices, "free UUID\tthe free space of the volume with that uuid",
     "The service sends no answer for an unknown uuid: exit 1 after --timeout\n"
     "(default 20 s).\n"},
    {"uuid", kDevices, "uuid PATH\tthe uuid of the volume holding PATH",
     "No answer for a path on no known volume: exit 1 after --timeout (default 20 s).\n"},
    {"pvr", kPvr,
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
    {"format", kPvr, "format VOLUME\tformats a volume, printing each step and the result",
     "VOLUME as the volume table names it (/dev/sdb2), 1 to 29 characters. Prints\n"
     "unmounting, formatting, mounting and the result with the new size. Exit 1\n"
     "when the format fails or another one runs. Default --timeout 600 s.\n"},
    {"bench", kPvr,
     "bench MOUNT_PATH\tmeasures a volume with iozone, showing its progress\n"
     "bench --cancel\tstops the running benchmark",
     "Prints a progress bar, then the figure: iozone's average throughput per\n"
     "process (kB/s) and the number of processes. Exit 1 when it fails or is\n"
     "cancelled. Default --timeout 1860 s (the service stops a benchmark after\n"
     "about 30 minutes).\n"},
    {"ls", kFiles, "ls PATH [--filter N] [--no-tags] [--id N] [-h]\tlists a directory or playlist like ls -l",
     "One line per entry: protection (r protected, w writable), size in KiB (-h:\n"
     "4.1M), date, time, name, and the tags TagLib read (title, artist, album,\n"
     "genre, year, track, duration, bit rate, link). A playlist (.m3u) is listed\n"
     "as a folder: PATH/list.m3u/.\n"
     "  --filter N  0 hides nothing, 1 names starting with '.', 2 .idx and .desc,\n"
     "              3 those, .xml and dot names, 4-7 as 3 and every regular file\n"
     "  --no-tags   no tags, playlists as plain files (filter 1 unless --filter)\n"
     "  --id N      the listing's id, 0 to 65535\n"
     "Exit 1 when the service could not list PATH. Default --timeout 30 s.\n"},
    {"cover", kFiles, "cover FOLDER FILE\tthe link the service makes to FILE's cover",
     "FOLDER and FILE at most 99 bytes each. Exit 3 for a status other than 0.\n"
     "Default --timeout 20 s.\n"},
    {"mkdir", kFiles, "mkdir PATH\tcreates a directory and its missing parents",
     "Prints the result's meaning; exit 1 for a result other than 0. Default\n"
     "--timeout 60 s.\n"},
    {"rm", kFiles,
     "rm [--recording] PATH\tremoves a file; --recording also PATH's companions\n"
     "rm -r PATH\tremoves a tree",
     "--recording removes PATH (a .ts file) and its .desc, .idx, .idx.desc and\n"
     ".xml; the .xml.sig signature stays. A write-protected file is refused\n"
     "(lumstoragectl unprotect PATH lifts it). Exit 1 for a result other than 0.\n"
     "Default --timeout 60 s, rm -r 600 s.\n"},
    {"rmdir", kFiles, "rmdir PATH\tremoves an empty directory", "Exit 1 for a result other than 0. Default --timeout 60 s.\n"},
    {"protect", kFiles, "protect PATH\twrite-protects a file (98 bytes at most)",
     "Clears the owner-write bit, which the service's file operations honour.\n"
     "Exit 1 for a result other than 0. Default --timeout 60 s.\n"},
    {"unprotect", kFiles, "unprotect PATH\tlifts the write protection", "As protect. Default --timeout 60 s.\n"},
    {"cp", kFiles,
     "cp [--recording|-r] SRC DST\tcopies a file, a recording with its companions, or a tree\n"
     "cp --cancel\tstops a running tree copy and returns at once\n"
     "cp --direct [-r] SRC DST\tcopies on the request's own thread, no reason on failure",
     "SRC and DST at most 256 bytes. --recording copies the .desc, .idx, .idx.desc\n"
     "and .xml beside the copy (not the .xml.sig). -r copies a tree into a DST that\n"
     "does not exist yet, without links. One copy runs at a time (result 5: busy).\n"
     "Exit 1 for a result other than 0. Default --timeout 3600 s.\n"},
    {"mv", kFiles, "mv SRC DST [--recording]\tmoves a file, recording or tree, across volumes too",
     "Exit 1 for a result other than 0. Default --timeout 3600 s (a move to another\n"
     "volume copies first).\n"},
    {"rename", kFiles, "rename SRC DST [--recording]\trenames within a volume",
     "Exit 1 for a result other than 0. Default --timeout 60 s.\n"},
    {"write", kFiles, "write PATH [FILE|-]\twrites FILE (or standard input) into PATH",
     "The service writes no empty file (result 1). Exit 1 for a result other than\n"
     "0. Default --timeout 60 s.\n"},
    {"exec", kDirect,
     "exec [--capture] [--] COMMAND...\truns a shell command in the daemon",
     "Prints ok or the exit status; --capture prints the command's first 1024\n"
     "bytes of output instead. Options stand before COMMAND (-- ends them).\n"
     "Exit 1 when the command exits non-zero or cannot run. Default --timeout 600 s.\n"},
    {"chmod", kDirect, "chmod PATH MODE\tsets PATH's mode (octal)", "Default --timeout 20 s.\n"},
    {"fd", kDirect,
     "fd open PATH FLAGS MODE\topens a file in the daemon; prints its descriptor\n"
     "fd close FD\tcloses it\n"
     "fd read FD BYTES\treads, raw to standard output (--json: hex)\n"
     "fd write FD [FILE|-]\twrites FILE or standard input\n"
     "fd sync FD\tflushes the file system of FD",
     "FLAGS: names joined by | (O_WRONLY|O_CREAT) or a number; MODE octal. A\n"
     "descriptor stays open in the daemon until fd close. Exit 1 when the call\n"
     "fails (the message names errno). Default --timeout 20 s.\n"},
    {"watch", kRaw, "watch [--count N] [--hex]\tprints every event the service sends",
     "One line per event: its name, id and decoded payload. --hex adds the\n"
     "payload's bytes (JSON: \"hex\"). --count N ends after N events, --timeout S\n"
     "after S seconds (exit 1 when the count was not reached); without them it\n"
     "runs until interrupted.\n"},
    {"list", kRaw,
     "list\tthe service's commands: name, number, request fields, reply\n"
     "COMMAND [FIELDS...]\tsends a command by name (dev-mount) or number, prints its reply",
     "COMMAND: a name of the list, exactly (STORAGE_DEV_MOUNT) or without its\n"
     "STORAGE_ prefix in any case with - for _ (dev-mount), or its number (4109,\n"
     "0x100d). FIELDS, one per request letter: s string, i int32, u uint32, l\n"
     "int64, b true/false/1/0, c a character or number, r raw bytes (@file, @@text\n"
     "or text; - for the int32 before them fills in the count). Exit 0 whatever\n"
     "the command's result. lumstoragectl help COMMAND shows one command.\n"},
    {"raw", kRaw, "raw WORD [TYPE:VALUE...]\tsends any request, malformed ones too",
     "WORD: a command name or any number. TYPE: i u l b c s as for COMMAND, and x\n"
     "for hex bytes appended without padding (x:0a0b).\n"},
    {"help", kRaw, "help [SUBCOMMAND|COMMAND]\tthis text, or the help of one subcommand or command",
     "SUBCOMMAND --help shows the same page.\n"},
};

const char kUsageHead[] =
    "usage: lumstoragectl [--socket PATH] [--json] SUBCOMMAND [ARGS...] [--json] [--timeout S]\n"
    "       lumstoragectl [--socket PATH] [--json] COMMAND [FIELDS...]\n"
    "       lumstoragectl help [SUBCOMMAND|COMMAND]   (or SUBCOMMAND --help)\n";

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

const HelpRow* find_help(const char* name)
{
    for (const HelpRow& row : kHelp) {
        if (strcmp(row.name, name) == 0)
            return &row;
    }
    return nullptr;
}

struct Form {
    std::string synopsis;
    std::string summary;
};

// The forms of a row, from its "SYNOPSIS\tSUMMARY" lines.
std::vector<Form> forms_of(const HelpRow& row)
{
    std::vector<Form> forms;
    for (const char* line = row.usage; *line != '\0';) {
        const char* end = strchr(line, '\n');
        std::string text(line, end != nullptr ? static_cast<size_t>(end - line) : strlen(line));
        size_t bar = text.find('\t');
        forms.push_back(Form{text.substr(0, bar), bar == std::string::npos ? "" : text.substr(bar + 1)});
        line = end != nullptr ? end + 1 : line + text.size();
    }
    return forms;
}

// The overview's lines of a row, each "  SYNOPSIS  SUMMARY", the summary on
// a line of its own when the synopsis is long.
std::string usage_lines(const HelpRow& row)
{
    const size_t column = 30;
    std::string out;
    for (const Form& form : forms_of(row)) {
        out += "  " + form.synopsis;
        out += form.synopsis.size() < column ? std::string(column - form.synopsis.size(), ' ')
                                             : "\n" + std::string(column + 2, ' ');
        out += form.summary + "\n";
    }
    return out;
}

void print_overview(FILE* out)
{
    std::string text = kUsageHead;
    text += "\nSends the storage service's commands to lumstoraged, which hosts the service,\n"
            "and prints what comes back: replies and events, in words or as JSON.\n";
    const char* group = nullptr;
    for (const HelpRow& row : kHelp) {
        if (group == nullptr || strcmp(group, row.group) != 0)
            text += std::string("\n") + row.group + ":\n";
        group = row.group;
        text += usage_lines(row);
    }
    text += std::string("\n") + kOptions + "\n" + kExitStatus;
    fputs(text.c_str(), out);
}

// A subcommand's page: each form with what it does, then the details.
void print_row(FILE* out, const HelpRow& row)
{
    std::string text = "usage:\n";
    for (const Form& form : forms_of(row))
        text += "  lumstoragectl " + form.synopsis + "\n      " + form.summary + "\n";
    fputs((text + "\n" + row.details).c_str(), out);
}

const char* letter_name(char letter)
{
    switch (letter) {
    case 's': return "string";
    case 'i': return "int32";
    case 'u': return "uint32";
    case 'l': return "int64";
    case 'b': return "bool";
    case 'c': return "char";
    case 'r': return "raw bytes (as many as the int32 before them)";
    default: return "?";
    }
}

struct ReplyWords {
    const char* token;
    const char* words;
};

// The reply tokens of StorageCmdList.h in words.
const ReplyWords kReplies[] = {
    {"", "none (the service writes nothing)"},
    {"b", "bool (a posted command: true when it was queued)"},
    {"s", "cstring"},
    {"l", "int64"},
    {"u", "uint32"},
    {"i", "int32"},
    {"i>s", "int32 count, then a cstring when it is above 0"},
    {"i<i", "int32 result, then an int32 errno when it is negative"},
    {"iG", "int32 result, then the 63000-byte guide record"},
    {"R", "int32 count; 0 or more: the count again and that many bytes; below 0: an int32 errno"},
};

const char* reply_words(const char* token)
{
    for (const ReplyWords& row : kReplies) {
        if (strcmp(row.token, token) == 0)
            return row.words;
    }
    return token;
}

void print_command(FILE* out, const CmdRow& row)
{
    std::string fields;
    for (const char* f = row.request; *f != '\0'; ++f)
        fields += std::string(fields.empty() ? "" : ", ") + *f + " " + letter_name(*f);
    fprintf(out,
            "%s: command %d (0x%x)\n"
            "usage: lumstoragectl [--socket PATH] [--json] %s%s%s\n"
            "request fields: %s\n"
            "reply: %s\n"
            "Prints the command's result and its reply; exit 0 whatever they say.\n",
            row.name, row.value, static_cast<unsigned>(row.value), row.name, row.request[0] != '\0' ? " " : "",
            row.request, fields.empty() ? "none" : fields.c_str(), reply_words(row.reply));
}

}  // namespace

bool has_help(const char* subcommand)
{
    return find_help(subcommand) != nullptr;
}

int print_help(const CtlContext& ctx, const char* word)
{
    if (word == nullptr) {
        print_overview(ctx.out);
        return kExitOk;
    }
    const HelpRow* row = find_help(word);
    if (row != nullptr) {
        print_row(ctx.out, *row);
        return kExitOk;
    }
    const CmdRow* cmd = cmd_find(word);
    if (cmd != nullptr) {
        print_command(ctx.out, *cmd);
        return kExitOk;
    }
    return usage_error(ctx, std::string("help: no subcommand or command '") + word +
                                "' (lumstoragectl help lists the subcommands, lumstoragectl list the commands)");
}

int run_help(const CtlContext& ctx, const DeviceArgs& args)
{
    return print_help(ctx, args.operands.empty() ? nullptr : args.operands[0].c_str());
}

}  // namespace lumctl
