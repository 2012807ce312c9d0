// Options, requests and failure reports shared by the device subcommands.
#include "ctl_device.h"

#include <cmath>
#include <unistd.h>

#include "lumctl/request_build.h"

namespace lumctl {

namespace {

std::string seconds_text(double seconds)
{
    char buf[32];
    snprintf(buf, sizeof(buf), "%g s", seconds);
    return buf;
}

std::string refusal_text(const CtlReply& reply)
{
    if (reply.result != 0)
        return "the service did not take the request (result " + std::to_string(reply.result) + ")";
    return "the service refused the request";
}

// Sends the query's request and waits for its REPLY: 1, 0 on time-out, -1
// with error. The connection is not subscribed; stray events are skipped.
int wait_reply(int fd, const EventQuery& query, CtlReply* reply, std::string* error)
{
    double deadline = now_seconds() + query.timeout_ms / 1000.0;
    if (ctl_send_request(fd, query.request, error) != 0)
        return -1;
    for (;;) {
        CtlIncoming in;
        int rc = ctl_next_incoming(fd, time_left_ms(deadline), &in, error);
        if (rc <= 0)
            return rc;
        if (in.is_reply) {
            *reply = in.reply;
            return 1;
        }
    }
}

}  // namespace

std::string subject(const DeviceCall& call)
{
    std::string out = call.sub;
    for (const std::string& operand : call.args.operands)
        out += " " + operand;
    return out;
}

void device_args(const CtlContext& ctx, DeviceCall* call, const DeviceArgs& args, double timeout)
{
    call->args = args;
    call->args.json = args.json || ctx.json;
    if (args.timeout < 0)
        call->args.timeout = timeout;
}

int device_query(const DeviceCall& call, const std::vector<std::string>& fields,
                 std::vector<int32_t> ids, std::function<EventStep(const CtlEvent&)> on_event,
                 EventQuery* query, std::string* error)
{
    const CmdRow* row = cmd_find(call.command);
    if (row == nullptr) {
        *error = std::string("no command ") + call.command;
        return -1;
    }
    if (build_request(*row, fields, &query->request, error) != 0)
        return -1;
    device_wait(call, std::move(ids), std::move(on_event), query);
    return 0;
}

void device_wait(const DeviceCall& call, std::vector<int32_t> ids,
                 std::function<EventStep(const CtlEvent&)> on_event, EventQuery* query)
{
    query->ids = std::move(ids);
    query->on_event = std::move(on_event);
    double ms = std::ceil(call.args.timeout * 1000);
    query->timeout_ms = ms > 2e9 ? 2000000000 : static_cast<int>(ms);
}

int device_run(const CtlContext& ctx, const DeviceCall& call, const EventQuery& query,
               const std::function<std::string()>& waiting)
{
    return device_report(ctx, call, event_query(ctx.socket_path, query), waiting);
}

int device_report(const CtlContext& ctx, const DeviceCall& call, const QueryOutcome& out,
                  const std::function<std::string()>& waiting)
{
    if (out.status == QueryStatus::kDone)
        return kExitOk;
    std::string why = out.error;
    if (out.status == QueryStatus::kRefused)
        why = refusal_text(out.reply) + (call.refused != nullptr ? std::string(": ") + call.refused : "");
    if (out.status == QueryStatus::kTimeout)
        why = "timed out after " + seconds_text(call.args.timeout) + " waiting for " + waiting();
    if (out.dropped > 0 && out.status != QueryStatus::kRefused)
        why += " (" + std::to_string(out.dropped) + " events were dropped by the daemon meanwhile)";
    return protocol_error(ctx, subject(call) + ": " + why);
}

int direct_run(const CtlContext& ctx, const DeviceCall& call, const std::vector<std::string>& fields,
               CtlReply* reply)
{
    EventQuery query;
    std::string error;
    if (device_query(call, fields, {}, nullptr, &query, &error) != 0)
        return usage_error(ctx, error);
    return direct_request(ctx, call, query.request, reply);
}

int direct_request(const CtlContext& ctx, const DeviceCall& call, const std::vector<uint8_t>& request,
                   CtlReply* reply)
{
    EventQuery query;
    query.request = request;
    device_wait(call, {}, nullptr, &query);
    std::string error;
    int fd = ctl_connect(ctx.socket_path);
    if (fd < 0)
        return protocol_error(ctx, subject(call) + ": " + connect_error(ctx.socket_path, -fd));
    int rc = wait_reply(fd, query, reply, &error);
    close(fd);
    if (rc == 0)
        error = "timed out after " + seconds_text(call.args.timeout) + " waiting for the reply";
    if (rc == 1 && reply->result != 0)
        error = refusal_text(*reply);
    return rc == 1 && reply->result == 0 ? kExitOk : protocol_error(ctx, subject(call) + ": " + error);
}

int run_word(const CtlContext& ctx, const WordRow* rows, size_t count, const DeviceArgs& args)
{
    for (size_t i = 0; i < count; ++i) {
        if (args.word == rows[i].word)
            return rows[i].run(ctx, args);
    }
    return usage_error(ctx, "no word '" + args.word + "'");
}

CtlContext device_context(const CtlContext& ctx, const DeviceCall& call)
{
    CtlContext local = ctx;
    local.json = call.args.json;
    return local;
}

std::string count_of(long long n, const char* what)
{
    return std::to_string(n) + " " + what + (n == 1 ? "" : "s");
}

}  // namespace lumctl
