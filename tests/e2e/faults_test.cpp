// Faults on the simulated television: a stick pulled out in the middle of a listing, a tree copy and a
// format; a full command queue. After each fault the service still answers, the mount tree, its folder and
// the volume list show exactly the sticks that are plugged, the files nobody was writing keep their
// checksums, and every client has had its answer.
#include <functional>
#include <future>

#include "rig_fixture.h"

namespace e2e {
namespace {
// Two ext4 sticks; the files under /keep must outlive every fault.
const char* kSticks =
    "disk a size=256M table=msdos plugged=no dev=sdb\n"
    "  part fs=ext4 label=A\n"
    "    file /keep/one.bin size=300K\n"
    "    file /keep/deep/two.bin size=1M\n"
    "    file /keep/three.txt text=three\n"
    "disk b size=128M table=msdos plugged=no dev=sdc\n"
    "  part fs=ext4 label=B\n"
    "    file /keep/four.bin size=200K\n"
    "    file /keep/five.txt text=five\n";
const std::string kA = "/mnt/pvr/shared/sdb1";
const std::string kB = "/mnt/pvr/shared/sdc1";

// A client running beside the test; its future waits for it when it goes.
std::future<Result> Client(std::function<Result()> run) { return std::async(std::launch::async, std::move(run)); }

// Every value of `key` in a JSON text, in order ("node" takes "/dev/sdb" out of "node":"/dev/sdb").
std::multiset<std::string> Values(const std::string& json, const std::string& key)
{
    std::multiset<std::string> values;
    const std::string open = "\"" + key + "\":\"";
    for (size_t at = json.find(open); at != std::string::npos; at = json.find(open, at)) {
        at += open.size();
        values.insert(json.substr(at, json.find('"', at) - at));
    }
    return values;
}

class Faults : public FileOps {
protected:
    // Both sticks plugged and mounted, the checksums of their kept files taken.
    void StartSticks(const std::vector<std::string>& env = {})
    {
        StartService(kSticks, {"a", "b"}, env);
        if (HasFatalFailure())
            return;
        sumsA_ = Sums(kA);
        sumsB_ = Sums(kB);
        ASSERT_TRUE(Has(sumsA_, "deep/two.bin") && Has(sumsB_, "five.txt")) << sumsA_ << sumsB_;
    }
    // md5 and name of every file under VOLUME/keep, sorted by name.
    std::string Sums(const std::string& volume) const
    {
        const char* script = "cd \"$1/keep\" && find . -type f -exec md5sum {} + | LC_ALL=C sort -k2";
        return In({"sh", "-c", script, "sh", volume}).out;
    }
    // Plugs stick a back in: it is mounted again beside b, and no kept file of either stick has changed.
    void ExpectStickBack()
    {
        size_t mounts = Events("LUM_TV_EVT_STORAGE_DEV_MOUNT_END").size();
        ASSERT_TRUE(tv.Plug("a").ok());
        ASSERT_TRUE(WaitFor("LUM_TV_EVT_STORAGE_DEV_MOUNT_END", mounts + 1));
        ExpectVolumes({"sdb1", "sdc1"});
        EXPECT_EQ(Sums(kA), sumsA_);
        EXPECT_EQ(Sums(kB), sumsB_);
    }
    // The volume list, asked again while the queue refuses the request.
    Result Volumes() const
    {
        Result r;
        for (int i = 0; i < 60; ++i) {
            r = Ctl({"volumes", "--timeout", "60"});
            if (r.ok() || !Has(r.err, "refused"))
                break;
            std::this_thread::sleep_for(std::chrono::seconds(1));
        }
        return r;
    }
    // The mount tree, its folder and the service's volume list name exactly these volumes ("sdb1"), each once, each on
    // its own mount point. The list is asked for first: it comes after every run queued before it.
    void ExpectVolumes(const std::multiset<std::string>& volumes) const
    {
        Result table = Volumes();
        ASSERT_TRUE(table.ok()) << table.Describe();
        std::multiset<std::string> mounted, nodes;
        for (const std::string& line : Split(tv.Exec("mount | grep ' on /mnt/pvr/shared/' || true").out, '\n')) {
            std::string volume = line.substr(line.rfind('/', line.find(" type ")) + 1);
            volume = volume.substr(0, volume.find(' '));
            EXPECT_EQ(line.substr(0, line.find(' ')), "/dev/" + volume) << line;
            mounted.insert(volume);
        }
        EXPECT_EQ(mounted, volumes);
        EXPECT_EQ(Names("/mnt/pvr/shared"), std::set<std::string>(volumes.begin(), volumes.end()));
        for (const std::string& volume : volumes) {
            nodes.insert("/dev/" + volume);
            nodes.insert("/dev/" + volume.substr(0, volume.find_first_of("0123456789")));
            EXPECT_TRUE(Has(table.out, "\"node\":\"/dev/" + volume + "\",\"mountPoint\":\"/mnt/pvr/shared/" + volume))
                << table.out;
        }
        EXPECT_EQ(Values(table.out, "node"), nodes) << table.out;
        EXPECT_EQ(Values(table.out, "devName"), nodes) << table.out;
    }
    bool WaitForLog(const std::string& text, size_t count, int timeout_s = 60) const
    {
        return lumrig::Until([&] {
            std::string log = tv.Log("lumstoraged");
            size_t n = 0;
            for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1))
                ++n;
            return n >= count;
        }, timeout_s, 100);
    }
    // True when the daemon's working folder is dir: the listing, which
    // works there, is under way. With wait, waits for it at most 60 s.
    bool ListingIn(const std::string& dir, bool wait) const
    {
        std::vector<pid_t> daemon = TvPids("lumstoraged");
        if (daemon.size() != 1)
            return false;
        std::string script = "i=0; until [ \"$(readlink /proc/$1/cwd)\" = \"$2\" ]; do i=$((i+1)); [ $i -lt $3 ] || "
                             "exit 1; sleep 0.02; done";
        return In({"sh", "-c", script, "sh", std::to_string(daemon[0]), dir, wait ? "3000" : "1"}).ok();
    }
    std::string sumsA_, sumsB_;
};

