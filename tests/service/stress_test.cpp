// Everything at once on the real service, for ThreadSanitizer above all: hub callers on their own threads
// beside the service thread's plug, mount and listing runs and the format, copy and benchmark threads. The
// service runs in a child process (its threads never stop) on fake volumes.
#include <algorithm>
#include <android/log.h>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <dirent.h>
#include <lmdroid/log_hook.h>
#include <lumemclient/EMALSink.h>
#include <thread>

#include <cutils/properties.h>
#include <norvfw/NorvMsg.h>

#include "Benchmark.h"
#include "Format.h"
#include "PvrIdentity.h"
#include "SignalNo.h"
#include "StorageFormatInfo.h"
#include "StorageSystem.h"
#include "copy_fixture.h"
#include "fake_tools.h"

namespace {
const std::string kScratch = "/tmp/stress";
const std::string kFiles = kScratch + "/files";    // one folder per hub caller
const std::string kList = kScratch + "/list/";     // what the listings list
const std::string kTree = kScratch + "/tree/";     // what the copies copy
const std::string kCopies = kScratch + "/copies";  // c0, c1, ...
const std::string kBench = kScratch + "/bench";
const char kSdq1Mount[] = "/mnt/pvr/shared/sdq1";  // plugged in and out
const char kSdr1Mount[] = "/mnt/pvr/shared/sdr1";  // stays, and is formatted once
const int kCallers = 4;
const int kListEntries = 9;  // with system entries hidden
// The first cycle (and the format) warms up; the later ones must give back every descriptor they open.
const int kMinCycles = 2;
const auto kRunFor = std::chrono::seconds(1);

const char kBlkidSdq1[] = "/dev/sdq1: LABEL=\"STICK\" UUID=\"1111-2222\" TYPE=\"ext4\"\n";
const char kBlkidSdr1[] = "/dev/sdr1: LABEL=\"DISK\" UUID=\"3333-4444\" TYPE=\"ext4\"\n";

bool format_succeeded(const Bytes& payload)
{
    SStorageFormatInfo info;
    if (payload.size() != sizeof(info))
        return false;
    memcpy(&info, payload.data(), sizeof(info));
    return info.result == 0;
}

// Counts the events by id. Relaxed atomics, and a lock that only the one thread sending listings takes: a
// lock shared by every sender would order the service's threads and hide their races from ThreadSanitizer.
class EventTally {
public:
    EventTally() { EMAL_SetSink(&EventTally::sink, this); }
    ~EventTally() { EMAL_SetSink(nullptr, nullptr); }
    int count(int event) const
    {
        int i = event - LUM_TV_EVT_STORAGE_MIN;
        return i >= 0 && i < kSlots ? m_counts[i].load(std::memory_order_relaxed) : 0;
    }
    int benchmarkEnds() const { return m_benchmarkEnds.load(std::memory_order_relaxed); }
    int failedEnds() const { return m_failedEnds.load(std::memory_order_relaxed); }
    std::vector<Bytes> listings() { std::lock_guard<std::mutex> hold(m_listingLock); return m_listings; }

private:
    static constexpr int kSlots = LUM_TV_EVT_STORAGE_BUTT - LUM_TV_EVT_STORAGE_MIN;
    static void sink(int event, const void* data, int len, void* ctx)
    {
        auto* self = static_cast<EventTally*>(ctx);
        const auto* bytes = static_cast<const unsigned char*>(data);
        Bytes payload(bytes, bytes + (bytes != nullptr ? len : 0));
        if (event == LUM_TV_EVT_STORAGE_READ_DIRS) {
            std::lock_guard<std::mutex> hold(self->m_listingLock);
            self->m_listings.push_back(payload);
        }
        // A benchmark's progress has status 8; anything else ends it.
        if (event == LUM_TV_EVT_STORAGE_DEV_BENCHMARK && !payload.empty() && payload[0] != 8) {
            self->m_benchmarkEnds.fetch_add(1, std::memory_order_relaxed);
            if (payload[0] != 0)
                self->m_failedEnds.fetch_add(1, std::memory_order_relaxed);
        }
        if ((event == LUM_TV_EVT_STORAGE_COPY && payload != Bytes{0}) ||
            (event == LUM_TV_EVT_STORAGE_FORMAT && !format_succeeded(payload)))
            self->m_failedEnds.fetch_add(1, std::memory_order_relaxed);
        int i = event - LUM_TV_EVT_STORAGE_MIN;
        if (i >= 0 && i < kSlots)
            self->m_counts[i].fetch_add(1, std::memory_order_relaxed);
    }
    std::atomic<int> m_counts[kSlots] = {};
    std::atomic<int> m_benchmarkEnds{0};
    std::atomic<int> m_failedEnds{0};
    std::mutex m_listingLock;
    std::vector<Bytes> m_listings;
};

struct CallerReport {
    int iterations = 0;
    std::string failure;
};

void check(CallerReport* report, bool ok, const std::string& what)
{
    if (!ok && report->failure.empty())
        report->failure = what;
}

std::string text_of(const Bytes& reply) { return std::string(reply.begin(), std::find(reply.begin(), reply.end(), 0)); }

// Direct queries: each answer must be whole and one of the values a run leaves.
void ask_queries(CallerReport* r)
{
    Bytes state = Request(STORAGE_PVR_DEV_STATE).invoke();
    check(r, state.size() == 4 && state[0] <= 1, "PVR state");
    std::string path = text_of(Request(STORAGE_PVR_MOUNT_PATH).invoke());
    check(r, path.empty() || path == kSdq1Mount || path == kSdr1Mount, "PVR mount path '" + path + "'");
    Bytes guide = Request(STORAGE_PVR_GET_DEV_GUIDE_INFO).invoke();
    check(r, guide.size() == 4 + 63000u && guide[0] == 0, "guide record");
    check(r, Request(STORAGE_PVR_DEV_AVAILABLE).s("/dev/sdr1").invoke().size() == 4, "PVR availability");
    std::string type = text_of(Request(STORAGE_PARTITION_FS_TYPE).s(kSdr1Mount).invoke());
    check(r, type.empty() || type == "ext4", "file-system type '" + type + "'");
    check(r, Request(STORAGE_PARTITION_TOTAL_SIZE).s(kSdr1Mount).invoke().size() == 8, "total size");
    check(r, Request(STORAGE_PARTITION_USED_SIZE).s(kSdr1Mount).invoke().size() == 8, "used size");
}

void run_file_ops(const std::string& folder, CallerReport* r)
{
    const std::string d = folder + "/d";
    const int32_t len = static_cast<int32_t>(d.size() + 1);
    check(r, Request(STORAGE_CREATE_DIR).s(d).i(len).invoke() == kTrue, "create " + d);
    check(r, Request(STORAGE_WRITE_FILE).s(d + "/a").i(4).raw("data").invoke() == kTrue, "write");
    check(r, Request(STORAGE_RENAME_FILE).s(d + "/a").s(d + "/b").b(false).invoke() == kTrue, "rename");
    check(r, Request(STORAGE_COPY_FILE).s(d + "/b").s(d + "/c").invoke() == kTrue, "copy file");
    check(r, Request(STROAGE_LUM_MOVE).s(d + "/c").s(d + "/m").b(false).invoke() == kTrue, "move");
    check(r, read_file(d + "/m") == "data", "moved copy's content");
    check(r, Request(STORAGE_LUM_EXE_SYS_CMD).i(4).s("true").invoke() == le32({0}), "shell command");
    check(r, Request(STORAGE_DELETE_DIR).s(d).i(2).i(len).invoke() == kTrue, "delete " + d);
}

const int kFileOpEvents[] = {LUM_TV_EVT_STORAGE_CREATE_DIR, LUM_TV_EVT_STORAGE_WRITE_FILE,
                             LUM_TV_EVT_STORAGE_RENAME_FILE, LUM_TV_EVT_STORAGE_MOVE_FILE,
                             LUM_TV_EVT_STORAGE_DELETE_DIR};

void hub_caller(int index, const std::atomic<bool>* stop, CallerReport* report)
{
    const std::string folder = kFiles + "/t" + std::to_string(index);
    while (!stop->load(std::memory_order_relaxed) && report->failure.empty()) {
        ask_queries(report);
        run_file_ops(folder, report);
        ++report->iterations;
    }
}

// In one step, so that no command of a run sees half a list.
void set_blkid(bool withSdq1)
{
    std::ofstream("/tmp/fake/blkid.new") << (withSdq1 ? kBlkidSdq1 : "") << kBlkidSdr1;
    rename("/tmp/fake/blkid.new", "/tmp/fake/blkid.out");
}

// Posts commands and signals, waits for their events and counts them.
class Driver {
public:
    explicit Driver(EventTally& tally) : m_tally(tally) {}
    void Cycle()
    {
        set_blkid(true);
        Signal(SIG_ID_STORAGE_PLUG_IN);
        Wait(LUM_TV_EVT_STORAGE_DEV_MOUNT_END, ++m_mounts, "plug-in");
        PostListings(2);
        Post(Request(STORAGE_GET_DEVICE_SIZE).s("/dev/sdr1").i(10), &m_sizes);
        Post(Request(STORAGE_EXTRACT_COVER).s(kList).s("a.mp3"), &m_covers);
        StartCopyIfIdle();
        StartBenchmarkIfIdle();
        Post(Request(STORAGE_DEV_UMOUNT).s("sdq1"), nullptr);
        Wait(LUM_TV_EVT_STORAGE_DEV_UMOUNT_END, ++m_unmounts, "unmount");
        Post(Request(STORAGE_GET_STORAGE_VOLUMES), &m_tables);
        Post(Request(STORAGE_GET_STORAGE_VOLUME).s("/dev/sdq"), &m_devInfos);
        Post(Request(STORAGE_GET_UUID_FOR_PATH).s(kSdr1Mount), &m_uuids);
        Post(Request(STORAGE_PVR_MARK_DEV).s("/dev/sdr1").b(false), &m_marks);
        Post(Request(STORAGE_DEV_MOUNT).s("/dev/sdq1"), nullptr);
        Wait(LUM_TV_EVT_STORAGE_DEV_MOUNT_END, ++m_mounts, "mount");
        set_blkid(false);
        Signal(SIG_ID_STORAGE_PLUG_OUT);
        Wait(LUM_TV_EVT_STORAGE_DEV_UMOUNT_END, ++m_unmounts, "plug-out");
        // The first benchmark is held through the first cycle.
        remove("/tmp/fake/iozone.hold");
        ++m_cycles;
    }
    // Listings meanwhile; the format's thread runs one unmount and one mount.
    void Format()
    {
        Post(Request(STORAGE_DEV_FORMAT).s("/dev/sdr1"), &m_formats);
        PostListings(3);
        Wait(LUM_TV_EVT_STORAGE_FORMAT, m_formats, "format");
        m_mounts++;
        m_unmounts++;
        Wait(LUM_TV_EVT_STORAGE_DEV_MOUNT_END, m_mounts, "the format's mount run");
        if (!eventually([] { return format_threads_alive() == 0; }))
            Fail("the format thread never ended");
    }
    void Finish()
    {
        Wait(LUM_TV_EVT_STORAGE_COPY, m_copies, "copy");
        if (!eventually([&] { return m_tally.benchmarkEnds() >= m_benchmarks; }))
            Fail("a benchmark never ended");
        Wait(LUM_TV_EVT_STORAGE_READ_DIRS, m_listings, "listing");
        Wait(LUM_TV_EVT_STORAGE_HDD_GET_SIZE, m_sizes, "size reply");
        Wait(LUM_TV_EVT_STORAGE_EXTRACT_COVER, m_covers, "cover");
        Wait(LUM_TV_EVT_STORAGE_PVR_MARK, m_marks, "marking");
        if (!eventually([] { return !copy_running() && copy_threads_alive() == 0 && !benchmark_running() &&
                                    benchmark_threads_alive() == 0; }))
            Fail("a copy or benchmark thread never ended");
        const std::pair<int, int> expected[] = {
            {LUM_TV_EVT_STORAGE_DEV_MOUNT_END, m_mounts}, {LUM_TV_EVT_STORAGE_DEV_UMOUNT_END, m_unmounts},
            {LUM_TV_EVT_STORAGE_READ_DIRS, m_listings},   {LUM_TV_EVT_STORAGE_HDD_GET_SIZE, m_sizes},
            {LUM_TV_EVT_STORAGE_EXTRACT_COVER, m_covers},  {LUM_TV_EVT_STORAGE_COPY, m_copies},
            {LUM_TV_EVT_STORAGE_FORMAT, m_formats},       {LUM_TV_EVT_STORAGE_SET_ALL_PARTITION, m_formats},
            {LUM_TV_EVT_STORAGE_GET_STORAGE_VOLUMES, m_tables}, {LUM_TV_EVT_STORAGE_GET_DEV_TABLE, m_tables},
            {LUM_TV_EVT_STORAGE_GET_DEV_INFO, m_devInfos}, {LUM_TV_EVT_STORAGE_GET_UUID_FOR_PATH, m_uuids},
            {LUM_TV_EVT_STORAGE_PVR_MARK, m_marks},
        };
        for (const auto& [event, want] : expected) {
            if (m_tally.count(event) != want)
                Fail("event " + std::to_string(event) + ": " + std::to_string(m_tally.count(event)) + " for " +
                     std::to_string(want) + " commands");
        }
        if (m_tally.benchmarkEnds() != m_benchmarks)
            Fail(std::to_string(m_tally.benchmarkEnds()) + " benchmark ends for " + std::to_string(m_benchmarks));
        if (m_tally.failedEnds() != 0)
            Fail(std::to_string(m_tally.failedEnds()) + " copies, formats or benchmarks failed");
        CheckListings();
    }
    int Cycles() const { return m_cycles; }
    const std::string& Failure() const { return m_failure; }

private:
    void Fail(const std::string& what)
    {
        if (m_failure.empty())
            m_failure = what;
    }
    void Signal(unsigned long signal)
    {
        CNorvMsg msg(signal);
        if (theStorageManagerService.SendCmd(&msg) != 0)
            Fail("the queue refused signal " + std::to_string(signal));
    }
    void Post(Request&& request, int* posted) { Post(request, posted); }
    void Post(Request& request, int* posted)
    {
        if (request.invoke() != kTrue)
            Fail("the hub refused a posted command");
        else if (posted != nullptr)
            ++*posted;
    }
    void Wait(int event, int count, const char* what)
    {
        if (!eventually([&] { return m_tally.count(event) >= count; }))
            Fail(std::string("no event for a ") + what);
    }
    void PostListings(int n)
    {
        for (int i = 0; i < n; ++i) {
            Request request(STORAGE_READ_DIRS);  // flags 1: system entries hidden
            request.s(kList).i(static_cast<int32_t>(kList.size() + 1));
            request.p.writeInt64(m_listings);
            request.i(1);
            Post(request, &m_listings);
        }
    }
    void StartCopyIfIdle()
    {
        if (m_tally.count(LUM_TV_EVT_STORAGE_COPY) < m_copies)
            return;
        Bytes raw = copy_test::request(kTree, kCopies + "/c" + std::to_string(m_copies));
        Request request(STORAGE_COPY);
        request.s(kTree).i(static_cast<int32_t>(raw.size())).raw(std::string(raw.begin(), raw.end()));
        Post(request, &m_copies);
    }
    void StartBenchmarkIfIdle()
    {
        if (m_tally.benchmarkEnds() < m_benchmarks)
            return;
        Post(Request(STORAGE_DEV_BENCHMARK).s(kBench), &m_benchmarks);
    }
    // Each listing of the unchanged folder must be the same one block: a
    // reply of another thread written into the send buffer would show here.
    void CheckListings()
    {
        std::vector<Bytes> blocks = m_tally.listings();
        if (blocks.empty() || blocks[0].size() < 4 || Bytes(blocks[0].begin(), blocks[0].begin() + 4) !=
                                                          Bytes{0, 0, 0, kListEntries})
            return Fail("the first listing is not one block of every entry");
        for (const Bytes& b : blocks) {
            if (b != blocks[0])
                Fail("the listings differ");
        }
    }
    EventTally& m_tally;
    std::string m_failure;
    int m_cycles = 0, m_mounts = 0, m_unmounts = 0, m_listings = 0, m_sizes = 0, m_covers = 0, m_copies = 0;
    int m_benchmarks = 0, m_formats = 0, m_tables = 0, m_devInfos = 0, m_uuids = 0, m_marks = 0;
};

// What the process's descriptors point at.
std::set<std::string> open_fds()
{
    std::set<std::string> out;
    DIR* d = opendir("/proc/self/fd");
    for (struct dirent* e; d != nullptr && (e = readdir(d)) != nullptr;) {
        char target[256] = {0};
        if (e->d_name[0] != '.' && atoi(e->d_name) != dirfd(d) && readlink((std::string("/proc/self/fd/") + e->d_name).c_str(), target,
                                            sizeof(target) - 1) > 0)
            out.insert(std::string(e->d_name) + " " + target);
    }
    if (d != nullptr)
        closedir(d);
    return out;
}

}  // namespace

