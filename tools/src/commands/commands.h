// What the subcommands share: their default waits, the request they send
// and the wait for its events or its reply, the failure reports, the run of
// a file operation answered by one result byte, and a format followed step
// by step (format VOLUME, pvr mark DISK --format).
#pragma once

#include "lumctl/ctl.h"

namespace lumctl {

// A mount run that mounts nothing takes 5 s and an unmount run up to about
// 13 s; a query may sit behind such a run in the service's queue; a format
// takes minutes on a large disk, all of it inside one wait. A tree removal
// runs rm -rf, a move across volumes copies, and a copy of a tree or a
// recording can take an hour.
constexpr double kRunTimeoutSeconds = 60, kQueryTimeoutSeconds = 20, kFormatTimeoutSeconds = 600;
constexpr double kFileTimeoutSeconds = 60, kTreeTimeoutSeconds = 600, kCopyTimeoutSeconds = 3600;

// What a subcommand sends and waits for: its words with its --json or the
// global one, its --timeout or the default.
struct DeviceCall {
    DeviceCall(const CtlContext& ctx, const char* sub, const char* command, const DeviceArgs& args, double timeout,
               const char* refused = nullptr);
    const char* sub;      // "mount"
    const char* command;  // "STORAGE_DEV_MOUNT"
    DeviceArgs args;
    const char* refused;  // said after a refusal ("no listing will come"), or null
    CtlContext local;     // the context with the subcommand's --json

    // "rm /a/b": the subcommand and its operands, for messages.
    std::string subject() const;
};

// call's command with fields as a request: kExitOk, or a usage error reported.
int call_request(const CtlContext& ctx, const DeviceCall& call, const std::vector<std::string>& fields, Bytes* out);

// Builds call's command with fields, sends it and hands the events of ids to
// on_event until it is done. Reports a bad request (exit 2), a refusal, a
// time-out (waiting() names what was awaited) or an error (exit 1).
int device_ask(const CtlContext& ctx, const DeviceCall& call, const std::vector<std::string>& fields,
               std::vector<int32_t> ids, std::function<EventStep(const CtlEvent&)> on_event,
               const std::function<std::string()>& waiting);
// The awaited ids, the handler and call's timeout, for a request the caller
// built and runs itself; device_report reports its outcome like device_ask.
void device_wait(const DeviceCall& call, std::vector<int32_t> ids,
                 std::function<EventStep(const CtlEvent&)> on_event, EventQuery* query);
int device_report(const CtlContext& ctx, const DeviceCall& call, const QueryOutcome& out,
                  const std::function<std::string()>& waiting);

// A request answered by its reply alone: request, or when it is empty call's
// command built with fields. kExitOk with a reply of result 0 and, when
// asked, its fields as the command's reply token reads them ("value",
// "errno", ...) and the bytes of its byte field (a read's data, the guide
// record); otherwise reported: a usage error for fields that make no
// request, kExitFailed for a refusal, a time-out or a reply too short for
// its token.
int direct_ask(const CtlContext& ctx, const DeviceCall& call, const std::vector<std::string>& fields, Bytes request,
               Json* answer, Bytes* bytes = nullptr);

// "mounted /mnt/usb/sdb1 (vfat, label KINGSTON)" from a DEV_MOUNT event,
// "unmounted /mnt/usb/sdb1" from a DEV_UMOUNT event.
std::string mounted_text(const CtlEvent& event);
std::string unmounted_text(const CtlEvent& event);
// A path event's text up to its NUL, for a terminal ("" for an empty event).
std::string path_text(const CtlEvent& event);

// "1 volume", "2 volumes"; "1 entry", "2 entries" with the plural given.
std::string count_of(long long n, const char* one, const char* many = nullptr);

// Where a format is. Mount and unmount events carry no volume name, so they
// count only in their own phase: an unmount before the end of the unmount
// run, a mount between that end and the end of the mount run.
enum class FormatPhase { kWaiting, kUnmounting, kFormatting, kMounting, kMounted, kEnded };

// Prints one line per step of a format: "unmounting", each volume taken off,
// "formatting", a watchdog report, "mounting", each volume mounted again,
// then the result from SET_ALL_PARTITION and the final FORMAT event.
struct FormatFollower {
    CtlContext ctx;
    std::string volume;       // as the FORMAT and SET_ALL_PARTITION events name it
    bool busy_counts = true;  // a FORMAT -2 for volume before any progress ends the wait
    FormatPhase phase = FormatPhase::kWaiting;
    bool have_partition = false;  // SET_ALL_PARTITION for volume came
    int ret_val = 0;              // its retVal
    long long size_mb = -1;       // its size, when retVal is 0
    bool ok = false;              // the final result was 0

    static std::vector<int32_t> event_ids();
    // kDone once the final result (or the busy refusal) came; later format
    // events, or another volume's, are skipped; the PVR partition's changes
    // are told whenever they come.
    EventStep take(const CtlEvent& event);
    std::string waiting() const;
    void say(const std::string& text, const Json& json) const;
};

}  // namespace lumctl
