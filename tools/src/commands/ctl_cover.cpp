// cover FOLDER FILE: asks the service for the cover of a media file and
// prints the link it names. The answer carries no command id; its path ends
// in FILE and "." plus an extension, which is how this client's answer is
// told from another client's.
#include <cstring>

#include <StorageEvents.h>

#include "ctl_device.h"
#include "lumctl/listing.h"
#include "lumctl/volume_table.h"

namespace lumctl {

namespace {

// The last component of path is file, ".", and an extension (maybe empty).
bool names_file(const std::string& path, const std::string& file)
{
    const std::string tail = "/" + file + ".";
    size_t at = path.rfind(tail);
    return at != std::string::npos && path.find('/', at + tail.size()) == std::string::npos;
}

int print_cover(const CtlContext& ctx, const DeviceCall& call, const CoverAnswer& answer)
{
    const std::string& file = call.args.operands[1];
    if (ctx.json)
        print_json(ctx.out, Json{{"folder", call.args.operands[0]},
                                 {"file", file},
                                 {"status", answer.status},
                                 {"path", answer.path}});
    else
        fprintf(ctx.out, "cover of %s: %s (status %u%s)\n", printable(file).c_str(), printable(answer.path).c_str(),
                answer.status, answer.status == 0 ? "" : ", failed");
    return answer.status == 0 ? kExitOk : kExitNo;
}

}  // namespace

int run_cover(const CtlContext& ctx, const DeviceArgs& args)
{
    DeviceCall call{"cover", "STORAGE_EXTRACT_COVER", {}, "no cover answer will come"};
    device_args(ctx, &call, args, kQueryTimeoutSeconds);
    for (const std::string& text : call.args.operands) {
        if (text.size() > kServiceTextMax)
            return usage_error(ctx, "cover: '" + text + "' is too long: the service takes at most " +
                                        std::to_string(kServiceTextMax) + " bytes");
    }
    CoverAnswer answer;
    const std::string file = call.args.operands[1];
    auto take = [&answer, &file](const CtlEvent& e) {
        CoverAnswer got;
        if (parse_cover(e.data.data(), e.data.size(), &got) == 0 || !names_file(got.path, file))
            return EventStep::kMore;
        answer = got;
        return EventStep::kDone;
    };
    EventQuery query;
    std::string error;
    if (device_query(call, call.args.operands, {LUM_TV_EVT_STORAGE_EXTRACT_COVER}, take, &query, &error) != 0)
        return usage_error(ctx, error);
    int rc = device_run(ctx, call, query, [] { return std::string("the cover answer"); });
    return rc != kExitOk ? rc : print_cover(device_context(ctx, call), call, answer);
}

}  // namespace lumctl
