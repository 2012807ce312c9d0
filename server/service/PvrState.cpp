// The PVR state that direct queries read while runs on other threads write it.
#include "CmdCalls.h"
#include "StorageManagerService.h"

bool StorageManagerService::GetPvrDevState()
{
    std::lock_guard<std::mutex> hold(m_DevTableLock);
    return m_PvrDevState;
}

void cmd_pvr_dev_state(const android::Parcel&, android::Parcel* reply)
{
    reply->writeBool(theStorageManagerService.GetPvrDevState());
}
