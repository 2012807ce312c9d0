#include "StorageManagerService.h"

#include <cstdlib>
#include <ctime>

#include <lumemclient/EMALClient.h>
#include <norvfw/RTC.h>

#include "ServiceHandlers.h"
#include "ServiceLog.h"
#include "SignalNo.h"

namespace {

struct SignalRow {
    unsigned long signal;
    signal_handler_t handler;
};

// The operation of each signal. A signal that has no row here is unknown to
// the service and only logged.
const SignalRow kSignalRows[] = {
    {SIG_ID_STORAGE_START_HDD, handle_start_hdd},
    {SIG_ID_STORAGE_SHUTDOWN, handle_shutdown},
};

signal_handler_t find_handler(unsigned long signal)
{
    for (const SignalRow& row : kSignalRows) {
        if (row.signal == signal)
            return row.handler;
    }
    return nullptr;
}

}  // namespace

StorageManagerService::StorageManagerService()
    : m_SendBuf(),
      m_DevTabBufLen(0),
      m_DevTabBuf(),
      TosvBenchmarkProgress(0.0, 0, 0, 0),
      TosvFormat(0.0, 0, 0, 0),
      m_DeviceCnt(0),
      m_hddState(HddUnknown)
{
}

StorageManagerService::~StorageManagerService() = default;

int StorageManagerService::Init()
{
    SLOGI("[%s, %d] --- StorageManagerService init. ---\n");
    srand(static_cast<unsigned>(time(nullptr)));
    theRTC.SetDateTimeFound(true);

    if (CThreadObjectWithQueue::Init(STORAGE_SERVICE_QUEUE_NAME, MAX_STORAGE_QUEUE_SIZE, 0, false) != 0)
        SLOGE("[%s, %d] ERROR: UsbDevDriver.Init() of the queue failed!");
    else
        SLOGD("[%s, %d] > StorageManagerService start!\n");

    int rc = StartThread("STORAGE_SRV", 0, 0);
    if (rc < 0)
        SLOGE("[%s, %d] StartThread STORAGE_SRV failed!\n");

    // The watcher may post a plug-in for disks that are already there as soon
    // as it runs, so its observer queue is registered first.
    m_HotPlug.RegisterCallbackQueue(GetQueueHandle(), 0, 0, 0);
    m_HotPlug.StartThread("CHotPlug", 0, 0);
    return rc;
}

void StorageManagerService::ProcessNorvMsg(CNorvMsg* msg)
{
    if (msg == nullptr)
        return;
    unsigned long signal = msg->GetSignalName();
    auto* action = static_cast<StorageManagerAction_t*>(msg->GetSignalPtr());
    signal_handler_t handler = find_handler(signal);
    if (handler != nullptr)
        handler(*this, msg, action);
    else
        SLOGE("[%s, %d] No this Message!\n");
    // Handlers copy what they keep of the record: it goes here, exactly once.
    msg->FreeSignal();
}

void StorageManagerService::NotifyToStorageManager(LUM_EM_TYPE_E event, void* data, int len)
{
    EMAL_Notify(event, data, len);
}
