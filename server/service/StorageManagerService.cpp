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
    bool needsRecord;  // the handler reads the hub's record
};

// The operation of each signal. A signal that has no row here is unknown to
// the service and only logged.
const SignalRow kSignalRows[] = {
    {SIG_ID_STORAGE_PLUG_OUT, handle_plug_out, false},
    {SIG_ID_STORAGE_PLUG_IN, handle_plug_in, false},
    {SIG_ID_STORAGE_GET_ALLOCATE_BYTES, handle_get_allocate_bytes, true},
    {SIG_ID_STORAGE_GET_VOLUME, handle_get_volume, true},
    {SIG_ID_STORAGE_GET_VOLUMES, handle_get_volumes, false},
    {SIG_ID_STORAGE_GET_UUID_FOR_PATH, handle_get_uuid_for_path, true},
    {SIG_ID_STORAGE_MOUNT, handle_mount, true},
    {SIG_ID_STORAGE_UNMOUNT, handle_unmount, true},
    {SIG_ID_STORAGE_FORMAT, handle_format, true},
    {SIG_ID_STORAGE_FORMAT_TIMEOUT, handle_format_timeout, false},
    {SIG_ID_STORAGE_SET_ALL_PARTITION, handle_set_all_partition, true},
    {SIG_ID_STORAGE_BENCHMARK, handle_benchmark, true},
    {SIG_ID_STORAGE_CANCEL_BENCHMARK, handle_cancel_benchmark, false},
    {SIG_ID_STORAGE_BENCHMARK_PROGRESS, handle_benchmark_progress, false},
    {SIG_ID_STORAGE_HDD_GET_SIZE, handle_hdd_get_size, true},
    {SIG_ID_STORAGE_GET_PARTITION_USE, handle_get_partition_use, true},
    {SIG_ID_STORAGE_PVR_MARK_DEV, handle_pvr_mark_dev, true},
    {SIG_ID_STORAGE_START_HDD, handle_start_hdd, false},
    {SIG_ID_STORAGE_SHUTDOWN, handle_shutdown, false},
    {SIG_ID_STORAGE_READ_DIRS, handle_read_dirs, true},
    {SIG_ID_STORAGE_EXTRACT_COVER, handle_extract_cover, true},
    {SIG_ID_STORAGE_COPY, handle_copy, true},
    {SIG_ID_STORAGE_GET_DIR_SIZE, handle_get_dir_size, true},
    {SIG_ID_STORAGE_SET_PROTECTED, handle_set_protected, true},
};

const SignalRow* find_row(unsigned long signal)
{
    for (const SignalRow& row : kSignalRows) {
        if (row.signal == signal)
            return &row;
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
      m_PvrDevState(false),
      m_DeviceCnt(0),
      m_ConnectedDevice(),
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

    ClearMountPath();

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
    const SignalRow* row = find_row(signal);
    if (row == nullptr)
        SLOGE("[%s, %d] No this Message!\n");
    else if (row->needsRecord && action == nullptr)
        SLOGE("[%s, %d] ***E: signal %lu came without its record\n", signal);
    else
        row->handler(*this, msg, action);
    // Handlers copy what they keep of the record: it goes here, exactly once.
    msg->FreeSignal();
}

void StorageManagerService::NotifyToStorageManager(LUM_EM_TYPE_E event, void* data, int len)
{
    EMAL_Notify(event, data, len);
}
