// Plug-in, plug-out, mount and unmount requests, MTP devices and the device table, end to end: the service
// inside the simulated television with real disk images, blkid, mount, df, e2fsck, ntfs-3g.
#include "rig_fixture.h"

namespace e2e {
namespace {
const char* kStick =
    "disk stick size=128M table=msdos plugged=no vendor=SanDisk model=\"Cruzer Blade\" serial=4C530001\n"
    "  part size=48M fs=vfat label=hex:D6D0CEC4\n"
    "    file /readme.txt text=hello\n"
    "  part fs=ext4 label=DATA\n";

class Devices : public ServiceRig {};

TEST_F(Devices, FatAndExt4StickIsMountedAnnouncedAndListed)
{
    StartService(kStick, {"stick"});
    auto mounted = Events("LUM_TV_EVT_STORAGE_DEV_MOUNT");
    ASSERT_EQ(mounted.size(), 2u);
    std::string fat = Has(mounted[0], "sdb1") ? mounted[0] : mounted[1];
    std::string ext = Has(mounted[0], "sdb2") ? mounted[0] : mounted[1];
    EXPECT_TRUE(Has(fat, "\"len\":154")) << fat;
    EXPECT_TRUE(Has(fat, "\"mountPoint\":\"/mnt/pvr/shared/sdb1\",\"label\":\"中文\",\"labelLen\":6,\"fsType\":\"vfat\""))
        << fat;
    EXPECT_TRUE(Has(ext, "\"mountPoint\":\"/mnt/pvr/shared/sdb2\",\"label\":\"DATA\",\"labelLen\":4,\"fsType\":\"ext4\""))
        << ext;
    EXPECT_TRUE(Has(Events("LUM_TV_EVT_STORAGE_DEV_MOUNT_END")[0], "\"count\":2"));
    std::string mounts = Mounts();
    EXPECT_TRUE(Has(mounts, "/dev/sdb1 on /mnt/pvr/shared/sdb1 type vfat")) << mounts;
    EXPECT_TRUE(Has(mounts, "/dev/sdb2 on /mnt/pvr/shared/sdb2 type ext4")) << mounts;
    EXPECT_EQ(tv.Exec("cat /mnt/pvr/shared/sdb1/readme.txt").out, "hello");
    // Both forms of the table: the disk with its USB identity, two partitions.
    ASSERT_TRUE(Ctl({"get-storage-volumes"}).ok());
    ASSERT_TRUE(WaitFor("LUM_TV_EVT_STORAGE_GET_DEV_TABLE", 2));
    std::string rows = Events("LUM_TV_EVT_STORAGE_GET_DEV_TABLE").back();
    EXPECT_TRUE(Has(rows, "\"len\":2952")) << rows;
    EXPECT_TRUE(Has(rows, "{\"devName\":\"/dev/sdb\",\"conn\":6,")) << rows;
    EXPECT_TRUE(Has(rows, "\"serial\":\"4C530001\"")) << rows;
    EXPECT_TRUE(Has(rows, "{\"devName\":\"/dev/sdb1\",\"conn\":0,\"mountPoint\":\"/mnt/pvr/shared/sdb1\",\"fsType\":\"vfat\",\"label\":\"中文\""))
        << rows;
    std::string table = Events("LUM_TV_EVT_STORAGE_GET_STORAGE_VOLUMES").back();
    EXPECT_TRUE(Has(table, "{\"node\":\"/dev/sdb2\",\"mountPoint\":\"/mnt/pvr/shared/sdb2\",")) << table;
    // The size query agrees with df.
    Result total = Ctl({"partition-total-size", "/mnt/pvr/shared/sdb2"});
    std::string df = tv.Exec("df -Pm /mnt/pvr/shared/sdb2 | awk 'NR==2 {print $2}'").out;
    EXPECT_TRUE(Has(total.out, "\"value\":" + df.substr(0, df.size() - 1))) << total.out << " df " << df;
    EXPECT_TRUE(Has(Ctl({"partition-fs-type", "/mnt/pvr/shared/sdb1"}).out, "\"value\":\"vfat\""));
}

TEST_F(Devices, NtfsIsFuseblkWhenMountedAndNtfsInTheTable)
{
    StartService("disk hdd size=96M table=gpt plugged=no\n  part fs=ntfs label=Movies\n", {"hdd"});
    auto mounted = Events("LUM_TV_EVT_STORAGE_DEV_MOUNT");
    ASSERT_EQ(mounted.size(), 1u);
    EXPECT_TRUE(Has(mounted[0], "\"label\":\"Movies\",\"labelLen\":6,\"fsType\":\"fuseblk\"")) << mounted[0];
    ASSERT_TRUE(Ctl({"get-storage-volumes"}).ok());
    ASSERT_TRUE(WaitFor("LUM_TV_EVT_STORAGE_GET_DEV_TABLE", 2));
    EXPECT_TRUE(Has(Events("LUM_TV_EVT_STORAGE_GET_DEV_TABLE").back(), "\"fsType\":\"ntfs\""));
}

TEST_F(Devices, DamagedExt4IsRepairedAndAnUnrepairableOneLeavesNoDirectory)
{
    StartService(
        "disk good size=64M table=msdos plugged=no\n  part fs=ext4 label=FIXME damage=fixable\n"
        "disk bad size=64M table=msdos plugged=no\n  part fs=ext4 label=BROKEN damage=unfixable\n");
    ASSERT_TRUE(tv.Plug("good").ok());
    ASSERT_TRUE(WaitFor("LUM_TV_EVT_STORAGE_DEV_MOUNT_END"));
    ASSERT_EQ(Events("LUM_TV_EVT_STORAGE_DEV_MOUNT").size(), 1u);
    EXPECT_TRUE(Has(Events("LUM_TV_EVT_STORAGE_DEV_MOUNT")[0], "\"label\":\"FIXME\""));
    EXPECT_TRUE(Has(tv.Log("lumstoraged"), "<FS>: try to repair the filesystem:  e2fsck -f -p -v"));
    const std::string bad = tv.Plug("bad").Line();
    ASSERT_TRUE(WaitFor("LUM_TV_EVT_STORAGE_DEV_MOUNT_END", 2, 90));
    EXPECT_TRUE(Has(Events("LUM_TV_EVT_STORAGE_DEV_MOUNT_END")[1], "\"count\":0"));
    EXPECT_EQ(Events("LUM_TV_EVT_STORAGE_DEV_MOUNT").size(), 1u);
    EXPECT_NE(tv.Exec("test -d /mnt/pvr/shared/" + bad + "1").status, 0) << "mount point left behind";
}

TEST_F(Devices, ExfatIsRefusedWithoutADirectory)
{
    StartService("disk ex size=64M table=msdos plugged=no\n  part fs=exfat label=EX\n");
    ASSERT_TRUE(tv.Plug("ex").ok());
    ASSERT_TRUE(WaitFor("LUM_TV_EVT_STORAGE_DEV_MOUNT_END", 1, 90));
    EXPECT_TRUE(Has(Events("LUM_TV_EVT_STORAGE_DEV_MOUNT_END")[0], "\"count\":0"));
    EXPECT_TRUE(Events("LUM_TV_EVT_STORAGE_DEV_MOUNT").empty());
    EXPECT_EQ(tv.Exec("ls /mnt/pvr/shared").out, "");
    EXPECT_TRUE(Has(tv.Log("lumstoraged"), "<FS> 'filesystem 'exfat' not supported"));
}

TEST_F(Devices, PlugOutTakesDownOnlyTheStickThatWent)
{
    StartService(
        "disk a size=64M table=msdos plugged=no\n  part fs=ext4 label=A\n"
        "disk b size=64M table=msdos plugged=no\n  part fs=ext4 label=B\n");
    const std::string a = tv.Plug("a").Line(), b = tv.Plug("b").Line();
    ASSERT_TRUE(WaitFor("LUM_TV_EVT_STORAGE_DEV_MOUNT", 2));
    ASSERT_TRUE(tv.Unplug("a").ok());
    ASSERT_TRUE(WaitFor("LUM_TV_EVT_STORAGE_DEV_UMOUNT_END", 1, 90));
    auto down = Events("LUM_TV_EVT_STORAGE_DEV_UMOUNT");
    ASSERT_EQ(down.size(), 1u);
    EXPECT_TRUE(Has(down[0], "\"mountPoint\":\"/mnt/pvr/shared/" + a + "1\"")) << down[0];
    EXPECT_TRUE(Has(Events("LUM_TV_EVT_STORAGE_DEV_UMOUNT_END")[0], "\"count\":1"));
    std::string mounts = Mounts();
    EXPECT_FALSE(Has(mounts, "/mnt/pvr/shared/" + a + "1")) << mounts;
    EXPECT_TRUE(Has(mounts, "/mnt/pvr/shared/" + b + "1")) << mounts;
    EXPECT_NE(tv.Exec("test -d /mnt/pvr/shared/" + a + "1").status, 0);
    EXPECT_TRUE(Has(tv.Log("lumstoraged"), "Device /dev/" + b + "1 is still active"));
}

TEST_F(Devices, UnmountRequestTakesDownAPresentDeviceWithItsSwapFileOff)
{
    StartService(kStick, {"stick"});
    ASSERT_TRUE(tv.Exec("touch /mnt/pvr/shared/sdb2/.swapfile").ok());
    Result r = Ctl({"dev-umount", "/dev/sdb"});
    EXPECT_TRUE(Has(r.out, "\"value\":true")) << r.out;
    ASSERT_TRUE(WaitFor("LUM_TV_EVT_STORAGE_DEV_UMOUNT_END"));
    EXPECT_EQ(Events("LUM_TV_EVT_STORAGE_DEV_UMOUNT").size(), 2u);
    EXPECT_TRUE(Has(Events("LUM_TV_EVT_STORAGE_DEV_UMOUNT_END")[0], "\"count\":2"));
    EXPECT_EQ(Mounts(), "");
    // The device is still there: a mount request brings it back.
    ASSERT_TRUE(Ctl({"dev-mount", "/dev/sdb1"}).ok());
    ASSERT_TRUE(WaitFor("LUM_TV_EVT_STORAGE_DEV_MOUNT_END", 2));
    EXPECT_TRUE(Has(Events("LUM_TV_EVT_STORAGE_DEV_MOUNT_END")[1], "\"count\":2"));
    EXPECT_EQ(tv.Exec("test -f /mnt/pvr/shared/sdb2/.swapfile").status, 0) << "the swap file stays on the volume";
}

// Two phones, the one asked about in the second slot: the details given are its own.
TEST_F(Devices, MtpPhonesAreMountedListedAndTakenDownOneByOne)
{
    StartService(kStick);
    // A gone phone mounted by hand at a path no command may carry (left alone), then outside the mount folder.
    ASSERT_TRUE(tv.Cmd("mtp-add", {"--id", "VEN_1_PID_2_SER_3"}).ok());
    ASSERT_EQ(0, tv.Exec("d=\"/mnt/pvr/shared/o'd\"; mkdir \"$d\" /mnt/gone && mount -t mptpfs VEN_1_PID_2_SER_3 \"$d\" && "
                         "mount -t mptpfs VEN_1_PID_2_SER_3 /mnt/gone").status);
    ASSERT_TRUE(tv.Cmd("mtp-remove", {"0"}).ok());
    const std::string pixel = "VEN_18D1_PID_4EE1_SER_P7A", galaxy = "VEN_04E8_PID_6860_SER_R58M1";
    ASSERT_TRUE(tv.Cmd("mtp-add", {"--id", pixel, "--name", "Pixel", "--model", "Pixel 7"}).ok());
    ASSERT_TRUE(tv.Cmd("mtp-add", {"--id", galaxy, "--name", "Galaxy", "--model", "SM-G973F"}).ok());
    ASSERT_TRUE(Ctl({"dev-mount", galaxy}).ok());
    ASSERT_TRUE(WaitFor("LUM_TV_EVT_STORAGE_DEV_MOUNT_END"));
    EXPECT_TRUE(Has(Events("LUM_TV_EVT_STORAGE_DEV_MOUNT_END")[0], "\"count\":2"));
    EXPECT_TRUE(Events("LUM_TV_EVT_STORAGE_DEV_MOUNT").empty()) << "MTP volumes are not announced one by one";
    for (const std::string& id : {pixel, galaxy})
        EXPECT_TRUE(Has(Mounts(), id + " on /mnt/pvr/shared/" + id + " type mptpfs")) << id;
    ASSERT_TRUE(Ctl({"get-storage-volumes"}).ok());
    ASSERT_TRUE(WaitFor("LUM_TV_EVT_STORAGE_GET_DEV_TABLE", 2));
    EXPECT_TRUE(Has(Events("LUM_TV_EVT_STORAGE_GET_DEV_TABLE").back(), "{\"devName\":\"" + galaxy + "\",\"conn\":7,"));
    ASSERT_TRUE(Ctl({"get-storage-volume", galaxy}).ok());
    ASSERT_TRUE(WaitFor("LUM_TV_EVT_STORAGE_GET_DEV_INFO"));
    EXPECT_TRUE(Has(Events("LUM_TV_EVT_STORAGE_GET_DEV_INFO")[0], "\"status\":0,\"device\":{\"vendor\":\"Galaxy\",\"model\":\"SM-G973F\""));
    ASSERT_TRUE(tv.Cmd("mtp-remove", {"1"}).ok());
    ASSERT_TRUE(Ctl({"dev-umount", galaxy}).ok());
    ASSERT_TRUE(WaitFor("LUM_TV_EVT_STORAGE_DEV_UMOUNT_END"));
    // blkid knows no phone, so the run takes both phones' mounts down, not only the one unplugged; the
    // phones' own pass takes /mnt/gone, past the line it must leave.
    EXPECT_EQ(tv.Exec("mount | grep /mnt/ | cut -d' ' -f1-3").out, "VEN_1_PID_2_SER_3 on /mnt/pvr/shared/o'd\n");
}

// A phone the driver lists but whose storage it cannot give (its entries made by hand, no storage behind
// them) fails the MTP part of the run: the run counts 0 whatever came before in it, leaves the failed one's
// directory and tries no later slot.
TEST_F(Devices, MtpMountThatFailsEndsTheMtpPartOfTheRun)
{
    for (bool bad_first : {false, true}) {
        SCOPED_TRACE(bad_first ? "bad phone in slot 0" : "bad phone in slot 1");
        StartService("disk stick size=8M table=msdos plugged=no\n  part fs=ext4\n");
        const std::string bad = std::string("d=/proc/driver/mptp/") + (bad_first ? "0" : "1") +
                                " && mkdir -p $d && echo VEN_2_PID_2_SER_BAD > $d/id && echo 0 > $d/mount";
        ASSERT_TRUE(!bad_first || tv.Exec(bad).ok());
        ASSERT_TRUE(tv.Cmd("mtp-add", {"--id", "VEN_1_PID_1_SER_GOOD"}).ok());
        ASSERT_TRUE(bad_first || tv.Exec(bad).ok());
        ASSERT_TRUE(Ctl({"dev-mount", "VEN_1_PID_1_SER_GOOD"}).ok());
        ASSERT_TRUE(WaitFor("LUM_TV_EVT_STORAGE_DEV_MOUNT_END"));
        EXPECT_TRUE(Has(Events("LUM_TV_EVT_STORAGE_DEV_MOUNT_END")[0], "\"count\":0"));
        std::string mounts = tv.Exec("mount | grep mptpfs || true").out;
        EXPECT_EQ(Has(mounts, "VEN_1_PID_1_SER_GOOD on /mnt/pvr/shared/VEN_1_PID_1_SER_GOOD type mptpfs"), !bad_first)
            << mounts;
        EXPECT_FALSE(Has(mounts, "SER_BAD on")) << mounts;
        EXPECT_EQ(tv.Exec("test -d /mnt/pvr/shared/VEN_2_PID_2_SER_BAD").status, 0);
        EXPECT_TRUE(Has(tv.Log("lumstoraged"), "***E: mount VEN_2_PID_2_SER_BAD /mnt/pvr/shared/VEN_2_PID_2_SER_BAD"));
        StopRecorder();
        tv.Down();
    }
}

// Also: at start the mount directories left over go, those with a volume mounted stay.
TEST_F(Devices, HostileLabelsAndRequestsRunNothingAndStaleDirectoriesGoAtStart)
{
    StartService("disk stick size=64M table=msdos plugged=no\n  part fs=ext4 label='$(touch /tmp/pw)'\n", {"stick"}, {},
                 "mkdir -p /mnt/pvr/shared/sdc1 /mnt/pvr/shared/sdd1 && mount -t tmpfs sdd1 /mnt/pvr/shared/sdd1");
    EXPECT_NE(tv.Exec("test -d /mnt/pvr/shared/sdc1").status, 0);
    EXPECT_EQ(tv.Exec("test -d /mnt/pvr/shared/sdd1").status, 0);
    EXPECT_TRUE(Has(tv.Log("lumstoraged"), "clear 1 file in mount path"));
    EXPECT_TRUE(Has(Events("LUM_TV_EVT_STORAGE_DEV_MOUNT")[0], "\"label\":\"$(touch /tmp/pw)\""));
    Ctl({"get-uuid-for-path", "\"; touch /tmp/pw2; \""});
    Ctl({"partition-fs-type", "$(touch /tmp/pw3)"});
    Ctl({"dev-umount", "`touch /tmp/pw4`"});
    ASSERT_TRUE(WaitFor("LUM_TV_EVT_STORAGE_DEV_UMOUNT_END", 1, 90));
    EXPECT_EQ(tv.Exec("ls /tmp/pw* 2>/dev/null || true").out, "");
}

}  // namespace
}  // namespace e2e