TEST_F(Faults, UnplugDuringAListingLetsItEndAndTakesOnlyThatStickDown)
{
    StartSticks();
    if (HasFatalFailure())
        return;
    // TagLib reads each of these to its end looking for a frame, about a tenth of a second each: the listing
    // keeps the service thread for seconds.
    const std::string slow = kA + "/slow";
    ASSERT_TRUE(In({"sh", "-c", "mkdir \"$1\" && for i in $(seq 80); do truncate -s 1M \"$1/song$i.mp3\"; done", "sh",
                    slow})
                    .ok());
    size_t downs = Events("LUM_TV_EVT_STORAGE_DEV_UMOUNT_END").size();
    auto listing = Client([&] { return Ctl({"ls", slow + "/", "--timeout", "120"}); });
    ASSERT_TRUE(ListingIn(slow, true)) << "the listing never began";
    // A query waits behind the listing for the service thread.
    auto volumes = Client([&] { return Ctl({"volumes", "--timeout", "120"}); });
    ASSERT_TRUE(tv.Unplug("a").ok());
    EXPECT_TRUE(ListingIn(slow, false)) << "the listing ended before the stick went: nothing was tested";
    const Result listed = listing.get();
    EXPECT_TRUE(Has(listed.out, "{\"path\":\"" + slow + "/\",")) << "the listing had no end\n" << listed.Describe();
    const Result table = volumes.get();
    EXPECT_TRUE(table.ok()) << table.Describe();
    ASSERT_TRUE(WaitFor("LUM_TV_EVT_STORAGE_DEV_UMOUNT_END", downs + 1));
    ExpectVolumes({"sdc1"});
    EXPECT_EQ(Sums(kB), sumsB_);
    ExpectStickBack();
}

TEST_F(Faults, UnplugOfTheSourceDuringATreeCopyEndsTheCopyWithWholeFiles)
{
    StartSticks();
    if (HasFatalFailure())
        return;
    // 4500 small files: the copy walks them for a few seconds, long enough for the stick to go while it runs.
    const std::string tree = kA + "/tree", copy = kB + "/tree";
    ASSERT_TRUE(In({"sh", "-c",
                    "mkdir \"$1\" && cd \"$1\" && for d in a b c; do mkdir $d; for i in $(seq 1500); do echo $d$i > "
                    "$d/f$i; done; done",
                    "sh", tree})
                    .ok());
    size_t downs = Events("LUM_TV_EVT_STORAGE_DEV_UMOUNT_END").size();
    auto copying = Client([&] { return Ctl({"cp", "-r", tree, copy, "--timeout", "120"}); });
    ASSERT_TRUE(Filling(copy, 10));
    ASSERT_TRUE(tv.Unplug("a").ok());
    const Result copied = copying.get();
    EXPECT_TRUE(Has(copied.out, "\"result\":")) << "the copy had no end\n" << copied.Describe();
    // A copy may end whole before the unmount run takes the stick: what it left is checked alike.
    ASSERT_TRUE(WaitFor("LUM_TV_EVT_STORAGE_DEV_UMOUNT_END", downs + 1));
    EXPECT_EQ(CopyResults().size(), 1u);
    ExpectVolumes({"sdc1"});
    EXPECT_EQ(Sums(kB), sumsB_);
    // The copy engine is free for the next copy.
    Put(kB + "/small", "small");
    EXPECT_EQ(Op({"cp", kB + "/small", kB + "/small2"}), 0);
    EXPECT_EQ(Cat(kB + "/small2"), "small");
    ExpectStickBack();
    // Whatever arrived is whole, but for the one file the copy may have been writing when its source went.
    std::vector<std::string> differing = Split(Differing(copy, tree), '\n');
    EXPECT_LE(differing.size(), 1u) << Differing(copy, tree);
}

