// The disk benchmark end to end on the simulated television: the real iozone on an ext4 volume of a plugged
// stick, the progress and final events a client sees, a cancel in the middle of a run, and a tool deaf to
// TERM stopped by the unplugging of its disk.
#include "rig_fixture.h"

namespace e2e {
namespace {
const char* kVolume = "/mnt/pvr/shared/sdb1";

class Benchmark : public ServiceRig {
protected:
    // Verbose: the log then holds every command line the service runs.
    void StartBenchmarkRig(const std::vector<std::string>& env = {}, const std::string& prepare = "")
    {
        std::vector<std::string> all{"LUM_LOG_LEVEL=v"};
        all.insert(all.end(), env.begin(), env.end());
        StartService("disk stick size=256M table=msdos plugged=no\n  part fs=ext4 label=B\n"
                     "disk other size=64M table=msdos plugged=no\n  part fs=ext4 label=O\n",
                     {"stick"}, all, prepare);
    }
    std::vector<std::string> BenchEvents() const { return Events("LUM_TV_EVT_STORAGE_DEV_BENCHMARK"); }
    static bool Running(const std::string& line) { return Has(line, "\"data\":{\"status\":8,"); }
    static int Progress(const std::string& line) { return static_cast<int>(Number(line, "progress")); }
    // Waits for an event that ends the benchmark (any status but 8).
    bool WaitForEnd(int timeout_s = 240) const
    {
        return lumrig::Until([&] {
            for (const std::string& line : BenchEvents())
                if (!Running(line))
                    return true;
            return false;
        }, timeout_s);
    }
    bool NoIozoneLeft() const { return lumrig::Until([&] { return TvPids("iozone").empty(); }, 10); }
    std::string WorkFiles() const { return tv.Exec(std::string("ls ") + kVolume + "/ | grep iozone || true").out; }
};

TEST_F(Benchmark, FullRunReportsStagesInOrderThenTheFigure)
{
    StartBenchmarkRig();
    if (HasFatalFailure())
        return;
    Result r = Ctl({"dev-benchmark", kVolume});
    EXPECT_TRUE(Has(r.out, "\"value\":true")) << r.out;
    ASSERT_TRUE(WaitForEnd());
    auto events = BenchEvents();
    ASSERT_GE(events.size(), 2u);
    // Status-8 events with rising stages (the thread's own 100 may follow the
    // tick's), then one end: status 0, 100, a figure, two processes.
    int last = 0;
    for (size_t i = 0; i + 1 < events.size(); ++i) {
        ASSERT_TRUE(Running(events[i])) << events[i];
        EXPECT_TRUE(Has(events[i], "\"len\":10,")) << events[i];
        EXPECT_TRUE(Has(events[i], ",\"speed\":0,\"processes\":0}")) << events[i];
        int p = Progress(events[i]);
        EXPECT_TRUE(p == 1 || p == 50 || p == 75 || p == 100) << events[i];
        EXPECT_TRUE(p > last || (p == 100 && last == 100)) << events[i];
        last = p;
    }
    EXPECT_EQ(Progress(events[events.size() - 2]), 100) << "the thread tells the tool's success first";
    const std::string& end = events.back();
    EXPECT_TRUE(Has(end, "\"len\":10,\"data\":{\"status\":0,\"progress\":100,\"speed\":")) << end;
    EXPECT_TRUE(Has(end, ",\"processes\":2}")) << end;
    EXPECT_FALSE(Has(end, "\"speed\":0,")) << end;
    // The figure is the mixed workload's average in the tool's output.
    std::string figure =
        tv.Exec("awk '/mixed workload/ { m = 1 } m && /Avg throughput per process/ { split($0, a, \"=\"); "
                "print int(a[2]); exit }' /tmp/iozone.txt")
            .out;
    ASSERT_FALSE(figure.empty());
    EXPECT_TRUE(Has(end, "\"speed\":" + figure.substr(0, figure.find('\n')) + ",")) << end << " vs " << figure;
    EXPECT_EQ(WorkFiles(), "");
    EXPECT_TRUE(NoIozoneLeft());
    std::string log = tv.Log("lumstoraged");
    EXPECT_TRUE(Has(log, "run: iozone -t 2 -s 30m -r 16m -i 0 -i 8 -+p 50 -+n -F /mnt/pvr/shared/sdb1/iozone1.tmp "
                         "/mnt/pvr/shared/sdb1/iozone2.tmp > /tmp/iozone.txt\n"));
}

TEST_F(Benchmark, ToolDeafToTermIsKilledWhenItsDiskGoesAndTheNextDiskMounts)
{
    // In iozone's place a tool that ignores TERM (the real one ends on it),
    // as one hung on a disk that went away does not answer it either.
    StartBenchmarkRig({std::string("PATH=/run/deaf:") + kRigPath},
                      "mkdir -p /run/deaf && printf '#!/bin/sh\\ntrap \"\" TERM\\necho \"Run began:\"\\n"
                      "while :; do sleep 1; done\\n' > /run/deaf/iozone && chmod 755 /run/deaf/iozone");
    if (HasFatalFailure())
        return;
    ASSERT_TRUE(Ctl({"dev-benchmark", kVolume}).ok());
    ASSERT_TRUE(WaitFor("LUM_TV_EVT_STORAGE_DEV_BENCHMARK", 1, 120));
    // The unmount run stops the benchmark while it holds the run lock.
    auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(tv.Unplug("stick").ok());
    ASSERT_TRUE(WaitForEnd(60));
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
    std::cout << "[ figure   ] unplugging under a TERM-proof iozone to the benchmark's end: " << ms.count() << " ms\n";
    EXPECT_TRUE(Has(BenchEvents().back(), "\"data\":{\"status\":1,\"progress\":100,\"speed\":0,\"processes\":3}"))
        << BenchEvents().back();
    EXPECT_TRUE(NoIozoneLeft());
    std::string log = tv.Log("lumstoraged");
    EXPECT_TRUE(Has(log, "iozone ignores TERM, killed")) << log;
    // The run lock is free again: the next disk is mounted.
    size_t ends = Events("LUM_TV_EVT_STORAGE_DEV_MOUNT_END").size();
    ASSERT_TRUE(tv.Plug("other").ok());
    EXPECT_TRUE(WaitFor("LUM_TV_EVT_STORAGE_DEV_MOUNT_END", ends + 1, 60));
}

}  // namespace
}  // namespace e2e
