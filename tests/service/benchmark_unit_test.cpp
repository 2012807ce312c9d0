// Disk benchmark: progress stages, the figure read off the tool's output, and runs against a fake iozone that can be
// held. Ticks are live expiries of the benchmark's timer taken from the test's queue. Payloads written out by hand.
#include <cstdio>
#include <thread>

#include <norvfw/NorvMsgQueue.h>
#include <norvfw/TimeOut.h>

#include "Benchmark.h"
#include "SignalNo.h"
#include "fake_tools.h"
#include "test_support.h"

namespace {
StorageManagerService& service() { return theStorageManagerService; }

// A sample of the tool's output with two processes; the mixed workload's average per process is 904493.94.
const char kOutput[] =
    "\tIozone: Performance Test of File I/O\n"
    "\tRun began: Mon Nov 23 16:55:23 2026\n\n"
    "\tThroughput test with 2 processes\n"
    "\tChildren see throughput for  2 initial writers \t=  362615.06 kB/sec\n"
    "\tAvg throughput per process \t\t\t=  181307.53 kB/sec\n\n"
    "\tChildren see throughput for 2 mixed workload \t= 1808987.88 kB/sec\n"
    "\tMin throughput per process \t\t\t=       0.00 kB/sec \n"
    "\tAvg throughput per process \t\t\t=  904493.94 kB/sec\n"
    "\tMin xfer \t\t\t\t\t=       0.00 kB\n\n\n\n"
    "iozone test complete.\n";

const Bytes kMid1 = {8, 1, 0, 0, 0, 0, 0, 0, 0, 0};
const Bytes kMid50 = {8, 50, 0, 0, 0, 0, 0, 0, 0, 0};  // status 8: running
const Bytes kMid75 = {8, 75, 0, 0, 0, 0, 0, 0, 0, 0};
const Bytes kMid100 = {8, 100, 0, 0, 0, 0, 0, 0, 0, 0};
// 904493 = 0x000dcd2d, two processes.
const Bytes kFinal904493 = {0, 100, 0x00, 0x0d, 0xcd, 0x2d, 0, 0, 0, 2};
const Bytes kCancelled = {1, 100, 0, 0, 0, 0, 0, 0, 0, 3};
const Bytes kRefused = {1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};

bool ends_run(const Bytes& payload) { return !payload.empty() && payload[0] != 8; }

// Only this test's fakes count: the machine may run a real iozone meanwhile.
bool iozone_process_left() { return system("pgrep -f '^/bin/sh /tmp/fakebin/iozone' > /dev/null") == 0; }

}  // namespace

TEST(BenchmarkEvent, BufferBounds)
{
    unsigned char buf[16];
    memset(buf, 0xaa, sizeof(buf));
    ASSERT_EQ(build_benchmark_event(buf, 10, 8, 50, 0, 0, false), 10u);
    EXPECT_EQ(Bytes(buf, buf + 11), (Bytes{8, 50, 0, 0, 0, 0, 0, 0, 0, 0, 0xaa}));
    EXPECT_EQ(build_benchmark_event(buf, 9, 8, 1, 0, 0, false), 0u);
    EXPECT_EQ(build_benchmark_event(buf, 12, 1, 0, 0, 0, true), 12u);
    EXPECT_EQ(build_benchmark_event(buf, 11, 1, 0, 0, 0, true), 0u);
}

TEST(BenchmarkStage, EachStepMovesOneStageEvenWithAllMarkersPresent)
{
    unsigned char p = 0;
    std::vector<int> seen;
    for (int i = 0; i < 5; ++i) {
        p = benchmark_next_stage(p, kOutput);
        seen.push_back(p);
    }
    EXPECT_EQ(seen, (std::vector<int>{1, 50, 75, 100, 100}));
    // A stage is left only by its own marker.
    EXPECT_EQ(benchmark_next_stage(0, "initial writers mixed workload iozone test complete"), 0);
    EXPECT_EQ(benchmark_next_stage(1, "Run began: mixed workload"), 1);
    EXPECT_EQ(benchmark_next_stage(50, "initial writers"), 50);
    EXPECT_EQ(benchmark_next_stage(75, "mixed workload"), 75);
    EXPECT_EQ(benchmark_next_stage(75, "iozone test complete"), 100);
}