TEST_F(Faults, UnplugDuringAFormatFailsTheFormatAndLeavesTheStickAsItWas)
{
    StartSticks({HoldableEnv()});
    if (HasFatalFailure())
        return;
    MakeHoldable({"mkfs"});
    ASSERT_TRUE(Hold("mkfs", true));
    size_t downs = Events("LUM_TV_EVT_STORAGE_DEV_UMOUNT_END").size();
    auto formatting = Client([&] { return Ctl({"format", "/dev/sdb1", "--timeout", "120"}); });
    // The format has taken the volume off-line and waits at the tool.
    ASSERT_TRUE(WaitHeld("mkfs"));
    ASSERT_TRUE(tv.Unplug("a").ok());
    ASSERT_TRUE(Hold("mkfs", false));
    const Result formatted = formatting.get();
    EXPECT_EQ(formatted.status, 1) << formatted.Describe();
    EXPECT_TRUE(Has(formatted.out, "\"step\":\"result\",\"volume\":\"/dev/sdb1\",\"ok\":false"))
        << formatted.Describe();
    // Its result, after the watchdog's -3 should the hold have outlasted it.
    EXPECT_TRUE(lumrig::Until([&] {
        for (const std::string& line : Events("LUM_TV_EVT_STORAGE_FORMAT"))
            if (Has(line, "\"devName\":\"/dev/sdb1\",\"result\":-1"))
                return true;
        return false;
    })) << testing::PrintToString(Events("LUM_TV_EVT_STORAGE_FORMAT"));
    // The format's own unmount, then the unplug's.
    ASSERT_TRUE(WaitFor("LUM_TV_EVT_STORAGE_DEV_UMOUNT_END", downs + 2));
    ExpectVolumes({"sdc1"});
    ExpectStickBack();
}

TEST_F(Faults, FullQueueRefusesTheExtraAtOnceRunsTheRestAndLosesNoPlug)
{
    StartService(kSticks, {"b"}, {HoldableEnv()});
    if (HasFatalFailure())
        return;
    std::vector<pid_t> daemon = TvPids("lumstoraged");
    ASSERT_EQ(daemon.size(), 1u);
    MakeHoldable({"df"});
    ASSERT_TRUE(Hold("df", true));
    // The first request takes the service thread to the held df.
    ASSERT_TRUE(Has(Ctl({"get-device-size", "held", "0"}).out, "\"value\":true"));
    ASSERT_TRUE(WaitHeld("df"));
    // Fifteen at once: the queue (depth 10) takes ten, the others are refused while the service thread still waits.
    std::vector<std::future<Result>> clients;
    for (size_t i = 0; i < 15; ++i)
        clients.push_back(Client([this, i] { return Ctl({"get-device-size", "q" + std::to_string(i), "0"}); }));
    std::vector<Result> replies;
    for (auto& client : clients)
        replies.push_back(client.get());
    std::multiset<std::string> taken{"held"};
    for (size_t i = 0; i < replies.size(); ++i) {
        ASSERT_TRUE(replies[i].ok()) << replies[i].Describe();
        if (Has(replies[i].out, "\"value\":true"))
            taken.insert("q" + std::to_string(i));
        else
            EXPECT_TRUE(Has(replies[i].out, "\"value\":false")) << replies[i].out;
    }
    EXPECT_EQ(taken.size(), 11u);
    EXPECT_EQ(tv.Exec("test -e /run/hold.df").status, 0) << "the answers came only once the service thread was free";
    // A stick plugged now finds the queue full.
    ASSERT_TRUE(tv.Plug("a").ok());
    ASSERT_TRUE(WaitForLog("] add@/devices/", 2));
    ASSERT_TRUE(Hold("df", false));
    // Every request taken runs once; the plug is not lost.
    ASSERT_TRUE(WaitFor("LUM_TV_EVT_STORAGE_HDD_GET_SIZE", taken.size()));
    ASSERT_TRUE(WaitFor("LUM_TV_EVT_STORAGE_DEV_MOUNT_END", 2, 60)) << "the stick plugged into a full queue was lost";
    std::multiset<std::string> answered;
    for (const std::string& line : Events("LUM_TV_EVT_STORAGE_HDD_GET_SIZE")) {
        std::multiset<std::string> device = Values(line, "device");
        answered.insert(device.empty() ? line : *device.begin());
    }
    EXPECT_EQ(answered, taken);
    ExpectVolumes({"sdb1", "sdc1"});
    EXPECT_EQ(TvPids("lumstoraged"), daemon);
    EXPECT_FALSE(Has(tv.Log("lumstoraged"), "double free"));
}

}  // namespace
}  // namespace e2e
