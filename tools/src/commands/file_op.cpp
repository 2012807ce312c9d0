// Result events carry no command id: the first result event of the
// awaited id after the request counts. Commands the service runs on the
// caller's thread send their event before the reply, and still send it
// when the reply is false (the event tells why), so for them a reply of
// either value is awaited and the event is awaited only a short while
// after it.
#include "ctl_device.h"

#include <memory>
#include <unistd.h>

#include <StorageEvents.h>

#include "lumctl/event_decoders.h"
#include "lumctl/file_results.h"
#include "lumctl/volume_table.h"

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

const char* hint_for(int32_t event, uint8_t result)
{
    for (const Hint& hint : kHints) {
        if (hint.event == event && hint.result == result)
            return hint.text;
    }
    return nullptr;
}

struct Follower {
    CtlContext ctx;  // with the subcommand's --json
    const FileOp& op;
    bool replied = false;
    bool reply_value = false;
    bool have = false;
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
                fprintf(ctx.out, "%s: out of space on the destination's volume\n", printable(subject(op.call)).c_str());
            fflush(ctx.out);
            return EventStep::kMore;
        }
        if (event.data.empty())
            return EventStep::kMore;  // not a result byte: whose it is cannot be told
        result = event.data[0];
        have = true;
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
        if (ctx.json)
            print_json(ctx.out, json);
        else
            fprintf(ctx.out, "%s: %s (result %u)\n", printable(subject(op.call)).c_str(), word, result);
        if (result == 0)
            return kExitOk;
        const char* hint = hint_for(op.event, result);
        if (hint != nullptr)
            fprintf(ctx.err, "lumstoragectl: %s: %s\n", printable(subject(op.call)).c_str(), hint);
        return kExitFailed;
    }
};

}  // namespace

int run_file_op(const CtlContext& ctx, const FileOp& op)
{
    Follower follower{device_context(ctx, op.call), op};
    EventQuery query;
    query.request = op.request;
    std::vector<int32_t> ids = {op.event};
    if (op.space_notices)
        ids.push_back(LUM_TV_EVT_STORAGE_OUT_OF_SPACE);
    device_wait(
        op.call, ids, [&follower](const CtlEvent& e) { return follower.take(e); }, &query);
    if (op.direct) {
        query.accepts = [&follower](const CtlReply& reply) { return follower.accepts(reply); };
        query.after_reply_ms = kEventAfterReplyMs;
    }
    std::unique_ptr<ProgressBar> bar;
    if (op.progress && shows_progress(follower.ctx.json, isatty(fileno(ctx.out)) != 0)) {
        const std::vector<std::string>& paths = op.call.args.operands;
        bar = std::make_unique<ProgressBar>(ctx.out, plan_copy(op.shape, paths[0], paths[1]));
        query.on_tick = [&bar] { bar->tick(); };
        query.tick_ms = kProgressTickMs;
    }
    QueryOutcome out = event_query(ctx.socket_path, query);
    if (bar)
        bar->clear();
    if (out.status == QueryStatus::kTimeout && follower.replied)
        return protocol_error(ctx, subject(op.call) + ": the service replied " +
                                       (follower.reply_value ? "true" : "false") + " but sent no " +
                                       event_name(op.event) + " (is the command served?)");
    int rc = device_report(ctx, op.call, out, [&op] { return std::string(event_name(op.event)); });
    return rc != kExitOk ? rc : follower.finish();
}

}  // namespace lumctl
