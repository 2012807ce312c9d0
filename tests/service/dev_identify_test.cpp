// The text picking of device identification, against fake blkid, mount and readlink that print captured
// output. Real tools on real disks are the rig tests' matter.
#include "DevIdentify.h"
#include "fake_tools.h"
#include "test_support.h"

TEST(Utf8, StrictChecks)
{
    EXPECT_TRUE(is_valid_utf8(nullptr));
    EXPECT_TRUE(is_valid_utf8(""));
    EXPECT_TRUE(is_valid_utf8("plain ascii"));
    EXPECT_TRUE(is_valid_utf8("\xE4\xB8\xAD\xE6\x96\x87"));
    EXPECT_TRUE(is_valid_utf8("\xF4\x8F\xBF\xBF"));
    EXPECT_FALSE(is_valid_utf8("\xC0\x80"));          // overlong
    EXPECT_FALSE(is_valid_utf8("\xE0\x80\xAF"));      // overlong
    EXPECT_FALSE(is_valid_utf8("\xED\xA0\x80"));      // surrogate
    EXPECT_FALSE(is_valid_utf8("\xF4\x90\x80\x80"));  // above U+10FFFF
    EXPECT_FALSE(is_valid_utf8("\x80"));
    EXPECT_FALSE(is_valid_utf8("\xE4\xB8"));          // cut off by the terminator
    EXPECT_FALSE(is_valid_utf8("\xF8\x88\x80\x80\x80"));
    EXPECT_FALSE(is_valid_utf8("\xD6\xD0\xCE\xC4"));  // GBK bytes
}

TEST_F(FakeTools, SysPathEndsAtTheUsbDeviceDirectory)
{
    output("readlink", "/sys/devices/pci0000:00/0000:00:14.0/usb1/1-1/1-1:1.0/host6/target6:0:0/6:0:0:0\n");
    char path[256];
    ASSERT_TRUE(get_dev_sys_path("sdb", path, sizeof(path)));
    // The first colon is in the PCI part: the cut happens there.
    EXPECT_STREQ(path, "/sys/devices/");
    output("readlink", "/sys/devices/platform/usb1/1-1/1-1:1.0/host6/target6:0:0/6:0:0:0\n");
    ASSERT_TRUE(get_dev_sys_path("sdb", path, sizeof(path)));
    EXPECT_STREQ(path, "/sys/devices/platform/usb1/1-1/");
    output("readlink", "/sys/devices/virtual/block/sdb\n");
    ASSERT_TRUE(get_dev_sys_path("sdb", path, sizeof(path)));
    EXPECT_STREQ(path, "/sys/devices/virtual/block/sdb\n");  // no colon: whole, line end and all
    EXPECT_FALSE(get_dev_sys_path("sd;b", path, sizeof(path)));
}

TEST_F(FakeTools, ConnectionTypes)
{
    EXPECT_EQ(get_dev_connection_type("VEN_04E8&PID_6860"), AS_HD_DISK_TYPE_PTP);
    EXPECT_EQ(calls(), "");  // no command for an MTP id
    EXPECT_EQ(get_dev_connection_type("/dev/sda1"), AS_HD_DISK_TYPE_NONE);
    EXPECT_EQ(get_dev_connection_type("sda"), AS_HD_DISK_TYPE_NONE);
    // A resolvable link is enough, even with no idVendor to read.
    output("readlink", "/tmp/fake/usb1/1-1/1-1:1.0/host6\n");
    EXPECT_EQ(get_dev_connection_type("/dev/sda"), AS_HD_DISK_TYPE_USB_EXTERNAL);
}

TEST_F(FakeTools, LabelsPickTheFirstLabelMarkerAndConvertFatFromGbk)
{
    char label[32] = {0};
    output("blkid", "/dev/sdb1: LABEL=\"\xD6\xD0\xCE\xC4\xB1\xEA\" UUID=\"1234-ABCD\" TYPE=\"vfat\"\n");
    EXPECT_EQ(get_label_for_dev_name("/dev/sdb1", label, sizeof(label)), 0);
    EXPECT_STREQ(label, "\xE4\xB8\xAD\xE6\x96\x87\xE6\xA0\x87");  // 6 GBK bytes, 9 UTF-8 bytes
    // Not GBK: the partition's name stands for the label.
    char bad[32] = {0};
    output("blkid", "/dev/sdb1: LABEL=\"\xFF\xFF\" TYPE=\"vfat\"\n");
    EXPECT_EQ(get_label_for_dev_name("/dev/sdb1", bad, sizeof(bad)), 0);
    EXPECT_STREQ(bad, "sdb1");
    char none[32] = {0};
    std::string line = "/dev/sdb1: UUID=\"1234-ABCD\" TYPE=\"vfat\"\n";
    output("blkid", line);
    EXPECT_EQ(get_label_for_dev_name("/dev/sdb1", none, sizeof(none)), static_cast<int>(line.size()));
    EXPECT_STREQ(none, "");
    char part[32] = {0};
    output("blkid", "/dev/sdb2: UUID=\"u\" TYPE=\"ext4\" PARTLABEL=\"primary\"\n");
    EXPECT_EQ(get_label_for_dev_name("/dev/sdb2", part, sizeof(part)), 0);
    EXPECT_STREQ(part, "primary");
}

