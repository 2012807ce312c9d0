#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include <norvfw/testing.h>

#include "SignalNo.h"
#include "StorageManagerService.h"
#include "TraceUnits.h"
#include "test_support.h"

namespace {

StorageManagerAction_t* new_record()
{
    return static_cast<StorageManagerAction_t*>(calloc(1, sizeof(StorageManagerAction_t)));
}

void dispatch_record(unsigned long signal, StorageManagerAction_t* record)
{
    CNorvMsg msg(signal);
    if (record != nullptr)
        msg.SetSignalPtr(record, sizeof(*record));
    theStorageManagerService.ProcessNorvMsg(&msg);
}

}  // namespace

TEST(Dispatch, UnknownSignalsAreLoggedAndTheirPayloadReleased)
{
    for (unsigned long signal : {0ul, 578ul, 582ul, 604ul, 617ul, 623ul, 100000ul}) {
        LogCapture log;
        unsigned long freed = NorvMsgFreedPayloads();
        dispatch_record(signal, new_record());
        EXPECT_EQ(log.count("No this Message!"), 1) << signal;
        EXPECT_EQ(NorvMsgFreedPayloads(), freed + 1) << signal;
    }
    LogCapture log;
    dispatch_record(578, nullptr);  // no payload: nothing to release, still logged
    EXPECT_TRUE(log.has("No this Message!"));
}

// The framework takes the trace table's size in bytes and divides it by the
// size of a pointer: 288 on the television's 32-bit ARM, 576 on x86-64.
TEST(TraceUnits, SeventyTwoNamesWhoseByteSizeFollowsThePointerSize)
{
    EXPECT_EQ(*traceUnitsStringArraySizePtr, sizeof(void*) == 4 ? 288 : 576);
    EXPECT_STREQ(traceUnitsStringArray[65], "TRACE_MAX_NR_OF_GENERAL_TRACE_UNITS");
    EXPECT_STREQ(traceUnitsStringArray[71], "TRACE_MAX_NR_OF_TRACE_UNITS");
}
