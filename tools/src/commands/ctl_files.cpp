// mkdir, rm, rmdir, protect, unprotect, mv, rename, write and cp: one
// request each, answered by one result byte. Result events carry no command
// id: the first result event of the awaited id after the request counts.
// Commands the service runs on the caller's thread send their event before
// the reply, and still send it when the reply is false (the event tells
// why), so for them a reply of either value is awaited and the event only a
// short while after it. cp --cancel and cp --direct answer by their reply.
#include <memory>
#include <unistd.h>

#include <StorageEvents.h>
#include <StorageModuleCmd.h>

#include "commands.h"

namespace lumctl {

namespace {

// The event was sent before the reply; the daemon delivers both at once.
constexpr int kEventAfterReplyMs = 5000;
constexpr int kProgressTickMs = 500;

struct Hint {
    int32_t event;
    uint8_t result;
    const char* text;
};

// What to do about a failure, where more can be said than the word.
const Hint kHints[] = {
    {LUM_TV_EVT_STORAGE_CREATE_DIR, 2, "is the parent on a mounted volume that is writable?"},
    {LUM_TV_EVT_STORAGE_DELETE_FILE, 2, "the file is write-protected: lumstoragectl unprotect PATH lifts it"},
    {LUM_TV_EVT_STORAGE_DELETE_FILE, 3, "does the file exist? A directory takes rmdir or rm -r"},
    {LUM_TV_EVT_STORAGE_DELETE_DIR, 2, "does the directory exist? rmdir removes only an empty one, rm -r a tree"},
    {LUM_TV_EVT_STORAGE_SET_PROTECTED, 2, "does the file exist?"},
    {LUM_TV_EVT_STORAGE_COPY, 5, "wait for the running copy to end, or stop it with lumstoragectl cp --cancel"},
    {LUM_TV_EVT_STORAGE_COPY, 13, "the destination is write-protected: lumstoragectl unprotect DST lifts it"},
    {LUM_TV_EVT_STORAGE_COPY, 255, "cp -r wants a source directory and a destination that does not exist yet"},
    {LUM_TV_EVT_STORAGE_RENAME_FILE, 2, "the destination is write-protected: lumstoragectl unprotect DST lifts it"},
    {LUM_TV_EVT_STORAGE_WRITE_FILE, 1, "the service writes no empty files: give at least one byte"},
};

// A file operation answered by one result byte.
struct FileOp {
    FileOp(DeviceCall c, int32_t e, Json n) : call(std::move(c)), event(e), names(std::move(n)) {}
    DeviceCall call;
    int32_t event;  // the result event
    Json names;     // the operands as JSON fields ("path", or "source" and "destination")
    // Run on the caller's thread: the event comes before the reply, also
    // after a reply of false.
    bool direct = true;
    Bytes request;
    bool space_notices = false;  // LUM_TV_EVT_STORAGE_OUT_OF_SPACE may come before the result
    bool progress = false;       // a terminal is shown how far the copy of SRC DST is
    CopyShape shape = CopyShape::kFile;
};

struct Follower {
    const FileOp& op;
    const CtlContext& ctx;  // with the subcommand's --json
    bool replied = false;
    bool reply_value = false;
    uint8_t result = 0;
    bool out_of_space = false;

    bool accepts(const CtlReply& reply)
    {
        replied = true;
        reply_value = reply_accepted(reply);
        return reply.result == 0 && reply.bytes.size() >= 4;
    }

    EventStep take(const CtlEvent& event)
    {
        if (event.id == LUM_TV_EVT_STORAGE_OUT_OF_SPACE) {
            out_of_space = true;
            if (!ctx.json)
                fprintf(ctx.out, "%s: out of space on the destination's volume\n", printable(op.call.subject()).c_str());
            fflush(ctx.out);
            return EventStep::kMore;
        }
        if (event.data.empty())
            return EventStep::kMore;  // not a result byte: whose it is cannot be told
        result = event.data[0];
        return EventStep::kDone;
    }

