// Formatting end to end on the simulated television: the real mkfs.ext4 and mkfs.fat on disk images, the
// unmount and mount runs around them, and the events a client sees.
#include "rig_fixture.h"

namespace e2e {
namespace {
const std::vector<std::string> kRunEvents = {
    "LUM_TV_EVT_STORAGE_DEV_UMOUNT",    "LUM_TV_EVT_STORAGE_DEV_UMOUNT_END",     "LUM_TV_EVT_STORAGE_DEV_MOUNT",
    "LUM_TV_EVT_STORAGE_DEV_MOUNT_END", "LUM_TV_EVT_STORAGE_SET_ALL_PARTITION", "LUM_TV_EVT_STORAGE_FORMAT"};

class Format : public ServiceRig {
protected:
    // The television with the recording property as given, the service's
    // log verbose (command lines), the format tools held or failed at will.
    void StartFormatRig(const std::string& description, bool recording)
    {
        StartService(description, {"stick"}, {"LUM_LOG_LEVEL=v", HoldableEnv()},
                     PvrProperties(std::string("rec.enable=") + (recording ? "1" : "0")));
        if (!HasFatalFailure())
            MakeHoldable({"mkfs", "mkfs.ext4"});
    }
    // The events of a format run recorded from index `from` on, in order,
    // leaving out the others (PVR choices, guides, answers to queries).
    std::vector<std::string> RunEvents(size_t from) const
    {
        std::vector<std::string> out;
        auto all = Events();
        for (size_t i = from; i < all.size(); ++i) {
            for (const std::string& name : kRunEvents) {
                if (Has(all[i], "\"event\":\"" + name + "\""))
                    out.push_back(all[i]);
            }
        }
        return out;
    }
    static std::vector<std::string> Names(const std::vector<std::string>& lines)
    {
        std::vector<std::string> out;
        for (const std::string& line : lines) {
            size_t at = line.find("\"event\":\"") + 9;
            out.push_back(line.substr(at, line.find('"', at) - at));
        }
        return out;
    }
    std::string Blkid(const std::string& tag) const
    {
        return tv.Exec("blkid -p -o value -s " + tag + " /dev/sdb1 || true").out;
    }
    // df's size of the volume in MB, as the service reports it.
    std::string DfSize() const
    {
        return tv.Exec("df -Pm | awk '$1 == \"/dev/sdb1\" { print $2 }'").Line();
    }
    // The FAT adapter here reports no blocks for a while after a format, so a new FAT volume's size is
    // checked against its partition's: df's total lies a little below it.
    void ExpectFatSize(const std::string& reply) const
    {
        int partMB = std::stoi(tv.Exec("echo $(( $(blockdev --getsize64 /dev/sdb1) >> 20 ))").out);
        long long sizeMB = Number(reply, "sizeMB");
        EXPECT_LE(sizeMB, partMB) << reply;
        EXPECT_GE(sizeMB, partMB - 4) << reply;
    }
};

// The run's events and records are the unit suite's (format_unit_test); here what the real tools make of it.
TEST_F(Format, RecordingTelevisionFormatsExt4ForLargeFiles)
{
    StartFormatRig(
        "disk stick size=128M table=msdos plugged=no\n  part fs=ext4 label=OLDEXT\n    file /old.txt text=old\n",
        true);
    ASSERT_TRUE(tv.Exec("echo written > /mnt/pvr/shared/sdb1/written.txt && sync").ok());
    std::string uuid = Blkid("UUID");
    ASSERT_FALSE(uuid.empty());
    size_t from = Events().size();
    ASSERT_TRUE(Hold("mkfs", true));  // 20 s: with recording the watchdog gives a format 60 s, not 15
    ASSERT_TRUE(Has(Ctl({"dev-format", "/dev/sdb1"}).out, "\"value\":true"));
    std::this_thread::sleep_for(std::chrono::seconds(20));
    ASSERT_TRUE(Hold("mkfs", false));
    ASSERT_TRUE(WaitFor("LUM_TV_EVT_STORAGE_FORMAT", 1, 120));
    auto run = RunEvents(from);
    ASSERT_EQ(Names(run), kRunEvents);
    EXPECT_TRUE(Has(run[2], "\"mountPoint\":\"/mnt/pvr/shared/sdb1\",\"label\":\"\",\"labelLen\":0,\"fsType\":\"ext4\""))
        << run[2];
    std::string size = DfSize();
    ASSERT_FALSE(size.empty());
    EXPECT_TRUE(Has(run[4], "\"len\":27,\"data\":{\"retVal\":0,\"device\":\"/dev/sdb1\",\"sizeMB\":" + size +
                                ",\"part2MB\":0,\"part3MB\":0,\"part4MB\":0},\"complete\":true,\"rest\":\"\""))
        << run[4] << " df " << size;
    EXPECT_TRUE(Has(run[5], "\"len\":36,\"data\":{\"devName\":\"/dev/sdb1\",\"result\":0}")) << run[5];
    // A new, empty ext4 made for large files: one inode per MB, not per 4 KB.
    EXPECT_EQ(Blkid("TYPE"), "ext4\n");
    EXPECT_NE(Blkid("UUID"), uuid);
    EXPECT_EQ(Blkid("LABEL"), "");
    EXPECT_NE(tv.Exec("test -e /mnt/pvr/shared/sdb1/old.txt || test -e /mnt/pvr/shared/sdb1/written.txt").status, 0);
    std::string inodes = tv.Exec("dumpe2fs -h /dev/sdb1 2>/dev/null | awk -F: '/^Inode count/ { print $2 + 0 }'").out;
    ASSERT_FALSE(inodes.empty());
    EXPECT_LT(std::stoi(inodes), 1024) << inodes;
    EXPECT_TRUE(Has(tv.Exec("mount").out, "/dev/sdb1 on /mnt/pvr/shared/sdb1 type ext4"));
}

// A failing tool first leaves the old file system mounted with its files; the next format makes FAT32.
TEST_F(Format, TelevisionWithoutRecordingFormatsFat32AfterAFailureThatKeptTheOldOne)
{
    StartFormatRig(
        "disk stick size=128M table=msdos plugged=no\n  part fs=vfat label=OLDFAT\n    file /old.txt text=old\n",
        false);
    ASSERT_TRUE(tv.Exec("echo written > /mnt/pvr/shared/sdb1/written.txt && sync && touch /run/fail.mkfs").ok());
    std::string uuid = Blkid("UUID");
    size_t from = Events().size();
    ASSERT_TRUE(Ctl({"dev-format", "/dev/sdb1"}).ok());
    ASSERT_TRUE(WaitFor("LUM_TV_EVT_STORAGE_FORMAT", 1, 120));
    auto run = RunEvents(from);
    ASSERT_EQ(Names(run), kRunEvents);
    EXPECT_TRUE(Has(run[2], "\"label\":\"OLDFAT\"")) << run[2];
    EXPECT_TRUE(Has(run[4], "\"len\":11,\"data\":{\"retVal\":5,\"device\":\"/dev/sdb1\"},\"complete\":true,\"rest\":\"\""))
        << run[4];
    EXPECT_TRUE(Has(run[5], "\"len\":36,\"data\":{\"devName\":\"/dev/sdb1\",\"result\":-1}")) << run[5];
    EXPECT_EQ(Blkid("UUID"), uuid);
    EXPECT_EQ(tv.Exec("cat /mnt/pvr/shared/sdb1/old.txt").out, "old");
    EXPECT_TRUE(Has(tv.Exec("mount").out, "/dev/sdb1 on /mnt/pvr/shared/sdb1 type vfat"));
    ASSERT_TRUE(tv.Exec("rm /run/fail.mkfs").ok());
    from = Events().size();
    ASSERT_TRUE(Ctl({"dev-format", "/dev/sdb1"}).ok());
    ASSERT_TRUE(WaitFor("LUM_TV_EVT_STORAGE_FORMAT", 2, 120));
    run = RunEvents(from);
    ASSERT_EQ(Names(run), kRunEvents);
    EXPECT_TRUE(Has(run[2], "\"fsType\":\"vfat\"")) << run[2];
    EXPECT_TRUE(Has(run[4], "\"len\":27,\"data\":{\"retVal\":0,\"device\":\"/dev/sdb1\",\"sizeMB\":")) << run[4];
    EXPECT_TRUE(Has(run[4], ",\"part2MB\":0,\"part3MB\":0,\"part4MB\":0},\"complete\":true,\"rest\":\"\"")) << run[4];
    ExpectFatSize(run[4]);
    EXPECT_TRUE(Has(run[5], "\"len\":36,\"data\":{\"devName\":\"/dev/sdb1\",\"result\":0}")) << run[5];
    EXPECT_EQ(Blkid("TYPE"), "vfat\n");
    EXPECT_EQ(Blkid("VERSION"), "FAT32\n");
    EXPECT_NE(Blkid("UUID"), uuid);
    EXPECT_EQ(tv.Exec("ls /mnt/pvr/shared/sdb1").out, "");
}

TEST_F(Format, WatchdogReportsAnOverdueFormatWhichStillEndsWithItsResult)
{
    // Without recording the watchdog gives a format 15 s (not 60); this one is held until the test has seen the expiry.
    StartFormatRig("disk stick size=64M table=msdos plugged=no\n  part fs=vfat label=SLOW\n", false);
    ASSERT_TRUE(Hold("mkfs", true));
    ASSERT_TRUE(Ctl({"dev-format", "/dev/sdb1"}).ok());
    ASSERT_TRUE(WaitFor("LUM_TV_EVT_STORAGE_FORMAT", 1, 40));
    EXPECT_TRUE(Has(Events("LUM_TV_EVT_STORAGE_FORMAT")[0], "\"devName\":\"/dev/sdb1\",\"result\":-3"))
        << Events("LUM_TV_EVT_STORAGE_FORMAT")[0];
    EXPECT_TRUE(Events("LUM_TV_EVT_STORAGE_SET_ALL_PARTITION").empty());
    // Overdue still counts as running.
    ASSERT_TRUE(Ctl({"dev-format", "/dev/sdb1"}).ok());
    ASSERT_TRUE(WaitFor("LUM_TV_EVT_STORAGE_FORMAT", 2));
    EXPECT_TRUE(Has(Events("LUM_TV_EVT_STORAGE_FORMAT")[1], "\"devName\":\"/dev/sdb1\",\"result\":-2"));
    ASSERT_TRUE(Hold("mkfs", false));
    ASSERT_TRUE(WaitFor("LUM_TV_EVT_STORAGE_FORMAT", 3, 120));
    EXPECT_TRUE(Has(Events("LUM_TV_EVT_STORAGE_FORMAT")[2], "\"devName\":\"/dev/sdb1\",\"result\":0"));
    EXPECT_EQ(Events("LUM_TV_EVT_STORAGE_SET_ALL_PARTITION").size(), 1u);
    // The format is over: a new request is taken.
    ASSERT_TRUE(Ctl({"dev-format", "/dev/sdb1"}).ok());
    ASSERT_TRUE(WaitFor("LUM_TV_EVT_STORAGE_FORMAT", 4, 120));
    EXPECT_TRUE(Has(Events("LUM_TV_EVT_STORAGE_FORMAT")[3], "\"result\":0"));
}

TEST_F(Format, SetAllPartitionCommandRepliesWithoutAFormatRecordAlsoForAnUnmountedVolume)
{
    StartFormatRig(
        "disk stick size=64M table=msdos plugged=no\n  part fs=vfat label=CMD\n    file /old.txt text=old\n",
        false);
    // Off-line first: the unmount run of the format finds nothing.
    ASSERT_TRUE(Ctl({"dev-umount", "/dev/sdb1"}).ok());
    ASSERT_TRUE(WaitFor("LUM_TV_EVT_STORAGE_DEV_UMOUNT_END"));
    size_t from = Events().size();
    Result r = Ctl({"set-all-partition", "/dev/sdb1", "0"});
    EXPECT_TRUE(Has(r.out, "\"value\":true")) << r.out;
    ASSERT_TRUE(WaitFor("LUM_TV_EVT_STORAGE_SET_ALL_PARTITION", 1, 120));
    // The service thread ran the command: whatever it sent came before the answer to the next request.
    size_t volumes = Events("LUM_TV_EVT_STORAGE_GET_STORAGE_VOLUMES").size();
    ASSERT_TRUE(Ctl({"get-storage-volumes"}).ok());
    ASSERT_TRUE(WaitFor("LUM_TV_EVT_STORAGE_GET_STORAGE_VOLUMES", volumes + 1));
    auto run = RunEvents(from);
    ASSERT_EQ(Names(run), (std::vector<std::string>{"LUM_TV_EVT_STORAGE_DEV_UMOUNT_END", "LUM_TV_EVT_STORAGE_DEV_MOUNT",
                                                    "LUM_TV_EVT_STORAGE_DEV_MOUNT_END",
                                                    "LUM_TV_EVT_STORAGE_SET_ALL_PARTITION"}));
    EXPECT_TRUE(Has(run[0], "\"count\":0")) << run[0];
    EXPECT_TRUE(Has(run[3], "\"retVal\":0,\"device\":\"/dev/sdb1\",\"sizeMB\":")) << run[3];
    ExpectFatSize(run[3]);
    EXPECT_TRUE(Events("LUM_TV_EVT_STORAGE_FORMAT").empty());
    EXPECT_EQ(tv.Exec("ls /mnt/pvr/shared/sdb1").out, "");
    EXPECT_TRUE(Has(tv.Log("lumstoraged"), "Unmount again after blkid!"));
}

}  // namespace
}  // namespace e2e
