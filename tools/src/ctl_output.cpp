// Text and JSON output of replies and events.
#include <cstring>
#include <string>

#include "lumctl/ctl.h"
#include "lumctl/event_decoders.h"
#include "lumctl/reply_decode.h"

namespace lumctl {

namespace {

constexpr size_t kTextRestBytes = 256;

std::string json_name(const char* name)
{
    return name != nullptr ? json_string(name, strlen(name)) : "null";
}

std::string json_tail(const Decoded& decoded)
{
    return std::string(",\"complete\":") + (decoded.complete ? "true" : "false") + ",\"rest\":\"" +
           hex_compact(decoded.rest.data(), decoded.rest.size()) + "\"}";
}

void print_reply_json(const CtlContext& ctx, const CmdRow* row, int32_t word, const CtlReply& reply,
                      const Decoded& decoded)
{
    std::string line = "{\"command\":" + json_name(row != nullptr ? row->name : nullptr) +
                       ",\"code\":" + std::to_string(word) + ",\"result\":" +
                       std::to_string(reply.result) + ",\"reply\":" + fields_json(decoded) +
                       json_tail(decoded);
    fprintf(ctx.out, "%s\n", line.c_str());
}

void print_reply_text(const CtlContext& ctx, const CmdRow* row, int32_t word, const CtlReply& reply,
                      const Decoded& decoded)
{
    fprintf(ctx.out, "%s (%d): result %d\n", row != nullptr ? row->name : "(unknown command)", word,
            reply.result);
    if (reply.bytes.empty() && decoded.fields.empty())
        fprintf(ctx.out, "  (no reply)\n");
    for (const Field& f : decoded.fields)
        fprintf(ctx.out, "  %s: %s\n", f.name.c_str(), f.text.c_str());
    if (!decoded.complete)
        fprintf(ctx.out, "  (reply ends early for \"%s\")\n", row != nullptr ? row->reply : "");
    if (!decoded.rest.empty())
        fprintf(ctx.out, "  rest: %s\n",
                hex_spaced(decoded.rest.data(), decoded.rest.size(), kTextRestBytes).c_str());
}

}  // namespace

void print_reply(const CtlContext& ctx, const CmdRow* row, int32_t word, const CtlReply& reply)
{
    Decoded decoded = decode_reply(row != nullptr ? row->reply : nullptr, reply.bytes.data(),
                                   reply.bytes.size());
    if (ctx.json)
        print_reply_json(ctx, row, word, reply, decoded);
    else
        print_reply_text(ctx, row, word, reply, decoded);
}

void print_event(const CtlContext& ctx, const CtlEvent& event)
{
    if (event.dropped) {
        if (ctx.json)
            fprintf(ctx.out, "{\"dropped\":%u}\n", event.count);
        else
            fprintf(ctx.out, "(%u events dropped)\n", event.count);
        fflush(ctx.out);
        return;
    }
    const char* name = event_name(event.id);
    Decoded decoded = decode_event(event.id, event.data.data(), event.data.size());
    std::string line;
    if (ctx.json) {
        std::string hex = ctx.hex ? ",\"hex\":\"" + hex_compact(event.data.data(), event.data.size()) + "\"" : "";
        line = "{\"event\":" + json_name(name) + ",\"id\":" + std::to_string(event.id) +
               ",\"len\":" + std::to_string(event.data.size()) + hex + ",\"data\":" + fields_json(decoded) +
               json_tail(decoded);
    } else {
        line = (name != nullptr ? std::string(name) : "event") + " (" + std::to_string(event.id) + "):";
        for (const Field& f : decoded.fields)
            line += " " + f.name + "=" + f.text;
        if (!decoded.complete)
            line += " (payload ends early)";
        if (!decoded.rest.empty())
            line += " rest=" + hex_spaced(decoded.rest.data(), decoded.rest.size(), kTextRestBytes);
        if (ctx.hex)
            line += "\n" + hex_dump(event.data.data(), event.data.size()) + "(" +
                    std::to_string(event.data.size()) + " bytes)";
    }
    fprintf(ctx.out, "%s\n", line.c_str());
    fflush(ctx.out);
}

}  // namespace lumctl
