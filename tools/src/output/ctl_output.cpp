// Text and JSON output of replies and events.
#include <string>

#include "lumctl/ctl.h"
#include "lumctl/event_decoders.h"
#include "lumctl/reply_decode.h"

namespace lumctl {

namespace {

constexpr size_t kTextRestBytes = 256;

Json json_name(const char* name)
{
    return name != nullptr ? Json(name) : Json(nullptr);
}

// The decoded payload under key, then whether it was whole and what was left.
void add_decoded(Json* line, const char* key, const Decoded& decoded)
{
    (*line)[key] = fields_json(decoded);
    (*line)["complete"] = decoded.complete;
    (*line)["rest"] = hex_compact(decoded.rest.data(), decoded.rest.size());
}

void print_reply_json(const CtlContext& ctx, const CmdRow* row, int32_t word, const CtlReply& reply,
                      const Decoded& decoded)
{
    Json line = {{"command", json_name(row != nullptr ? row->name : nullptr)}, {"code", word}, {"result", reply.result}};
    add_decoded(&line, "reply", decoded);
    print_json(ctx.out, line);
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

void print_line(const CtlContext& ctx, const std::string& text, const Json& json)
{
    fprintf(ctx.out, "%s\n", ctx.json ? json_line(json).c_str() : text.c_str());
}

void print_event(const CtlContext& ctx, const CtlEvent& event)
{
    if (event.dropped) {
        if (ctx.json)
            print_json(ctx.out, Json{{"dropped", event.count}});
        else
            fprintf(ctx.out, "(%u events dropped)\n", event.count);
        fflush(ctx.out);
        return;
    }
    const char* name = event_name(event.id);
    Decoded decoded = decode_event(event.id, event.data.data(), event.data.size());
    std::string line;
    if (ctx.json) {
        Json obj = {{"event", json_name(name)}, {"id", event.id}, {"len", event.data.size()}};
        if (ctx.hex)
            obj["hex"] = hex_compact(event.data.data(), event.data.size());
        add_decoded(&obj, "data", decoded);
        line = json_line(obj);
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