// The child process: 0 when everything ended as it should, otherwise what went wrong on standard error.
int child_stress()
{
    // The log's one hook lock would order all logging threads and hide races.
    lmdroid_set_log_threshold(ANDROID_LOG_SILENT);
    EventTally tally;
    if (StorageSystemInit() != 0)
        return 1;
    std::atomic<bool> stop{false};
    std::vector<CallerReport> reports(kCallers);
    std::vector<std::thread> callers;
    for (int i = 0; i < kCallers; ++i)
        callers.emplace_back(hub_caller, i, &stop, &reports[i]);
    Driver driver(tally);
    auto start = std::chrono::steady_clock::now();
    std::set<std::string> fdsBefore;
    while (driver.Failure().empty() &&
           (driver.Cycles() < kMinCycles || std::chrono::steady_clock::now() - start < kRunFor)) {
        driver.Cycle();
        if (driver.Cycles() == 1) {
            driver.Format();
            fdsBefore = open_fds();
        }
    }
    stop = true;
    for (std::thread& t : callers)
        t.join();
    if (driver.Failure().empty())
        driver.Finish();
    int rc = driver.Failure().empty() ? 0 : 2;
    if (rc != 0)
        fprintf(stderr, "driver: %s\n", driver.Failure().c_str());
    int iterations = 0;
    for (int i = 0; i < kCallers; ++i) {
        iterations += reports[i].iterations;
        if (!reports[i].failure.empty() || reports[i].iterations == 0) {
            fprintf(stderr, "hub caller %d after %d rounds: %s\n", i, reports[i].iterations,
                    reports[i].failure.empty() ? "no round" : reports[i].failure.c_str());
            rc = 3;
        }
    }
    for (int event : kFileOpEvents) {
        if (tally.count(event) != iterations) {
            fprintf(stderr, "event %d: %d for %d rounds of file operations\n", event, tally.count(event), iterations);
            rc = 4;
        }
    }
    for (const std::string& fd : open_fds()) {
        if (fdsBefore.count(fd) == 0) {
            fprintf(stderr, "descriptor left open by the run: %s\n", fd.c_str());
            rc = 5;
        }
    }
    printf("stress: %d cycles, %d rounds of hub calls\n", driver.Cycles(), iterations);
    return rc;
}