TEST(BenchmarkFigure, ResultCodes)
{
    unsigned long figure = 7;
    EXPECT_EQ(parse_benchmark_figure("mixed workload\nAvg throughput per process =   \t 12345.67 KB/sec\n", &figure), 0);
    EXPECT_EQ(figure, 12345ul);
    // Exactly ten characters fit.
    EXPECT_EQ(parse_benchmark_figure("mixed workload Avg throughput per process =1234567890.5", &figure), 0);
    EXPECT_EQ(figure, 1234567890ul);
    EXPECT_EQ(parse_benchmark_figure("initial writers\nAvg throughput per process = 5.0\n", &figure), 18);
    // The average before the mixed workload does not count.
    EXPECT_EQ(parse_benchmark_figure("Avg throughput per process = 5.0\nmixed workload = 6.0\n", &figure), 19);
    EXPECT_EQ(parse_benchmark_figure("mixed workload\nAvg throughput per process : 5.0\n", &figure), 20);
    EXPECT_EQ(parse_benchmark_figure("mixed workload\nAvg throughput per process = 5 kB/sec\n", &figure), 21);
    EXPECT_EQ(parse_benchmark_figure("mixed workload Avg throughput per process = 1234567890.5", &figure), 21)
        << "eleven characters with the blank";
    EXPECT_EQ(figure, 1234567890ul) << "a failure leaves the figure alone";
}

TEST(BenchmarkFigure, OnlyTheFirst1999BytesOfTheFileCount)
{
    REQUIRE_ISOLATION();
    unsigned long w = 1;
    unsigned long r = 2;
    remove(BENCHMARK_OUTPUT_FILE);
    EXPECT_EQ(service().ReadBenchmarkResult(&w, &r), 17);
    EXPECT_EQ(w, 1ul);
    EXPECT_EQ(r, 2ul);
    const std::string tail = "mixed workload\nAvg throughput per process = 12345.67 kB/sec\n";
    // The figure's "." is byte 1999 (counting from 1): it is read.
    size_t fit = 1999 - (tail.find('.') + 1);
    write_file(BENCHMARK_OUTPUT_FILE, std::string(fit, 'x') + tail);
    EXPECT_EQ(service().ReadBenchmarkResult(&w, &r), 0);
    EXPECT_EQ(w, 12345ul);
    EXPECT_EQ(r, 12345ul);
    // One byte more and the "." is behind what counts.
    write_file(BENCHMARK_OUTPUT_FILE, std::string(fit + 1, 'x') + tail);
    EXPECT_EQ(service().ReadBenchmarkResult(&w, &r), 21);
    remove(BENCHMARK_OUTPUT_FILE);
}

class BenchmarkRun : public FakeTools {
protected:
    void SetUp() override
    {
        FakeTools::SetUp();
        if (IsSkipped())
            return;
        ASSERT_FALSE(benchmark_running());
        mkdir("/tmp/vol", 0755);
        write_fake_benchmark_tools();
        for (const char* f : {"/tmp/fake/iozone.killable", "/tmp/fake/iozone.calls", "/tmp/fake/iozone.started", "/tmp/fake/iozone.hold",
                              "/tmp/fake/iozone.rc", BENCHMARK_OUTPUT_FILE})
            remove(f);
        write_file("/tmp/fake/iozone.out", kOutput);
        ensure_service_queue();
        ensure_timer_thread();
        ASSERT_EQ(ticks.Create("/MQ_BENCHMARK_TICK_TEST", 4), 0);
        queueMade = true;
    }
    void TearDown() override
    {
        remove("/tmp/fake/iozone.hold");
        AllowKill();
        if (benchmark_running())
            service().CancelBenchmark();
        service().TosvBenchmarkProgress.StopTimer();
        if (queueMade)
            ticks.Destroy();
        FakeTools::TearDown();
    }
    // One live expiry of the benchmark's timer through the dispatcher.
    void Tick()
    {
        ASSERT_EQ(service().TosvBenchmarkProgress.StartTimer(1, SIG_ID_STORAGE_BENCHMARK_PROGRESS, ticks.GetHandle(), 0),
                  0);
        CNorvMsg live;
        ASSERT_EQ(ticks.Receive(&live), 0);
        service().ProcessNorvMsg(&live);
    }
    static void AllowKill() { write_file("/tmp/fake/iozone.killable", ""); }
    static void Hold() { write_file("/tmp/fake/iozone.hold", ""); }
    static void Release() { remove("/tmp/fake/iozone.hold"); }
    static bool Started() { return exists("/tmp/fake/iozone.started"); }
    static std::string Calls() { return read_file("/tmp/fake/iozone.calls"); }
    // A benchmark of path whose tool has begun and waits, held.
    static bool StartHeld(const char* path)
    {
        write_file("/tmp/fake/iozone.out", "Run began:\n");
        Hold();
        dispatch(SIG_ID_STORAGE_BENCHMARK, path);
        return eventually(Started);
    }
    bool WaitEnd(EventCapture& events, size_t count = 1)
    {
        return eventually([&] {
            size_t ends = 0;
            for (const Bytes& p : payloads(events.events(), LUM_TV_EVT_STORAGE_DEV_BENCHMARK))
                ends += ends_run(p) ? 1 : 0;
            return ends >= count && !benchmark_running() && benchmark_threads_alive() == 0;
        });
    }
    CNorvMsgQueue ticks;
    bool queueMade = false;
};

