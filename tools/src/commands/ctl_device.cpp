// The request of a subcommand, its wait and its failure reports.
#include <cmath>
#include <unistd.h>

#include "commands.h"

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

// call's --timeout, or its default, in milliseconds.
int timeout_ms(const DeviceCall& call)
{
    double ms = std::ceil(call.args.timeout * 1000);
    return ms > 2e9 ? 2000000000 : static_cast<int>(ms);
}

// Sends request and waits for its reply: kExitOk for a reply of result 0,
// otherwise reported.
int direct_request(const CtlContext& ctx, const DeviceCall& call, const Bytes& request, CtlReply* reply)
{
    std::string error;
    int fd = ctl_connect(ctx.socket_path);
    if (fd < 0)
        return protocol_error(ctx, call.subject() + ": " + connect_error(ctx.socket_path, -fd));
    int rc = ctl_transact(fd, request, timeout_ms(call), reply, &error);
    close(fd);
    if (rc == 0)
        error = "timed out after " + seconds_text(call.args.timeout) + " waiting for the reply";
    if (rc == 1 && reply->result != 0)
        error = refusal_text(*reply);
    return rc == 1 && reply->result == 0 ? kExitOk : protocol_error(ctx, call.subject() + ": " + error);
}

}  // namespace

int call_request(const CtlContext& ctx, const DeviceCall& call, const std::vector<std::string>& fields, Bytes* out)
{
    const CmdRow* row = cmd_find(call.command);
    std::string error = std::string("no command ") + call.command;
    if (row == nullptr || build_request(*row, fields, out, &error) != 0)
        return usage_error(ctx, error);
    return kExitOk;
}

DeviceCall::DeviceCall(const CtlContext& ctx, const char* sub_in, const char* command_in, const DeviceArgs& args_in,
                       double timeout, const char* refused_in)
    : sub(sub_in), command(command_in), args(args_in), refused(refused_in), local(ctx)
{
    args.json = args.json || ctx.json;
    if (args.timeout < 0)
        args.timeout = timeout;
    local.json = args.json;
}

std::string DeviceCall::subject() const
{
    std::string out = sub;
    for (const std::string& operand : args.operands)
        out += " " + operand;
    return out;
}

int device_ask(const CtlContext& ctx, const DeviceCall& call, const std::vector<std::string>& fields,
               std::vector<int32_t> ids, std::function<EventStep(const CtlEvent&)> on_event,
               const std::function<std::string()>& waiting)
{
    EventQuery query;
    int rc = call_request(ctx, call, fields, &query.request);
    if (rc != kExitOk)
        return rc;
    device_wait(call, std::move(ids), std::move(on_event), &query);
    return device_report(ctx, call, event_query(ctx.socket_path, query), waiting);
}

void device_wait(const DeviceCall& call, std::vector<int32_t> ids,
                 std::function<EventStep(const CtlEvent&)> on_event, EventQuery* query)
{
    query->ids = std::move(ids);
    query->on_event = std::move(on_event);
    query->timeout_ms = timeout_ms(call);
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
    return protocol_error(ctx, call.subject() + ": " + why);
}

int direct_ask(const CtlContext& ctx, const DeviceCall& call, const std::vector<std::string>& fields, Bytes request,
               Json* answer, Bytes* bytes)
{
    CtlReply reply;
    int rc = request.empty() ? call_request(ctx, call, fields, &request) : kExitOk;
    if (rc != kExitOk || (rc = direct_request(ctx, call, request, &reply)) != kExitOk || answer == nullptr)
        return rc;
    const CmdRow* row = cmd_find(call.command);
    Decoded decoded = decode_reply(row != nullptr ? row->reply : nullptr, reply.bytes.data(), reply.bytes.size());
    if (!decoded.complete || decoded.fields.empty())
        return protocol_error(ctx, call.subject() + ": the reply is shorter than " + call.command + " answers");
    *answer = fields_json(decoded);
    for (Field& field : decoded.fields) {
        if (bytes != nullptr && !field.bytes.empty())
            *bytes = std::move(field.bytes);
    }
    return kExitOk;
}

std::string count_of(long long n, const char* one, const char* many)
{
    const std::string plural = many != nullptr ? many : std::string(one) + "s";
    return std::to_string(n) + " " + (n == 1 ? one : plural);
}

}  // namespace lumctl