namespace {
// Two volumes in the kernel's list, blkid and df, mounted by the fake tools
// on a private /mnt; a television that records and timeshifts.
class Stress : public FakeTools {
protected:
    void SetUp() override
    {
        FakeTools::SetUp();
        if (IsSkipped())
            return;
        ASSERT_EQ(system(("rm -rf " + kScratch + " && mkdir -p " + kList + "sub " + kTree + "sub " + kCopies + " " +
                          kBench + " /tmp/share")
                             .c_str()),
                  0);
        for (int i = 0; i < kCallers; ++i)
            make_dirs(kFiles + "/t" + std::to_string(i));
        for (int i = 0; i < kListEntries - 1; ++i)
            write_file(kList + std::string(1, static_cast<char>('a' + i)) + ".mp3", "not really audio");
        for (const char* f : {"one", "two", "sub/three"})
            write_file(kTree + f, f);
        if (!mounts.tmpfs("/mnt", "mode=755"))
            GTEST_SKIP() << "SKIPPED: no private /mnt";
        write_file(kScratch + "/partitions",
                              "major minor  #blocks  name\n\n   8  16  1024000 sdq\n   8  17  1024000 sdq1\n"
                              "   8  32  1024000 sdr\n   8  33  1024000 sdr1\n");
        ASSERT_TRUE(mounts.bind(kScratch + "/partitions", "/proc/partitions"));
        write_fake_volume_tools();
        write_fake_benchmark_tools();
        set_blkid(true);
        output("df", "Filesystem 1048576-blocks Used Available Capacity Mounted on\n"
                     "/dev/sdq1 1000 10 990 1% /mnt/pvr/shared/sdq1\n"
                     "/dev/sdr1 1000 20 980 2% /mnt/pvr/shared/sdr1\n");
        write_file("/tmp/fake/iozone.out", "Run began:\ninitial writers\nmixed workload\n"
                                                      "Avg throughput per process = 1234.5 kB/sec\n"
                                                      "iozone test complete.\n");
        write_file("/tmp/fake/iozone.hold", "");
        property_set("persist.pvr.rec.enable", "1");
        property_set("persist.pvr.tshift.enable", "1");
        property_set("persist.pvr.device_size_limit", "100");
        property_set(PVR_IDENTITY_PROPERTY, "no");
    }
    void TearDown() override { remove("/tmp/fake/iozone.hold"); FakeTools::TearDown(); }
};

}  // namespace

TEST_F(Stress, HubCallersServiceThreadAndItsWorkersRunTogether)
{
    std::string out;
    int rc = run_child("stress", &out);
    EXPECT_EQ(rc, 0) << (out.size() > 30000 ? out.substr(out.size() - 30000) : out);
    size_t summary = out.find("stress: ");
    if (rc == 0 && summary != std::string::npos)
        std::cout << out.substr(summary, out.find('\n', summary) - summary + 1);
}
