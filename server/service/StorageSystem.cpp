// Start-up of the storage service: trace, debug shell, timer thread and the
// service itself, in this order.
#include "StorageSystem.h"

#include <atomic>

#include <norvfw/Nshell.h>
#include <norvfw/NorvMsgQueue.h>
#include <norvfw/TimeOut.h>
#include <norvfw/Trace.h>

#include "ServiceLog.h"
#include "StorageManagerService.h"
#include "TraceUnits.h"

// Built when the library is loaded, in this order; no thread runs before
// StorageSystemInit.
StorageManagerService theStorageManagerService;
CTimeTrace tvSystemTimeTrace(0, 20);

namespace {

struct TraceUnitLevel {
    unsigned int unit;
    T_TraceLevel level;
};

// Unit levels set at start, in this order, after all units were opened up.
const TraceUnitLevel kTraceLevels[] = {
    {TRACE_FILESYSTEM_DRV, TRACELEVEL_DEBUG},
    {TRACE_OBSERVE, TRACELEVEL_ERROR},
    {TRACE_NORVMSG, TRACELEVEL_ERROR},
    {TRACE_NORVMSGQUEUE, TRACELEVEL_ERROR},
    {TRACE_THREADOBJ, TRACELEVEL_ERROR},
    {69, TRACELEVEL_ERROR},
    {TRACE_TOWQUEUE, TRACELEVEL_ERROR},
    {66, TRACELEVEL_ERROR},
    {TRACE_RPCMSGDEST, TRACELEVEL_ERROR},
    {TRACE_RPCMSGSRC, TRACELEVEL_ERROR},
    {TRACE_TOSV, TRACELEVEL_ERROR},
    {TRACE_RTC_APP, TRACELEVEL_ERROR},
    {TRACE_PICTCTRL_EPGSC, TRACELEVEL_WARNING},
};

void setup_trace()
{
    norvTrace.Init("<StorageSrv>", 128);
    norvTrace.StartTracingToScreen();
    FormattedStringToStdout("\n+-+-+-+-+-+-+-+-+-+-++++");
    FormattedStringToStdout("\n+-+  STORAGE SERVER  +-+");
    FormattedStringToStdout("\n+-+-+-+-+-+-+-+-+-+-++++\n");
    norvTrace.SetTraceOnAll(TRACELEVEL_ALL);
    for (const TraceUnitLevel& row : kTraceLevels)
        norvTrace.SetTraceOn(row.unit, row.level);
    norvTrace.PrintTimestamp();
    norvTrace.SetTraceModeDirectPrint(1);
}

void trace_init_error(const char* what, int line, int rc)
{
    TraceFormattedString(TRACE_TVSYSTEM, TRACELEVEL_ERROR,
                         "TvSystemApp:: Error during init: %s <line %d> returns %d \n", what, line, rc);
}

std::atomic<bool> g_started(false);

}  // namespace

extern "C" int StorageSystemInit(void)
{
    // The queue name is system-wide and the threads run for the life of the
    // process: a second start would only fight the first.
    if (g_started.exchange(true)) {
        SLOGW("[%s, %d] ***W: the storage service runs already\n");
        return 0;
    }
    setup_trace();
    NorvAppInit();
    nshell.Init("storage_svr");
    tvSystemTimeTrace.TTPoint(1, "nshell.Init()");
    nshell.AddNshellInternalNshellCmds();
    nshell.StartThread("norv_nshell", 0, 0);
    tvSystemTimeTrace.TTPoint(2, "nshell.StartThread()");
    InitNorvMsgQueueNshell();
    tvSystemTimeTrace.TTPoint(3, "InitNorvMsgQueueNshell()");
    InitThreadObjectNshell();
    tvSystemTimeTrace.TTPoint(4, "InitThreadObjectNshell()");

    int rc = TimeOutServer::instance().StartThread("timeout_server", 0, 0);
    if (rc < 0)
        trace_init_error("TimeOutServer::instance().StartThread(\"timeout_server\")", __LINE__, rc);
    tvSystemTimeTrace.TTPoint(5, "TimeOutServer::instance().StartThread()");

    rc = theStorageManagerService.Init();
    if (rc < 0)
        trace_init_error("theStorageManagerService.Init()", __LINE__, rc);
    tvSystemTimeTrace.TTPoint(6, "theStorageManagerService.Init()");

    TraceFormattedString(TRACE_FILESYSTEM_DRV, TRACELEVEL_INFO, "[%s,%d] leave ok\n", __func__, __LINE__);
    return 0;
}
