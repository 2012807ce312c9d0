// lumstoragectl as a library function, and what its subcommands share: the
// exit codes, the context, the words the command line read, the reports.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "lumctl/output.h"
#include "lumctl/wire.h"

namespace lumctl {

// The same for every subcommand (lumstoragectl help shows them).
enum ExitCode {
    kExitOk = 0,      // answered, and the operation succeeded
    kExitFailed = 1,  // no connection, an ERROR frame, a refused request, no answer in time, a failed operation
    kExitUsage = 2,   // the command line is wrong; nothing was sent
    kExitNo = 3,      // the service answered no (no PVR partition, a verdict other than success, ...)
};

struct CtlContext {
    std::string socket_path;
    std::string command;  // the subcommand or command word, for the usage hint of an error
    bool json = false;
    bool hex = false;  // events with their payload's bytes (watch --hex)
    FILE* in = stdin;  // data of write and fd write with "-"
    FILE* out = nullptr;
    FILE* err = nullptr;
};

// A subcommand's operands and options as the command line parser read them.
struct DeviceArgs {
    std::string sub;   // "size", "pvr state": the row that runs
    std::string word;  // pvr's and fd's word (state, open); empty for the others
    std::vector<std::string> operands;
    bool json = false;
    double timeout = -1;     // --timeout S; below 0 until the subcommand's default fills it in
    bool recording = false;  // --recording
    bool tree = false;       // -r
    bool direct = false;     // cp --direct
    bool cancel = false;     // cp --cancel, bench --cancel
    bool capture = false;    // exec --capture
    bool hex = false;        // watch --hex
    bool human = false;      // ls -h
    bool no_tags = false;    // ls --no-tags
    bool format = false;     // pvr mark --format
    long count = -1;         // watch --count N; below 0: no limit
    int filter = -1;         // ls --filter N; below 0: not given
    int id = -1;             // ls --id N; below 0: not given
};

int ctl_main(int argc, char** argv, FILE* out, FILE* err);
// Reads the command line into ctx and runs what it asks for (ctl_cli.cpp).
int run_command_line(CtlContext* ctx, int argc, char** argv);

// The runners of the command line's rows.
using Runner = int(const CtlContext& ctx, const DeviceArgs& args);
Runner run_list, run_watch, run_raw, run_help;                                   // ctl_main.cpp, ctl_help.cpp
Runner run_volumes, run_devinfo, run_device_run, run_query;                      // ctl_devices.cpp
Runner run_pvr_state, run_pvr_path, run_pvr_disk, run_pvr_mark, run_pvr_guide, run_pvr_limit;  // ctl_pvr.cpp
Runner run_format, run_bench;                                                    // ctl_format.cpp
Runner run_ls, run_cover;                                                        // ctl_ls.cpp
Runner run_mkdir, run_rm, run_rmdir, run_protection, run_two_paths, run_write, run_cp;  // ctl_files.cpp
Runner run_exec, run_chmod, run_fd_open, run_fd_close, run_fd_read, run_fd_write, run_fd_sync;  // ctl_direct.cpp

// A subcommand of the command line (a word of pvr or fd under its parent)
// and, for a top one, its help.
struct SubRow {
    const char* parent;  // pvr or fd for their words, else null
    const char* name;
    Runner* run;
    // Names of the operands: "[NAME]" may be left out, "NAME..." takes
    // every word left.
    const char* operands;
    unsigned options;
    const char* group = nullptr;  // the overview's heading
    // Lines of "SYNOPSIS\tSUMMARY", one per form of the subcommand.
    const char* usage = nullptr;
    // Options, output, default --timeout and exit status of the page.
    const char* details = nullptr;
};
extern const SubRow kSubRows[];  // ctl_cli.cpp
extern const size_t kSubRowCount;
// The row of name under parent (null: a top row, which has a help page), or
// null.
const SubRow* find_row(const char* parent, const std::string& name);

// Sends a command of the table with its fields and prints the reply.
int run_command(const CtlContext& ctx, const CmdRow& row, const std::vector<std::string>& fields);

// One line per event; a reply is several lines of text or one JSON object
// (row null: a raw word with no row).
void print_reply(const CtlContext& ctx, const CmdRow* row, int32_t word, const CtlReply& reply);
void print_event(const CtlContext& ctx, const CtlEvent& event);
// One line of a subcommand's answer: json with --json, text otherwise.
void print_line(const CtlContext& ctx, const std::string& text, const Json& json);

int usage_error(const CtlContext& ctx, const std::string& message);
int protocol_error(const CtlContext& ctx, const std::string& message);

// The overview (word null), a subcommand's page or a command's
// description, else a usage error.
int print_help(const CtlContext& ctx, const char* word);

}  // namespace lumctl
