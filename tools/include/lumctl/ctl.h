// lumstoragectl as a library function: the binary's main calls it, tests
// call it with their own streams.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "lumctl/cmd_table.h"
#include "lumctl/ctl_args.h"
#include "lumctl/ctl_client.h"
#include "lumctl/decoded.h"

namespace lumctl {

// Exit codes, the same for every subcommand (lumstoragectl help shows them).
enum ExitCode {
    kExitOk = 0,      // done: the request was answered, the operation succeeded
    kExitFailed = 1,  // it did not work: no connection, an ERROR frame or broken stream, a request
                      // the service refused (reply false), no answer in time, an operation that
                      // failed (a file result other than 0, a failed format or benchmark, a
                      // shell command that exited non-zero, a failed listing)
    kExitUsage = 2,   // the command line is wrong; nothing was sent
    kExitNo = 3,      // the service answered, and the answer is no: no PVR partition or path, a PVR
                      // verdict other than success, no size, a size limit it did not take, no
                      // device information, a cover status other than 0
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

int ctl_main(int argc, char** argv, FILE* out, FILE* err);
// The same with in as standard input.
int ctl_main(int argc, char** argv, FILE* in, FILE* out, FILE* err);

// The subcommands' words, in the order of the overview.
std::vector<std::string> subcommand_names();
// The options of a subcommand and of its words, as the parser knows them
// (--help aside).
std::vector<std::string> subcommand_options(const std::string& name);
// Reads the command line into ctx and runs what it asks for (ctl_cli.cpp).
int run_command_line(CtlContext* ctx, int argc, char** argv);

// Subcommands, with their words as the command line parser read them;
// run_command sends a command of the table with its fields.
int run_list(const CtlContext& ctx, const DeviceArgs& args);
int run_watch(const CtlContext& ctx, const DeviceArgs& args);
int run_raw(const CtlContext& ctx, const DeviceArgs& args);
int run_command(const CtlContext& ctx, const CmdRow& row, const std::vector<std::string>& fields);

// Device subcommands: send a request the service answers by event, wait for
// the event(s) and print them (ctl_volumes.cpp, ctl_mount.cpp,
// ctl_queries.cpp). Exit 1 when the request is refused or times out.
int run_volumes(const CtlContext& ctx, const DeviceArgs& args);
int run_devinfo(const CtlContext& ctx, const DeviceArgs& args);
int run_mount(const CtlContext& ctx, const DeviceArgs& args);
int run_umount(const CtlContext& ctx, const DeviceArgs& args);
int run_size(const CtlContext& ctx, const DeviceArgs& args);
int run_used(const CtlContext& ctx, const DeviceArgs& args);
int run_free(const CtlContext& ctx, const DeviceArgs& args);
int run_uuid(const CtlContext& ctx, const DeviceArgs& args);

// pvr WORD ...: the PVR queries, marking, guide and size limit (ctl_pvr*.cpp);
// format VOLUME: a format followed to its result (ctl_format.cpp).
int run_pvr(const CtlContext& ctx, const DeviceArgs& args);
int run_format(const CtlContext& ctx, const DeviceArgs& args);
int run_bench(const CtlContext& ctx, const DeviceArgs& args);

// ls PATH: a directory listing, assembled from its blocks (ctl_ls.cpp);
// cover FOLDER FILE: the link to a media file's cover (ctl_cover.cpp).
int run_ls(const CtlContext& ctx, const DeviceArgs& args);
int run_cover(const CtlContext& ctx, const DeviceArgs& args);

// File subcommands: one request, one result byte by event (ctl_files.cpp,
// ctl_copy.cpp); exec, chmod and fd answer by their reply alone
// (ctl_exec.cpp, ctl_fd.cpp). A failed result exits 1.
int run_mkdir(const CtlContext& ctx, const DeviceArgs& args);
int run_rm(const CtlContext& ctx, const DeviceArgs& args);
int run_rmdir(const CtlContext& ctx, const DeviceArgs& args);
int run_protect(const CtlContext& ctx, const DeviceArgs& args);
int run_unprotect(const CtlContext& ctx, const DeviceArgs& args);
int run_mv(const CtlContext& ctx, const DeviceArgs& args);
int run_rename(const CtlContext& ctx, const DeviceArgs& args);
int run_write(const CtlContext& ctx, const DeviceArgs& args);
int run_cp(const CtlContext& ctx, const DeviceArgs& args);
int run_exec(const CtlContext& ctx, const DeviceArgs& args);
int run_chmod(const CtlContext& ctx, const DeviceArgs& args);
int run_fd(const CtlContext& ctx, const DeviceArgs& args);

// Renderings, one line per event; a reply is several lines of text or one
// JSON object. row may be null (a raw word with no row).
void print_reply(const CtlContext& ctx, const CmdRow* row, int32_t word, const CtlReply& reply);
void print_event(const CtlContext& ctx, const CtlEvent& event);
// One line of a subcommand's answer: json with --json, text otherwise.
void print_line(const CtlContext& ctx, const std::string& text, const Json& json);

// Sends request on a new connection and prints the reply.
int transact_and_print(const CtlContext& ctx, const CmdRow* row, int32_t word,
                       const std::vector<uint8_t>& request);

int usage_error(const CtlContext& ctx, const std::string& message);
int protocol_error(const CtlContext& ctx, const std::string& message);

}  // namespace lumctl
