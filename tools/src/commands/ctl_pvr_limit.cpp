// pvr limit [MB]: reads the size limit of the automatic PVR choice, or sets
// it and reads it back. The set request has no answer: the service ignores
// a value below its minimum, the value it holds, and any value while neither
// recording nor timeshift is on, so only the read-back tells what happened.
#include <cerrno>
#include <cstdlib>

#include "ctl_pvr.h"
#include "lumctl/volume_table.h"

namespace lumctl {

namespace {

// The smallest limit the service takes.
constexpr uint32_t kLimitMinimumMb = 1800;

int read_limit(const CtlContext& ctx, const DeviceArgs& args, uint32_t* mb)
{
    DeviceCall call{"pvr limit", "STORAGE_GET_PVR_DEV_SIZE_LIMIT", args};
    CtlReply reply;
    int rc = direct_run(ctx, call, {}, &reply);
    if (rc != kExitOk)
        return rc;
    int32_t value = 0;
    if (ReplyParcel(reply).parcel.readInt32(&value) != android::OK)
        return protocol_error(ctx, "pvr limit: empty reply");
    *mb = static_cast<uint32_t>(value);
    return kExitOk;
}

// Decimal megabytes 0..4294967295; false for anything else.
bool parse_mb(const std::string& text, uint32_t* mb)
{
    if (text.empty() || text.size() > 10 || text.find_first_not_of("0123456789") != std::string::npos)
        return false;
    errno = 0;
    unsigned long long v = strtoull(text.c_str(), nullptr, 10);
    if (errno != 0 || v > UINT32_MAX)
        return false;
    *mb = static_cast<uint32_t>(v);
    return true;
}

std::string ignored_because(uint32_t asked)
{
    if (asked < kLimitMinimumMb)
        return "below the minimum of " + std::to_string(kLimitMinimumMb) + " MB";
    return "the service takes a new limit only while recording or timeshift is on";
}

// "4.0G (4096 MB)"; 0 switches the automatic choice off.
std::string limit_text(uint32_t mb)
{
    return mb == 0 ? "0 MB (no automatic choice)" : human_mb(mb) + " (" + std::to_string(mb) + " MB)";
}

// The outcome of a set: taken, already held, or ignored (exit kExitNo).
int report_set(const CtlContext& ctx, uint32_t before, uint32_t asked, uint32_t after)
{
    Json json = {{"limitMB", after}, {"previousMB", before}, {"requestedMB", asked}, {"changed", after != before}};
    std::string text = "PVR size limit: " + limit_text(after);
    if (after == asked)
        text += after == before ? ", unchanged: it was set already" : ", was " + limit_text(before);
    else
        text += ", unchanged: " + std::to_string(asked) + " MB ignored, " + ignored_because(asked);
    if (after != asked)
        json["ignored"] = ignored_because(asked);
    print_line(ctx, text, json);
    return after == asked ? kExitOk : kExitNo;
}

}  // namespace

int run_pvr_limit(const CtlContext& ctx, const DeviceArgs& args)
{
    DeviceCall call{"pvr limit", "STORAGE_SET_PVR_DEV_SIZE_LIMIT", {}};
    device_args(ctx, &call, args, kQueryTimeoutSeconds);
    int rc = kExitOk;
    uint32_t asked = 0;
    if (!call.args.operands.empty() && !parse_mb(call.args.operands[0], &asked))
        return usage_error(ctx, "pvr limit: MB is a whole number of megabytes, not '" + call.args.operands[0] + "'");
    CtlContext local = device_context(ctx, call);
    uint32_t before = 0;
    if ((rc = read_limit(ctx, call.args, &before)) != kExitOk)
        return rc;
    if (call.args.operands.empty()) {
        std::string text = "PVR size limit: " + limit_text(before);
        print_line(local, text, Json{{"limitMB", before}});
        return kExitOk;
    }
    CtlReply reply;
    if ((rc = direct_run(ctx, call, {std::to_string(asked)}, &reply)) != kExitOk)
        return rc;
    uint32_t after = 0;
    if ((rc = read_limit(ctx, call.args, &after)) != kExitOk)
        return rc;
    return report_set(local, before, asked, after);
}

}  // namespace lumctl
