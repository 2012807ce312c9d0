// Shared parts of the subcommands: their options, requests and failure
// reports, and the run of a file subcommand answered by one result byte:
// the request goes out on a subscribed connection, the result event comes
// back, and its word is printed with an exit code (0 for result 0, 1
// otherwise).
#pragma once

#include <string>
#include <vector>

#include "lumctl/copy_progress.h"
#include "lumctl/ctl.h"
#include "lumctl/ctl_args.h"
#include "lumctl/event_query.h"

namespace lumctl {

// Default waits: a mount run that mounts nothing takes 5 s and an unmount
// run up to about 13 s; a query may sit behind such a run in the service's
// queue.
constexpr double kRunTimeoutSeconds = 60;
constexpr double kQueryTimeoutSeconds = 20;
// A format takes minutes on a large disk, all of it inside one wait.
constexpr double kFormatTimeoutSeconds = 600;

// What a subcommand sends and waits for.
struct DeviceCall {
    const char* sub;      // "mount"
    const char* command;  // "STORAGE_DEV_MOUNT"
    DeviceArgs args;
    const char* refused = nullptr;  // said after a refusal ("no listing will come"), or null
};

// Takes the subcommand's words into call: its --json or the global one, its
// --timeout or the default timeout seconds.
void device_args(const CtlContext& ctx, DeviceCall* call, const DeviceArgs& args, double timeout);

// The query of call: its command with fields (one per request letter), the
// awaited ids and the handler. Returns 0, or -1 with a message in error.
int device_query(const DeviceCall& call, const std::vector<std::string>& fields,
                 std::vector<int32_t> ids, std::function<EventStep(const CtlEvent&)> on_event,
                 EventQuery* query, std::string* error);

// The awaited ids, the handler and call's timeout, for a request the caller
// built.
void device_wait(const DeviceCall& call, std::vector<int32_t> ids,
                 std::function<EventStep(const CtlEvent&)> on_event, EventQuery* query);

// Sends the query and waits. Returns kExitOk when the handler finished;
// otherwise reports the refusal, the time-out (waiting() names what was
// awaited, asked once the time is out) or the error and returns
// kExitFailed.
int device_run(const CtlContext& ctx, const DeviceCall& call, const EventQuery& query,
               const std::function<std::string()>& waiting);
// The same for a query the caller ran itself.
int device_report(const CtlContext& ctx, const DeviceCall& call, const QueryOutcome& out,
                  const std::function<std::string()>& waiting);

// A request the service answers by its reply alone: one connection, the
// request of call's command with fields, its REPLY within call's timeout.
// Returns kExitOk with the reply (result 0), or reports the failure (a
// result other than 0 included) and returns kExitFailed.
int direct_run(const CtlContext& ctx, const DeviceCall& call, const std::vector<std::string>& fields,
               CtlReply* reply);
// The same for a request the caller built.
int direct_request(const CtlContext& ctx, const DeviceCall& call, const std::vector<uint8_t>& request,
                   CtlReply* reply);

// A word of a subcommand with words of its own (pvr state, fd open).
struct WordRow {
    const char* word;
    int (*run)(const CtlContext& ctx, const DeviceArgs& args);
};
// Runs the row of args.word; the parser took only words of the table.
int run_word(const CtlContext& ctx, const WordRow* rows, size_t count, const DeviceArgs& args);

// "rm /a/b": the subcommand and its operands, for messages.
std::string subject(const DeviceCall& call);

// "mounted /mnt/usb/sdb1 (vfat, label KINGSTON)" from a DEV_MOUNT event,
// "unmounted /mnt/usb/sdb1" from a DEV_UMOUNT event.
std::string mounted_text(const CtlEvent& event);
std::string unmounted_text(const CtlEvent& event);

// The context with the subcommand's own --json.
CtlContext device_context(const CtlContext& ctx, const DeviceCall& call);

// "1 volume", "2 volumes".
std::string count_of(long long n, const char* what);

// Default waits. Most operations take a moment; a tree removal runs rm -rf,
// a move across volumes copies, and a copy of a tree or a recording can take
// an hour.
constexpr double kFileTimeoutSeconds = 60;
constexpr double kTreeTimeoutSeconds = 600;
constexpr double kCopyTimeoutSeconds = 3600;

struct FileOp {
    DeviceCall call;
    int32_t event = 0;             // the result event
    bool direct = false;           // run on the caller's thread: the event comes before the reply, also
                                   // after a reply of false
    std::vector<uint8_t> request;  // the request Parcel
    Json names;                    // the operands as JSON fields ("path", or "source" and "destination")
    bool space_notices = false;    // LUM_TV_EVT_STORAGE_OUT_OF_SPACE may come before the result
    bool progress = false;         // a terminal is shown how far the copy of the operands SRC DST is
    CopyShape shape = CopyShape::kFile;
};

// Sends op's request and follows it to its result: prints the result line
// (and a hint for a failure on standard error) and returns kExitOk for
// result 0, kExitFailed for another result, a refusal, a time-out or an
// error.
int run_file_op(const CtlContext& ctx, const FileOp& op);

}  // namespace lumctl
