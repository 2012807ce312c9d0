// Checks of request arguments shared by the direct rows of the hub.
#include "CmdCalls.h"
#include "ServiceLog.h"

#define HLOGW(fmt, ...) SLOG_TAG(ANDROID_LOG_WARN, STORAGE_TAG_HUB, fmt, ##__VA_ARGS__)

void warn_missing_text(int cmd)
{
    HLOGW("[%s, %d] ***W: cmd %d: a text is missing\n", cmd);
}

bool raw_bytes_arrived(const android::Parcel& request, int cmd, int32_t count)
{
    size_t padded = (static_cast<size_t>(count) + 3) & ~static_cast<size_t>(3);
    if (count >= 0 && padded <= request.dataAvail())
        return true;
    HLOGW("[%s, %d] ***W: cmd %d: %d raw bytes announced, %zu arrived\n", cmd, count, request.dataAvail());
    return false;
}