TEST_F(FakeTools, LabelsThatDoNotFitAreNotTaken)
{
    LogCapture log;
    char label[32] = {0};
    output("blkid", "/dev/sdb1: LABEL=\"abcdefghijklmnopqrstuvwxy\" TYPE=\"ntfs\"\n");  // 25 bytes
    EXPECT_GT(get_label_for_dev_name("/dev/sdb1", label, sizeof(label)), 0);
    EXPECT_STREQ(label, "");
    EXPECT_TRUE(log.has("pc1 is null!"));
    // 24 bytes fit; 8 GBK characters grow to 24 UTF-8 bytes and still fit 32.
    char fat[32] = {0};
    output("blkid", "/dev/sdb1: LABEL=\"\xD6\xD0\xD6\xD0\xD6\xD0\xD6\xD0\xD6\xD0\xD6\xD0\xD6\xD0\xD6\xD0\" TYPE=\"vfat\"\n");
    EXPECT_EQ(get_label_for_dev_name("/dev/sdb1", fat, 32), 0);
    EXPECT_EQ(strlen(fat), 24u);
    // In a 20-byte buffer the UTF-8 label is cut between characters.
    char small[20] = {0};
    output("blkid", "/dev/sdb1: LABEL=\"\xD6\xD0\xD6\xD0\xD6\xD0\xD6\xD0\xD6\xD0\xD6\xD0\" TYPE=\"vfat\"\n");
    EXPECT_EQ(get_label_for_dev_name("/dev/sdb1", small, 20), 0);
    EXPECT_EQ(strlen(small), 18u);
    EXPECT_TRUE(is_valid_utf8(small));
}

TEST_F(FakeTools, MountPathsAndTypes)
{
    output("mount",
           "/dev/sdb10 on /mnt/pvr/shared/sdb10 type ext4 (rw)\n"
           "/dev/sdb1 on /mnt/pvr/shared/sdb1 type vfat (rw)\n"
           "/dev/sdc1 on /media/other type vfat (rw)\n");
    char path[64];
    // The pattern stars the last character: sdb1 also matches the sdb10 line.
    EXPECT_EQ(get_mount_path_of_device("/dev/sdb1", path, sizeof(path)), 21);
    EXPECT_STREQ(path, "/mnt/pvr/shared/sdb10");
    EXPECT_EQ(get_mount_path_of_device("/dev/sdc1", path, sizeof(path)), 0);  // not under shared
    EXPECT_EQ(get_mount_path_of_device("/dev/sdb1", path, 10), 0);            // does not fit
    EXPECT_EQ(get_mount_path_of_device("/dev/sdb1", nullptr, 10), 0);
    char dev[32] = {0};
    get_dev_name_for_mount_point("/mnt/pvr/shared/sdb1", dev, sizeof(dev));
    EXPECT_STREQ(dev, "/dev/sdb10");
    char type[32] = {0};
    char line[] = "/dev/sdb1 on /mnt/pvr/shared/sdb1 type fuseblk (rw,relatime)";
    EXPECT_EQ(get_fs_type_callback(type, line), 1);
    EXPECT_STREQ(type, "fuseblk");
    char endsAtType[] = "x on y type";
    char type3[32] = {0};
    EXPECT_EQ(get_fs_type_callback(type3, endsAtType), 1);
    EXPECT_STREQ(type3, "");
}

TEST_F(FakeTools, UuidsBothWays)
{
    output("blkid", "/dev/sdb2: LABEL=\"data\" UUID=\"0f1e2d3c-aaaa\" TYPE=\"ext4\" PARTUUID=\"p-1\"\n");
    char dev[32] = {0};
    EXPECT_EQ(get_dev_name_for_uuid("0f1e2d3c-aaaa", dev, sizeof(dev)), 0);
    EXPECT_STREQ(dev, "/dev/sdb2");
    char tiny[5] = {0};
    EXPECT_GT(get_dev_name_for_uuid("0f1e2d3c-aaaa", tiny, sizeof(tiny)), 0);
    EXPECT_STREQ(tiny, "");
    char uuid[64] = {0};
    EXPECT_EQ(get_uuid_for_dev_name("/dev/sdb2", uuid, sizeof(uuid)), 0);
    EXPECT_STREQ(uuid, "0f1e2d3c-aaaa");
    output("blkid", "/dev/sdb3: TYPE=\"ext4\" PARTUUID=\"p-3\"\n");
    char puuid[64] = {0};
    EXPECT_EQ(get_uuid_for_dev_name("/dev/sdb3", puuid, sizeof(puuid)), 0);
    EXPECT_STREQ(puuid, "p-3");
    output("blkid", "");
    char empty[64] = {0};
    EXPECT_EQ(get_uuid_for_dev_name("/dev/sdb9", empty, sizeof(empty)), 0);
    EXPECT_EQ(get_dev_name_for_uuid(nullptr, empty, sizeof(empty)), -1);
}

