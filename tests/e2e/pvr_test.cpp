// The PVR partition chosen, remembered, marked and lost, and the guide the user interface gets, end to end on
// the simulated television (the choices on rows made by hand: the unit suite's pvr_test).
#include "rig_fixture.h"

namespace e2e {
namespace {
class Pvr : public ServiceRig {
protected:
    // rec.enable, tshift.enable, device_size_limit.
    static std::string Props(const std::string& rec, const std::string& tsh, const std::string& limit)
    {
        return PvrProperties("rec.enable=" + rec + " tshift.enable=" + tsh + " device_size_limit=" + limit);
    }
    std::string Property(const std::string& key) { return tv.Exec("cat /run/properties/" + key + " 2>/dev/null").out; }
    // Index of the first event of that name at or after `from`, or -1.
    int IndexOf(const std::string& name, int from = 0)
    {
        auto all = Events();
        for (size_t i = static_cast<size_t>(from); i < all.size(); ++i) {
            if (Has(all[i], "\"event\":\"" + name + "\""))
                return static_cast<int>(i);
        }
        return -1;
    }
    std::string Reply(const std::vector<std::string>& args) { return Ctl(args).out; }
};

TEST_F(Pvr, FirstPlugWithTimeshiftChoosesRemembersAndSurvivesARestart)
{
    StartService("disk stick size=64M table=msdos plugged=no\n  part fs=vfat label=TSH\n", {"stick"}, {},
                 Props("0", "1", "10"));
    int mount = IndexOf("LUM_TV_EVT_STORAGE_DEV_MOUNT");
    int change = IndexOf("LUM_TV_EVT_STORAGE_PVR_DEV_CHANGE");
    int guide = IndexOf("LUM_TV_EVT_STORAGE_CONNECT_STATE");
    int end = IndexOf("LUM_TV_EVT_STORAGE_DEV_MOUNT_END");
    ASSERT_TRUE(mount >= 0 && change > mount && guide > change && end > guide)
        << mount << " " << change << " " << guide << " " << end;
    EXPECT_EQ(Events("LUM_TV_EVT_STORAGE_PVR_DEV_CHANGE").size(), 1u);
    EXPECT_TRUE(Has(Events()[change], "\"mountPoint\":\"/mnt/pvr/shared/sdb1\"")) << Events()[change];
    EXPECT_TRUE(Has(Events()[guide], "\"len\":63000")) << Events()[guide].substr(0, 200);
    EXPECT_TRUE(Has(Events()[guide], "\"show\":false")) << Events()[guide].substr(0, 200);
    std::string identity = Property("persist.pvr.identity.id");
    ASSERT_EQ(identity.size(), 17u) << identity;
    EXPECT_EQ(tv.Exec("test -f /mnt/pvr/shared/sdb1/" + identity).status, 0);
    EXPECT_TRUE(Has(Reply({"pvr-dev-state"}), "\"value\":true"));
    EXPECT_TRUE(Has(Reply({"pvr-mount-path"}), "\"value\":\"/mnt/pvr/shared/sdb1\""));
    // A restart forgets the choice; the run for the disks present at start
    // finds the same partition by its identity and writes nothing new.
    ASSERT_TRUE(tv.Stop("lumstoraged").ok());
    StartServiceOnly();
    ASSERT_TRUE(WaitFor("LUM_TV_EVT_STORAGE_DEV_MOUNT_END", 1, 30));
    EXPECT_TRUE(Has(Events("LUM_TV_EVT_STORAGE_DEV_MOUNT_END")[0], "\"count\":0"));
    EXPECT_TRUE(Has(Reply({"pvr-mount-path"}), "\"value\":\"/mnt/pvr/shared/sdb1\""));
    EXPECT_EQ(tv.Exec("ls -a /mnt/pvr/shared/sdb1 | grep -c '\\.ide$'").out, "1\n");
    EXPECT_EQ(Property("persist.pvr.identity.id"), identity);
}

TEST_F(Pvr, RecordingOnlyOffersToFormatAFatStick)
{
    StartService("disk stick size=64M table=msdos plugged=no\n  part fs=vfat label=REC\n", {"stick"}, {},
                 Props("1", "0", "10"));
    EXPECT_TRUE(Events("LUM_TV_EVT_STORAGE_PVR_DEV_CHANGE").empty());
    auto guide = Events("LUM_TV_EVT_STORAGE_CONNECT_STATE");
    ASSERT_EQ(guide.size(), 1u);
    EXPECT_TRUE(Has(guide[0], "\"show\":true,\"event\":1,\"partitionNum\":1,\"partitions\":[{\"devName\":\"/dev/sdb1\""))
        << guide[0].substr(0, 300);
    // The direct query gives the same record.
    std::string direct = Reply({"pvr-get-dev-guide-info"});
    EXPECT_TRUE(Has(direct, "\"result\":0")) << direct.substr(0, 200);
}

TEST_F(Pvr, MarkingWithFormatOnADiskTooSmallFormatsFirstThenRefuses)
{
    StartService("disk stick size=64M table=msdos plugged=no\n  part fs=vfat label=SMALL\n    file /old.txt text=old\n",
                 {"stick"}, {}, Props("1", "0", "1000"));
    int from = static_cast<int>(Events().size());
    ASSERT_TRUE(Ctl({"pvr-mark-dev", "/dev/sdb1", "true"}).ok());
    ASSERT_TRUE(WaitFor("LUM_TV_EVT_STORAGE_PVR_MARK", 1, 120));
    int format = IndexOf("LUM_TV_EVT_STORAGE_FORMAT", from);
    int mark = IndexOf("LUM_TV_EVT_STORAGE_PVR_MARK", from);
    ASSERT_TRUE(format > from && mark > format) << format << " " << mark;
    EXPECT_TRUE(Has(Events()[format], "\"result\":0"));
    EXPECT_TRUE(Has(Events()[mark], "\"isPvrPartition\":false,\"pvrFlag\":1,")) << Events()[mark];
    // Recording formats ext4; the old file is gone.
    EXPECT_TRUE(Has(Mounts(), "/dev/sdb1 on /mnt/pvr/shared/sdb1 type ext4")) << Mounts();
    EXPECT_NE(tv.Exec("test -f /mnt/pvr/shared/sdb1/old.txt").status, 0);
    EXPECT_TRUE(Has(Reply({"pvr-dev-state"}), "\"value\":false"));
}

// Three disks: two partitions on one (ext4, FAT), NTFS, and ext4 made read-only
// once mounted. The size limit 0 keeps the automatic choice out of the way.
const char* kThreeDisks =
    "disk two size=64M table=msdos plugged=no\n  part size=32M fs=ext4 label=E\n  part fs=vfat label=F\n"
    "disk nt size=32M table=msdos plugged=no\n  part fs=ntfs label=N\n"
    "disk ro size=32M table=msdos plugged=no\n  part fs=ext4 label=R\n";

TEST_F(Pvr, VerdictsMarkingAndAPlugOutThatIsNotThePvrDisk)
{
    StartService(kThreeDisks, {"two", "nt", "ro"}, {}, Props("1", "0", "0"));
    ASSERT_TRUE(tv.Exec("mount -o remount,ro /mnt/pvr/shared/sdd1").ok());
    // The direct query. A disk counts only with exactly one mounted partition;
    // the mount path passes the checks too, since df's line names it.
    const struct {
        const char* disk;
        int verdict;
    } kAvailable[] = {{"", 5}, {"/dev/sdb", 2}, {"/dev/sdb1", 0}, {"/dev/sdb2", 0}, {"/dev/sdc1", 2},
                      {"/dev/sdd1", 0}, {"/mnt/pvr/shared/sdb1", 0}};
    for (const auto& row : kAvailable) {
        std::string reply = Reply({"pvr-dev-available", row.disk});
        EXPECT_TRUE(Has(reply, "\"value\":" + std::to_string(row.verdict))) << row.disk << ": " << reply;
    }
    EXPECT_TRUE(Has(tv.Log("lumstoraged"), "The partition type is fuseblk, not usable!"));
    // Marking, one verdict per row (-1: no event at all). The mount path has no line "PATH. on " in mount's
    // listing; the read-only volume takes no identity file; the second good marking replaces the first.
    const struct {
        const char* disk;
        int verdict;
    } kMarks[] = {{"", -1}, {"/dev/sdc1", 2}, {"/mnt/pvr/shared/sdb1", 3}, {"/dev/sdd1", 4},
                  {"/dev/sdb1", 0}, {"/dev/sdb2", 0}};
    size_t marks = 0;
    for (const auto& row : kMarks) {
        ASSERT_TRUE(Ctl({"pvr-mark-dev", row.disk, "false"}).ok()) << row.disk;
        if (row.verdict < 0)
            continue;
        ASSERT_TRUE(WaitFor("LUM_TV_EVT_STORAGE_PVR_MARK", ++marks)) << row.disk;
        std::string mark = Events("LUM_TV_EVT_STORAGE_PVR_MARK").back();
        EXPECT_TRUE(Has(mark, std::string("\"isPvrPartition\":") + (row.verdict == 0 ? "true" : "false") +
                                  ",\"pvrFlag\":" + std::to_string(row.verdict) + ",\"partitionId\":\"" +
                                  row.disk + "\""))
            << mark;
        if (std::string(row.disk) == "/dev/sdb1") {
            EXPECT_TRUE(Events("LUM_TV_EVT_STORAGE_PVR_DEV_CHANGE").empty()) << "a first marking is no change";
        }
    }
    auto changes = Events("LUM_TV_EVT_STORAGE_PVR_DEV_CHANGE");
    ASSERT_EQ(changes.size(), 1u);
    EXPECT_TRUE(Has(changes[0], "/mnt/pvr/shared/sdb2")) << changes[0];
    int change = IndexOf("LUM_TV_EVT_STORAGE_PVR_DEV_CHANGE");
    EXPECT_LT(change, IndexOf("LUM_TV_EVT_STORAGE_PVR_MARK", change));
    EXPECT_TRUE(Has(Reply({"pvr-mount-path"}), "\"value\":\"/mnt/pvr/shared/sdb2\""));
    // With a limit both processes act: the NTFS disk going is no PVR news, the disk of the chosen FAT
    // partition going is; the read-only volume left cannot take over.
    ASSERT_TRUE(tv.Exec(Props("1", "1", "10")).ok());
    ASSERT_TRUE(tv.Unplug("nt").ok());
    ASSERT_TRUE(WaitFor("LUM_TV_EVT_STORAGE_DEV_UMOUNT_END", 1, 90));
    EXPECT_TRUE(Events("LUM_TV_EVT_STORAGE_PVR_PLUG_OUT").empty());
    EXPECT_TRUE(Has(Reply({"pvr-mount-path"}), "\"value\":\"/mnt/pvr/shared/sdb2\""));
    ASSERT_TRUE(tv.Unplug("two").ok());
    ASSERT_TRUE(WaitFor("LUM_TV_EVT_STORAGE_DEV_UMOUNT_END", 2, 90));
    auto out = Events("LUM_TV_EVT_STORAGE_PVR_PLUG_OUT");
    ASSERT_EQ(out.size(), 1u);
    EXPECT_TRUE(Has(out[0], "/mnt/pvr/shared/sdb2")) << out[0];
    EXPECT_TRUE(Has(Reply({"pvr-dev-state"}), "\"value\":false"));
}

}  // namespace
}  // namespace e2e
