// The HDD power state. Only the two signals below change it, and nothing but
// the log line reads it: a disk spun up or down by the platform is not
// followed here.
#include "ServiceHandlers.h"
#include "ServiceLog.h"

void handle_start_hdd(StorageManagerService& service, CNorvMsg*, StorageManagerAction_t*)
{
    HddState state = service.m_hddState.load();
    SLOGD("[%s, %d] <FS> : power up HDD (state=%d)\n", static_cast<int>(state));
    if (state == HddUnknown || state == HddOff || state == HddStopping)
        service.m_hddState = HddNoHdd;
}

void handle_shutdown(StorageManagerService& service, CNorvMsg*, StorageManagerAction_t* action)
{
    if (action != nullptr && action->buf1[0] == 1)
        service.m_hddState = HddOff;
}
