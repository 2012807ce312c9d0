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

void dispatch(unsigned long signal, StorageManagerAction_t* record)
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
        dispatch(signal, new_record());
        EXPECT_EQ(log.count("No this Message!"), 1) << signal;
        EXPECT_EQ(NorvMsgFreedPayloads(), freed + 1) << signal;
    }
    LogCapture log;
    dispatch(578, nullptr);  // no payload: nothing to release, still logged
    EXPECT_TRUE(log.has("No this Message!"));
}

TEST(Dispatch, HddPowerStates)
{
    struct Case {
        HddState before;
        unsigned long signal;
        unsigned char arg;
        HddState after;
    };
    const Case cases[] = {
        {HddUnknown, SIG_ID_STORAGE_START_HDD, 0, HddNoHdd},
        {HddOff, SIG_ID_STORAGE_START_HDD, 0, HddNoHdd},
        {HddStopping, SIG_ID_STORAGE_START_HDD, 0, HddNoHdd},
        {HddNoHdd, SIG_ID_STORAGE_START_HDD, 0, HddNoHdd},
        {HddStarting, SIG_ID_STORAGE_START_HDD, 0, HddStarting},
        {HddRunning, SIG_ID_STORAGE_START_HDD, 0, HddRunning},
        {HddRunning, SIG_ID_STORAGE_SHUTDOWN, 1, HddOff},
        {HddNoHdd, SIG_ID_STORAGE_SHUTDOWN, 1, HddOff},
        {HddRunning, SIG_ID_STORAGE_SHUTDOWN, 0, HddRunning},
        {HddUnknown, SIG_ID_STORAGE_SHUTDOWN, 2, HddUnknown},
    };
    for (const Case& c : cases) {
        theStorageManagerService.m_hddState = c.before;
        StorageManagerAction_t* record = new_record();
        record->buf1[0] = c.arg;
        LogCapture log;
        dispatch(c.signal, record);
        EXPECT_EQ(theStorageManagerService.m_hddState.load(), c.after)
            << "from " << c.before << " by " << c.signal << " arg " << int(c.arg);
        if (c.signal == SIG_ID_STORAGE_START_HDD) {
            EXPECT_TRUE(log.has("<FS> : power up HDD (state=" + std::to_string(c.before) + ")"));
        }
    }
}

TEST(Notify, HandsEventAndBytesThroughUnchanged)
{
    EventCapture events;
    unsigned char payload[5] = {1, 2, 3, 0, 0xff};
    theStorageManagerService.NotifyToStorageManager(LUM_TV_EVT_STORAGE_FORMAT, payload, 5);
    theStorageManagerService.NotifyToStorageManager(LUM_TV_EVT_STORAGE_DEV_MOUNT_END, nullptr, 0);
    auto got = events.events();
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0].id, 1507359);
    EXPECT_EQ(got[0].data, std::vector<unsigned char>(payload, payload + 5));
    EXPECT_EQ(got[1].id, 1507365);
    EXPECT_TRUE(got[1].data.empty());
}

TEST(SignalNames, BoundsAndStorageBlock)
{
    EXPECT_STREQ(GetSignalIdNamePtr(static_cast<SignalIds>(0)), "SIG_ID_NULL");
    EXPECT_STREQ(GetSignalIdNamePtr(SIG_ID_STORAGE_SHUTDOWN), "SIG_ID_STORAGE_SHUTDOWN");
    EXPECT_STREQ(GetSignalIdNamePtr(static_cast<SignalIds>(623)), "SIG_ID_NULL");
    EXPECT_STREQ(GetSignalIdNamePtr(static_cast<SignalIds>(-1)), "SIG_ID_NULL");
    EXPECT_STREQ(GetSignalIdNamePtr(static_cast<SignalIds>(577)), "SIG_ID_FILESYS_CHECK_MASS_STORAGE_TOSV");
    EXPECT_STREQ(GetSignalIdNamePtr(static_cast<SignalIds>(591)), "SIG_ID_STORAGE_FORMAT");
    EXPECT_STREQ(GetSignalIdNamePtr(static_cast<SignalIds>(614)), "SIG_ID_STORAGE_BENCHMARK_PROGRESS");
    EXPECT_STREQ(GetSignalIdNamePtr(static_cast<SignalIds>(576)), "SIG_ID_GENERAL_SPARE_9");
}

// The framework takes the trace table's size in bytes and divides it by the
// size of a pointer: 288 on the television's 32-bit ARM, 576 on x86-64.
TEST(TraceUnits, SeventyTwoNamesWhoseByteSizeFollowsThePointerSize)
{
    EXPECT_EQ(*traceUnitsStringArraySizePtr, sizeof(void*) == 4 ? 288 : 576);
    EXPECT_STREQ(traceUnitsStringArray[65], "TRACE_MAX_NR_OF_GENERAL_TRACE_UNITS");
    EXPECT_STREQ(traceUnitsStringArray[71], "TRACE_MAX_NR_OF_TRACE_UNITS");
}