TEST_F(BenchmarkRun, TicksReportOneStageEachThenTheThreadReportsTheFigure)
{
    EventCapture events;
    Hold();
    dispatch(SIG_ID_STORAGE_BENCHMARK, "/mnt/pvr/shared/sdq1");
    ASSERT_TRUE(benchmark_running());
    ASSERT_TRUE(eventually(Started));
    EXPECT_EQ(Calls(), "iozone -t 2 -s 30m -r 16m -i 0 -i 8 -+p 50 -+n -F /mnt/pvr/shared/sdq1/iozone1.tmp "
                       "/mnt/pvr/shared/sdq1/iozone2.tmp\n");
    ASSERT_TRUE(eventually([] { return read_file(BENCHMARK_OUTPUT_FILE) == kOutput; }));
    // All markers are there at once: one stage per tick, each told once.
    for (int i = 0; i < 5; ++i)
        Tick();
    EXPECT_EQ(payloads(events.events(), LUM_TV_EVT_STORAGE_DEV_BENCHMARK), (std::vector<Bytes>{kMid1, kMid50, kMid75, kMid100}));
    EXPECT_EQ(benchmark_ticks(), 5ul);
    // At 100 the timer is not armed again.
    EXPECT_FALSE(service().TosvBenchmarkProgress.IsRunning());
    Release();
    ASSERT_TRUE(WaitEnd(events));
    EXPECT_EQ(payloads(events.events(), LUM_TV_EVT_STORAGE_DEV_BENCHMARK),
              (std::vector<Bytes>{kMid1, kMid50, kMid75, kMid100, kMid100, kFinal904493}));
    EXPECT_EQ(benchmark_progress(), 0);
    EXPECT_EQ(benchmark_ticks(), 0ul);
    // A tick after the end does nothing.
    Tick();
    EXPECT_EQ(payloads(events.events(), LUM_TV_EVT_STORAGE_DEV_BENCHMARK).size(), 6u);
}

TEST_F(BenchmarkRun, RunThatEndsBeforeTheFirstTickSendsStatusEightThenItsEnd)
{
    // Off the tree three processes measure; a failing tool gives its exit
    // code; a figure beyond 32 bits is the television's saturated one.
    const std::string mnt = "-t 2 -s 30m -r 16m -i 0 -i 8 -+p 50 -+n -F /mnt/pvr/shared/sdq1/iozone1.tmp "
                            "/mnt/pvr/shared/sdq1/iozone2.tmp";
    const struct {
        const char* path;
        std::string output, rc, args;
        std::vector<Bytes> events;
    } rows[] = {
        {"/mnt/pvr/shared/sdq1", "mixed workload\nAvg throughput per process =9999999999.00 kB/sec\n", "0", mnt,
         {kMid100, {0, 100, 0xff, 0xff, 0xff, 0xff, 0, 0, 0, 2}}},
        {"/mnt/pvr/shared/sdq1", "Run began:\ninitial writers\n", "0", mnt,
         {kMid100, {18, 100, 0, 0, 0, 0, 0, 0, 0, 2}}},
        {"/tmp/vol", kOutput, "3",
         "-t 3 -s 30m -r 16m -i 0 -i 8 -+p 33 -+n -F /tmp/vol/iozone1.tmp /tmp/vol/iozone2.tmp /tmp/vol/iozone3.tmp",
         {{3, 100, 0, 0, 0, 0, 0, 0, 0, 3}}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.output);
        EventCapture events;
        write_file("/tmp/fake/iozone.out", row.output);
        write_file("/tmp/fake/iozone.rc", row.rc);
        remove("/tmp/fake/iozone.calls");
        dispatch(SIG_ID_STORAGE_BENCHMARK, row.path);
        ASSERT_TRUE(WaitEnd(events));
        EXPECT_EQ(Calls(), "iozone " + row.args + "\n");
        EXPECT_EQ(payloads(events.events(), LUM_TV_EVT_STORAGE_DEV_BENCHMARK), row.events);
    }
}

