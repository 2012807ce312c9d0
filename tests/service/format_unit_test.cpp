// Formatting: the busy flag, the watchdog, and the replies to refused names. Payloads are written out by
// hand; the format record is in the host's order, which these vectors take to be little-endian.
#include <norvfw/NorvMsgQueue.h>
#include <norvfw/TimeOut.h>

#include "Format.h"
#include "SignalNo.h"
#include "fake_tools.h"
#include "test_support.h"

namespace {
// The 36 bytes of a format record: the name, zeros up to offset 32, and the result's four bytes as given.
Bytes format_record(const char* name, Bytes result)
{
    Bytes out(name, name + strlen(name));
    out.resize(32, 0);
    out.insert(out.end(), result.begin(), result.end());
    return out;
}

const Bytes kOk = {0x00, 0x00, 0x00, 0x00};
const Bytes kFailed = {0xff, 0xff, 0xff, 0xff};
const Bytes kBusy = {0xfe, 0xff, 0xff, 0xff};
const Bytes kTimeout = {0xfd, 0xff, 0xff, 0xff};

bool little_endian_host()
{
    const uint32_t one = 1;
    unsigned char first;
    memcpy(&first, &one, 1);
    return first == 1;
}

StorageManagerService& service() { return theStorageManagerService; }

// Leaves no format behind for the next test.
void end_simulated_format(const std::string& volume)
{
    format_release(service(), volume);
    EXPECT_EQ(format_running_volume(service()), "");
}

}  // namespace

TEST(FormatReply, HandBuiltSuccessAndFailureBytes)
{
    unsigned char buf[64];
    memset(buf, 0xaa, sizeof(buf));
    // 0, "/dev/sdb1" with NUL (n = 10), 0x01020304 MB, three zero words; not past 17 + n.
    const Bytes success = {0x00, '/', 'd', 'e', 'v', '/', 's', 'd', 'b', '1', 0x00, 0x01, 0x02, 0x03,
                           0x04, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0xaa};
    ASSERT_EQ(build_set_all_partition_reply(buf, sizeof(buf), 0, "/dev/sdb1", 0x01020304), 27u);
    EXPECT_EQ(Bytes(buf, buf + 28), success);
    // Failures carry no sizes: 1 + n.
    size_t len = build_set_all_partition_reply(buf, sizeof(buf), 5, "/dev/sdc", 7631);
    EXPECT_EQ(Bytes(buf, buf + len), (Bytes{0x05, '/', 'd', 'e', 'v', '/', 's', 'd', 'c', 0x00}));
    EXPECT_EQ(build_set_all_partition_reply(buf, 26, 0, "/dev/sdb1", 1), 0u) << "does not fit";
}

TEST(FormatStart, BusyAnswerNamesTheRefusedVolumeAndChangesNothing)
{
    if (!little_endian_host())
        GTEST_SKIP() << "vectors are little-endian";
    REQUIRE_ISOLATION();
    ensure_service_queue();
    std::string running;
    ASSERT_TRUE(format_claim(service(), "/dev/sdq1", &running));
    EXPECT_TRUE(service().TosvFormat.IsRunning());
    // Stopped here so that a re-arming by the refused request would show.
    service().TosvFormat.StopTimer();
    EventCapture events;
    dispatch(SIG_ID_STORAGE_FORMAT, "/dev/sdz9");
    // A name longer than the record's field is cut to 29 characters.
    dispatch(SIG_ID_STORAGE_FORMAT, "/dev/disk/by-id/usb-SanDisk_Cruzer_Blade");
    auto got = events.events();
    ASSERT_EQ(got.size(), 2u);
    const Bytes busy = {'/', 'd', 'e', 'v', '/', 's', 'd', 'z', '9', 0, 0, 0, 0, 0, 0, 0, 0, 0,
                        0,   0,   0,   0,   0,   0,   0,   0,   0,   0, 0, 0, 0, 0, 0xfe, 0xff, 0xff, 0xff};
    EXPECT_EQ(got[0].id, LUM_TV_EVT_STORAGE_FORMAT);
    EXPECT_EQ(got[0].data, busy);
    EXPECT_EQ(got[1].data, format_record("/dev/disk/by-id/usb-SanDisk_C", kBusy));
    EXPECT_FALSE(service().TosvFormat.IsRunning()) << "a refused request re-armed the watchdog";
    EXPECT_EQ(format_threads_alive(), 0);
    // A thread started for another name (an empty request's) leaves the running format alone.
    format_release(service(), "");
    EXPECT_EQ(format_running_volume(service()), "/dev/sdq1");
    end_simulated_format("/dev/sdq1");
}

