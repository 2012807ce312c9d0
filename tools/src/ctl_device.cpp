// Options, requests and failure reports shared by the device subcommands.
#include "ctl_device.h"

#include <cmath>

#include "lumctl/request_build.h"

namespace lumctl {

namespace {

std::string seconds_text(double seconds)
{
    char buf[32];
    snprintf(buf, sizeof(buf), "%g s", seconds);
    return buf;
}

std::string subject(const DeviceCall& call)
{
    std::string out = call.sub;
    for (const std::string& operand : call.args.operands)
        out += " " + operand;
    return out;
}

std::string refusal_text(const CtlReply& reply)
{
    if (reply.result != 0)
        return "the service did not take the request (result " + std::to_string(reply.result) + ")";
    return "the service refused the request";
}

}  // namespace

int device_args(const CtlContext& ctx, DeviceCall* call, const char* what, size_t want,
                double timeout, int argc, char** argv)
{
    call->args.json = ctx.json;
    call->args.timeout = timeout;
    return parse_device_args(ctx, call->sub, what, want, argc, argv, &call->args);
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
    query->ids = std::move(ids);
    query->on_event = std::move(on_event);
    double ms = std::ceil(call.args.timeout * 1000);
    query->timeout_ms = ms > 2e9 ? 2000000000 : static_cast<int>(ms);
    return 0;
}

int device_run(const CtlContext& ctx, const DeviceCall& call, const EventQuery& query,
               const std::function<std::string()>& waiting)
{
    QueryOutcome out = event_query(ctx.socket_path, query);
    if (out.status == QueryStatus::kDone)
        return kExitOk;
    std::string why = out.error;
    if (out.status == QueryStatus::kRefused)
        why = refusal_text(out.reply);
    if (out.status == QueryStatus::kTimeout)
        why = "timed out after " + seconds_text(call.args.timeout) + " waiting for " + waiting();
    if (out.dropped > 0 && out.status != QueryStatus::kRefused)
        why += " (" + std::to_string(out.dropped) + " events were dropped by the daemon meanwhile)";
    return protocol_error(ctx, subject(call) + ": " + why);
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