TEST_F(BenchmarkRun, VolumeGoingAwayStopsOnlyItsOwnBenchmarkAndOneCancelJoinsTheThread)
{
    EventCapture events;
    mkdir("/tmp/vol/sub", 0755);
    ASSERT_TRUE(StartHeld("/tmp/vol/sub"));
    write_file("/tmp/vol/sub/iozone1.tmp", "x");
    // Other volumes, and names that only begin alike, leave it running.
    EXPECT_FALSE(service().StopBenchmarkOn("/tmp/other"));
    EXPECT_FALSE(service().StopBenchmarkOn("/tmp/vo"));
    EXPECT_FALSE(service().StopBenchmarkOn("/tmp/vol/sub/deeper"));
    EXPECT_TRUE(benchmark_running());
    // The volume it measures goes, while a client's cancel comes too: one
    // of them stops it, the other finds nothing left to stop.
    AllowKill();
    std::thread unmount([] { service().StopBenchmarkOn("/tmp/vol"); });
    dispatch(SIG_ID_STORAGE_CANCEL_BENCHMARK);
    unmount.join();
    EXPECT_TRUE(eventually([] { return !benchmark_running() && benchmark_threads_alive() == 0; }));
    EXPECT_EQ(payloads(events.events(), LUM_TV_EVT_STORAGE_DEV_BENCHMARK), std::vector<Bytes>{kCancelled});
    EXPECT_FALSE(exists("/tmp/vol/sub/iozone1.tmp"));
    EXPECT_TRUE(eventually([] { return !iozone_process_left(); }));
    EXPECT_FALSE(service().StopBenchmarkOn("/tmp/vol"));
}

TEST_F(BenchmarkRun, PathThatIsNoPlainWordIsRefusedWithoutAThread)
{
    EventCapture events;
    dispatch(SIG_ID_STORAGE_BENCHMARK, "/tmp/vol;touch /tmp/fake/owned");
    dispatch(SIG_ID_STORAGE_BENCHMARK, "");
    EXPECT_FALSE(benchmark_running());
    EXPECT_EQ(benchmark_threads_alive(), 0);
    EXPECT_EQ(payloads(events.events(), LUM_TV_EVT_STORAGE_DEV_BENCHMARK), (std::vector<Bytes>{kRefused, kRefused}));
    EXPECT_FALSE(exists("/tmp/fake/owned"));
    EXPECT_FALSE(exists("/tmp/fake/iozone.calls"));
}

TEST_F(BenchmarkRun, ForgedTicksAndSecondStartsChangeNothingAndTheTickLimitCancels)
{
    EventCapture events;
    ASSERT_TRUE(StartHeld("/tmp/vol"));
    dispatch(SIG_ID_STORAGE_BENCHMARK_PROGRESS);  // no timer sent it
    EXPECT_EQ(benchmark_ticks(), 0ul);
    dispatch(SIG_ID_STORAGE_BENCHMARK, "/mnt/pvr/shared/sdr1");  // one runs already
    for (int i = 0; i < BENCHMARK_MAX_TICKS; ++i)
        Tick();
    EXPECT_EQ(benchmark_ticks(), static_cast<unsigned long>(BENCHMARK_MAX_TICKS));
    EXPECT_TRUE(benchmark_running());
    AllowKill();
    Tick();
    EXPECT_FALSE(benchmark_running());
    EXPECT_EQ(benchmark_threads_alive(), 0);
    EXPECT_EQ(payloads(events.events(), LUM_TV_EVT_STORAGE_DEV_BENCHMARK), (std::vector<Bytes>{kMid1, kCancelled}));
    EXPECT_EQ(Calls().find("sdr1"), std::string::npos);
}