TEST(FormatWatchdog, OnlyALiveExpiryReportsAndItNamesTheRunningVolume)
{
    if (!little_endian_host())
        GTEST_SKIP() << "vectors are little-endian";
    REQUIRE_ISOLATION();
    ensure_service_queue();
    ensure_timer_thread();
    CNorvMsgQueue expiries;
    ASSERT_EQ(expiries.Create("/MQ_FORMAT_WATCHDOG_TEST", 4), 0);
    std::string running;
    ASSERT_TRUE(format_claim(service(), "/dev/sdq1", &running));
    EventCapture events;
    LogCapture log;
    CNorvMsg forged(SIG_ID_STORAGE_FORMAT_TIMEOUT);
    service().ProcessNorvMsg(&forged);
    EXPECT_TRUE(events.events().empty());
    // The live expiry of the current arming: -3 for the running volume.
    ASSERT_EQ(service().TosvFormat.StartTimer(1, SIG_ID_STORAGE_FORMAT_TIMEOUT, expiries.GetHandle(), 0), 0);
    CNorvMsg live;
    ASSERT_EQ(expiries.Receive(&live), 0);
    EXPECT_EQ(live.GetSignalName(), static_cast<unsigned long>(SIG_ID_STORAGE_FORMAT_TIMEOUT));
    service().ProcessNorvMsg(&live);
    auto got = events.events();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].id, LUM_TV_EVT_STORAGE_FORMAT);
    EXPECT_EQ(got[0].data, format_record("/dev/sdq1", kTimeout));
    EXPECT_TRUE(log.has("SIG_ID_STORAGE_FORMAT_TIMEOUT: /dev/sdq1\n"));
    // The format goes on: still busy for the next request.
    EXPECT_EQ(format_running_volume(service()), "/dev/sdq1");
    dispatch(SIG_ID_STORAGE_FORMAT, "/dev/sdr1");
    got = events.events();
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[1].data, format_record("/dev/sdr1", kBusy));
    // An expiry that the end of the format made stale says nothing.
    ASSERT_EQ(service().TosvFormat.StartTimer(1, SIG_ID_STORAGE_FORMAT_TIMEOUT, expiries.GetHandle(), 0), 0);
    CNorvMsg stale;
    ASSERT_EQ(expiries.Receive(&stale), 0);
    end_simulated_format("/dev/sdq1");
    service().ProcessNorvMsg(&stale);
    EXPECT_EQ(events.events().size(), 2u);
    expiries.Destroy();
}

TEST(Format, NameOfThirtyCharactersIsRefusedWithoutAnEvent)
{
    EventCapture events;
    EXPECT_FALSE(service().Format(std::string(30, 'a')));
    EXPECT_FALSE(service().Format("/dev/disk/by-id/usb-0781-5567-0:0"));
    EXPECT_TRUE(events.events().empty());
}

// Refused names, with the fake tools in place so that a refusal that lets a name through runs nothing real.
TEST_F(FakeTools, FormatOfNamesThatAreNoPlainPathRunsNoToolAndFailsAsATool)
{
    if (!little_endian_host())
        GTEST_SKIP() << "vectors are little-endian";
    write_fake_volume_tools();
    EventCapture events;
    // 29 characters: the longest name Format takes.
    const char* hostile = "/dev/sdb1;touch /tmp/pwned;#x";
    ASSERT_EQ(strlen(hostile), 29u);
    EXPECT_TRUE(service().Format(hostile));
    auto got = events.events();
    ASSERT_EQ(got.size(), 2u) << "nothing was to be taken off-line";
    EXPECT_EQ(got[0].id, LUM_TV_EVT_STORAGE_SET_ALL_PARTITION);
    Bytes reply = {5};
    reply.insert(reply.end(), hostile, hostile + 30);
    EXPECT_EQ(got[0].data, reply);
    EXPECT_EQ(got[1].id, LUM_TV_EVT_STORAGE_FORMAT);
    EXPECT_EQ(got[1].data, format_record(hostile, kFailed));
    EXPECT_NE(access("/tmp/pwned", F_OK), 0);
    // Format's size query is all that runs.
    EXPECT_EQ(calls(), "/tmp/fakebin/df -Pm\n") << "a tool ran";
    // Straight from the command, without Format's length limit.
    EventCapture direct;
    EXPECT_FALSE(service().SetAllPartitions(reinterpret_cast<const unsigned char*>("/dev/sd b"), 0));
    ASSERT_EQ(direct.events().size(), 1u);
    EXPECT_EQ(direct.events()[0].data, (Bytes{5, '/', 'd', 'e', 'v', '/', 's', 'd', ' ', 'b', 0}));
    EXPECT_FALSE(service().SetAllPartitions(nullptr, 0));
    EXPECT_EQ(direct.events().size(), 1u);
}