    int finish() const
    {
        const char* word = result_word(op.event, result);
        Json json = op.names;
        json["result"] = result;
        json["name"] = word;
        json["ok"] = result == 0;
        if (op.space_notices)
            json["outOfSpace"] = out_of_space;
        const std::string subject = printable(op.call.subject());
        if (ctx.json)
            print_json(ctx.out, json);
        else
            fprintf(ctx.out, "%s: %s (result %u)\n", subject.c_str(), word, result);
        if (result == 0)
            return kExitOk;
        for (const Hint& hint : kHints) {
            if (hint.event == op.event && hint.result == result)
                fprintf(ctx.err, "lumstoragectl: %s: %s\n", subject.c_str(), hint.text);
        }
        return kExitFailed;
    }
};

// The copy engine joins a tree's entries to both roots as they are, so both
// end in "/".
std::string with_slash(const std::string& path)
{
    return !path.empty() && path.back() == '/' ? path : path + "/";
}

// cp --cancel (no event answers it) and cp --direct (STORAGE_COPY_FILE or
// STORAGE_COPY_DIRS: true or false, no reason): a request and its bool.
int copy_by_reply(const CtlContext& ctx, const DeviceCall& call, const Bytes& request, bool* value)
{
    Json answer;
    int rc = direct_ask(ctx, call, {}, request, &answer);
    *value = rc == kExitOk && answer["value"].get<bool>();
    return rc;
}

int cancel_copy(const CtlContext& ctx, const DeviceArgs& args)
{
    DeviceCall call(ctx, "cp --cancel", "STORAGE_COPY", args, kQueryTimeoutSeconds);
    Bytes request;
    std::string error;
    bool queued = false;
    if (build_copy_cancel(&request, &error) != 0)
        return usage_error(ctx, error);
    int rc = copy_by_reply(ctx, call, request, &queued);
    if (rc != kExitOk)
        return rc;
    if (call.local.json)
        print_json(ctx.out, Json{{"cancel", true}, {"queued", queued}});
    else if (queued)
        fprintf(ctx.out, "cancel sent (a running tree copy stops before its next entry)\n");
    return queued ? kExitOk : protocol_error(ctx, "cp --cancel: the service did not queue the cancel");
}

int direct_copy(const CtlContext& ctx, DeviceCall* call, const std::string& src, const std::string& dst, bool tree)
{
    call->sub = "cp --direct";
    call->command = tree ? "STORAGE_COPY_DIRS" : "STORAGE_COPY_FILE";
    Bytes request;
    std::string error;
    bool ok = false;
    if (build_copy_direct(src, dst, tree, &request, &error) != 0)
        return usage_error(ctx, "cp: " + error);
    int rc = copy_by_reply(ctx, *call, request, &ok);
    if (rc != kExitOk)
        return rc;
    if (call->local.json)
        print_json(ctx.out, Json{{"source", src}, {"destination", dst}, {"ok", ok}});
    else
        fprintf(ctx.out, "%s: %s\n", printable(call->subject()).c_str(),
                ok ? "done" : "failed (the reply gives no reason)");
    return ok ? kExitOk : kExitFailed;
}

// Sends op's request (built 0, or error says why not: exit 2) and follows it
// to its result: prints the result line and a hint for a failure, and
// returns kExitOk for result 0, kExitFailed for another result, a refusal,
// a time-out or an error.
int run_file_op(const CtlContext& ctx, const FileOp& op, int built, const std::string& error)
{
    if (built != 0)
        return usage_error(ctx, std::string(op.call.sub) + ": " + error);
    Follower follower{op, op.call.local};
    EventQuery query;
    query.request = op.request;
    std::vector<int32_t> ids = {op.event};
    if (op.space_notices)
        ids.push_back(LUM_TV_EVT_STORAGE_OUT_OF_SPACE);
    device_wait(op.call, ids, [&follower](const CtlEvent& e) { return follower.take(e); }, &query);
    if (op.direct) {
        query.accepts = [&follower](const CtlReply& reply) { return follower.accepts(reply); };
        query.after_reply_ms = kEventAfterReplyMs;
    }
    std::unique_ptr<ProgressBar> bar;
    if (op.progress && !op.call.local.json && isatty(fileno(ctx.out)) != 0) {
        const std::vector<std::string>& paths = op.call.args.operands;
        bar = std::make_unique<ProgressBar>(ctx.out, plan_copy(op.shape, paths[0], paths[1]));
        query.on_tick = [&bar] { bar->tick(); };
        query.tick_ms = kProgressTickMs;
    }
    QueryOutcome out = event_query(ctx.socket_path, query);
    if (bar)
        bar->clear();
    if (out.status == QueryStatus::kTimeout && follower.replied)
        return protocol_error(ctx, op.call.subject() + ": the service replied " +
                                       (follower.reply_value ? "true" : "false") + " but sent no " +
                                       event_name(op.event) + " (is the command served?)");
    int rc = device_report(ctx, op.call, out, [&op] { return std::string(event_name(op.event)); });
    return rc != kExitOk ? rc : follower.finish();
}

}  // namespace

int run_mkdir(const CtlContext& ctx, const DeviceArgs& args)
{
    FileOp op(DeviceCall(ctx, "mkdir", "STORAGE_CREATE_DIR", args, kFileTimeoutSeconds),
              LUM_TV_EVT_STORAGE_CREATE_DIR, {{"path", args.operands[0]}});
    std::string error;
    return run_file_op(ctx, op, build_create_dir(args.operands[0], &op.request, &error), error);
}

int run_rmdir(const CtlContext& ctx, const DeviceArgs& args)
{
    FileOp op(DeviceCall(ctx, "rmdir", "STORAGE_DELETE_DIR", args, kFileTimeoutSeconds),
              LUM_TV_EVT_STORAGE_DELETE_DIR, {{"path", args.operands[0]}});
    std::string error;
    return run_file_op(ctx, op, build_delete_dir(args.operands[0], kDeleteEmptyDir, &op.request, &error), error);
}

// rm PATH: a file; rm --recording PATH.ts: with its companions; rm -r PATH:
// a tree.
int run_rm(const CtlContext& ctx, const DeviceArgs& args)
{
    const bool tree = args.tree;
    const std::string& path = args.operands[0];
    FileOp op(DeviceCall(ctx, "rm", tree ? "STORAGE_DELETE_DIR" : "STORAGE_DELETE_FILE", args,
                         tree ? kTreeTimeoutSeconds : kFileTimeoutSeconds),
              tree ? LUM_TV_EVT_STORAGE_DELETE_DIR : LUM_TV_EVT_STORAGE_DELETE_FILE, {{"path", path}});
    if (!tree)
        op.names["recording"] = args.recording;
    std::string error;
    int built = tree ? build_delete_dir(path, kDeleteTree, &op.request, &error)
                     : build_delete_file(path, args.recording, &op.request, &error);
    return run_file_op(ctx, op, built, error);
}

// protect and unprotect PATH.
int run_protection(const CtlContext& ctx, const DeviceArgs& args)
{
    FileOp op(DeviceCall(ctx, args.sub == "protect" ? "protect" : "unprotect", "STORAGE_SET_PROTECTED", args,
                         kFileTimeoutSeconds, "no result will come"),
              LUM_TV_EVT_STORAGE_SET_PROTECTED, {{"path", args.operands[0]}});
    op.direct = false;
    std::string error;
    return run_file_op(ctx, op, build_set_protected(args.operands[0], args.sub == "protect", &op.request, &error),
                       error);
}

// mv and rename SRC DST [--recording], on the caller's thread. A move to
// another volume copies before the reply comes.
int run_two_paths(const CtlContext& ctx, const DeviceArgs& args)
{
    const bool mv = args.sub == "mv";
    const std::string& src = args.operands[0];
    const std::string& dst = args.operands[1];
    FileOp op(DeviceCall(ctx, mv ? "mv" : "rename", "", args, mv ? kCopyTimeoutSeconds : kFileTimeoutSeconds),
              mv ? LUM_TV_EVT_STORAGE_MOVE_FILE : LUM_TV_EVT_STORAGE_RENAME_FILE,
              {{"source", src}, {"destination", dst}, {"recording", args.recording}});
    op.progress = mv && across_volumes(src, dst);
    op.shape = args.recording ? CopyShape::kRecording : CopyShape::kFile;
    std::string error;
    int built = build_packed_paths(mv ? STROAGE_LUM_MOVE : STORAGE_RENAME_FILE, src, dst, args.recording,
                                   &op.request, &error);
    return run_file_op(ctx, op, built, error);
}

// write PATH [FILE|-]: the data of FILE, or of standard input.
int run_write(const CtlContext& ctx, const DeviceArgs& args)
{
    const std::string& path = args.operands[0];
    Bytes data;
    std::string error;
    if (read_data(args.operands.size() > 1 ? args.operands[1] : "-", ctx.in, &data, &error) != 0)
        return usage_error(ctx, "write: " + error);
    FileOp op(DeviceCall(ctx, "write", "STORAGE_WRITE_FILE", args, kFileTimeoutSeconds), LUM_TV_EVT_STORAGE_WRITE_FILE,
              {{"path", path}, {"bytes", data.size()}});
    return run_file_op(ctx, op, build_write_file(path, data, &op.request, &error), error);
}

// cp: a file, a recording with its companions (--recording) or a tree (-r)
// copied by the service's copy engine and followed to its end event.
int run_cp(const CtlContext& ctx, const DeviceArgs& args)
{
    if (args.cancel)
        return cancel_copy(ctx, args);
    DeviceCall call(ctx, "cp", "STORAGE_COPY", args, kCopyTimeoutSeconds, "no copy will run");
    std::vector<std::string>& paths = call.args.operands;
    if (!args.tree && !paths[0].empty() && paths[0].back() == '/')
        return usage_error(ctx, "cp: '" + paths[0] + "' ends in '/': a directory takes cp -r");
    if (args.tree)
        paths = {with_slash(paths[0]), with_slash(paths[1])};
    if (args.direct)
        return direct_copy(ctx, &call, paths[0], paths[1], args.tree);
    FileOp op(call, LUM_TV_EVT_STORAGE_COPY,
              {{"source", paths[0]}, {"destination", paths[1]}, {"recording", args.recording}});
    op.direct = false;
    op.space_notices = true;
    op.progress = true;
    op.shape = args.tree ? CopyShape::kTree : args.recording ? CopyShape::kRecording : CopyShape::kFile;
    std::string error;
    int built = build_copy(paths[0], paths[1], args.recording ? kCopyRecording : kCopyPlain, &op.request, &error);
    return run_file_op(ctx, op, built, error);
}

}  // namespace lumctl
