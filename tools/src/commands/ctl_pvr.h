// The words of pvr: each one's runner.
#pragma once

#include <binder/Parcel.h>

#include "ctl_device.h"
#include "lumctl/device_decoders.h"

namespace lumctl {

int run_pvr_mark(const CtlContext& ctx, const DeviceArgs& args);
int run_pvr_guide(const CtlContext& ctx, const DeviceArgs& args);
int run_pvr_limit(const CtlContext& ctx, const DeviceArgs& args);

// The reply's Parcel, to be read from its start.
struct ReplyParcel {
    android::Parcel parcel;
    explicit ReplyParcel(const CtlReply& reply)
    {
        if (!reply.bytes.empty())
            parcel.setData(reply.bytes.data(), reply.bytes.size());
    }
};

}  // namespace lumctl
