// pvr guide: the guide record of the direct query, in words or as JSON.
#include <cstring>
#include <memory>

#include "ctl_pvr.h"
#include "lumctl/guide_text.h"

namespace lumctl {

int run_pvr_guide(const CtlContext& ctx, const DeviceArgs& args)
{
    DeviceCall call{"pvr guide", "STORAGE_PVR_GET_DEV_GUIDE_INFO", {}};
    device_args(ctx, &call, args, kQueryTimeoutSeconds);
    CtlReply reply;
    int rc = direct_run(ctx, call, {}, &reply);
    if (rc != kExitOk)
        return rc;
    // int32 result, then the record's bytes.
    ReplyParcel in(reply);
    int32_t result = 0;
    if (in.parcel.readInt32(&result) != android::OK)
        return protocol_error(ctx, "pvr guide: empty reply");
    if (result != 0)
        return protocol_error(ctx, "pvr guide: the service answered result " + std::to_string(result));
    const void* bytes = in.parcel.readInplace(sizeof(SStoragePvrDevGuideInfo));
    if (bytes == nullptr)
        return protocol_error(ctx, "pvr guide: the record is shorter than " +
                                       std::to_string(sizeof(SStoragePvrDevGuideInfo)) + " bytes");
    // 63000 bytes: on the heap, not the stack.
    std::unique_ptr<SStoragePvrDevGuideInfo> guide(new SStoragePvrDevGuideInfo);
    memcpy(guide.get(), bytes, sizeof(*guide));
    CtlContext local = device_context(ctx, call);
    if (local.json)
        print_json(local.out, guide_json(*guide));
    else
        fputs(guide_text(*guide).c_str(), local.out);
    return kExitOk;
}

}  // namespace lumctl
