// Sizes, UUIDs and volume lists against fake df, mount and blkid output, and the command lines of mount and
// unmount runs against fake tools on a private tmpfs over /mnt.
#include <algorithm>
#include <cstdio>

#include "StorageModuleCmd.h"
#include "VolumeQuery.h"
#include "fake_tools.h"
#include "test_support.h"

namespace {
class VolumeQuery : public FakeTools {
protected:
    void SetUp() override
    {
        FakeTools::SetUp();
        output("df",
               "Filesystem 1048576-blocks Used Available Capacity Mounted on\n"
               "/dev/sdb10 900 100 800 12% /mnt/pvr/shared/sdb10\n"
               "/dev/sdb1 7631 1207 6424 16% /mnt/pvr/shared/sdb1\n"
               "/dev/sdc1 50 5 45 10% /media/other\n");
        output("mount",
               "/dev/sdb1 on /mnt/pvr/shared/sdb1 type vfat (rw)\n"
               "/dev/sdb10 on /mnt/pvr/shared/sdb10 type fuseblk (rw)\n");
        output("blkid", "/dev/sdb1: LABEL=\"STICK\" UUID=\"7A3C-11F0\" TYPE=\"vfat\"\n");
    }
};

}  // namespace

TEST_F(VolumeQuery, DfLinesMatchTheWholeDeviceNameOnly)
{
    EXPECT_EQ(determine_dev_size("/dev/sdb1"), 7631u);
    EXPECT_EQ(determine_dev_used_size("/dev/sdb1"), 1207u);
    EXPECT_EQ(determine_dev_used_size("/dev/sdb10"), 100u);
    // /dev/sdb is no df line and no block device here: 0.
    EXPECT_EQ(determine_dev_size("/dev/sdb"), 0u);
    EXPECT_EQ(determine_dev_used_size("/dev/sdc1"), 0u);  // outside the tree
    EXPECT_NE(calls().find("df -Pm"), std::string::npos);
}

TEST_F(VolumeQuery, SizeEventsRepeatTheWholeRequestedName)
{
    EventCapture events;
    theStorageManagerService.GetDevSize(reinterpret_cast<const unsigned char*>("/dev/sdb1"), 9);
    theStorageManagerService.GetDevUsedSize(reinterpret_cast<const unsigned char*>("/dev/sdb1"), 9);
    std::string longName = "/dev/" + std::string(65, 'x');  // 70 characters
    theStorageManagerService.GetDevSize(reinterpret_cast<const unsigned char*>(longName.c_str()), 70);
    auto got = events.events();
    ASSERT_EQ(got.size(), 3u);
    std::vector<unsigned char> want = be32(7631);
    want.insert(want.end(), {'/', 'd', 'e', 'v', '/', 's', 'd', 'b', '1', 0});
    EXPECT_EQ(got[0].id, LUM_TV_EVT_STORAGE_HDD_GET_SIZE);
    EXPECT_EQ(got[0].data, want);
    EXPECT_EQ(got[1].id, LUM_TV_EVT_STORAGE_HDD_GET_PARTITION_USE);
    EXPECT_EQ(std::vector<unsigned char>(got[1].data.begin(), got[1].data.begin() + 4), be32(1207));
    ASSERT_EQ(got[2].data.size(), 75u);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(got[2].data.data()) + 4), longName);
}

TEST_F(VolumeQuery, AllocatableBytesAndUuidsAnswerOnlyWhatTheyFind)
{
    EventCapture events;
    EXPECT_TRUE(theStorageManagerService.GetAllocatableBytes("7A3C-11F0"));
    EXPECT_FALSE(theStorageManagerService.GetAllocatableBytes("0000-0000"));
    EXPECT_FALSE(theStorageManagerService.GetAllocatableBytes(""));
    EXPECT_TRUE(theStorageManagerService.GetUuidForPath("/mnt/pvr/shared/sdb1"));
    EXPECT_FALSE(theStorageManagerService.GetUuidForPath("/mnt/pvr/shared/sdz9"));
    auto got = events.events();
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0].id, LUM_TV_EVT_STORAGE_GET_ALLOCATE_BYTES);
    int32_t free = 0;
    ASSERT_EQ(got[0].data.size(), 4u);
    memcpy(&free, got[0].data.data(), 4);
    EXPECT_EQ(free, 7631 - 1207);
    EXPECT_EQ(got[1].id, LUM_TV_EVT_STORAGE_GET_UUID_FOR_PATH);
    EXPECT_EQ(std::string(got[1].data.begin(), got[1].data.end()), "7A3C-11F0");  // no NUL
}

TEST_F(VolumeQuery, DirectSizesAndTypes)
{
    EXPECT_EQ(theStorageManagerService.GetPartitionTotalSize("/mnt/pvr/shared/sdb1"), 7631u);
    EXPECT_EQ(theStorageManagerService.GetPartitionTotalSize("/mnt/pvr/shared/sdb1/"), 0u);
    EXPECT_EQ(theStorageManagerService.GetPartitionUsedSize("/mnt/pvr/shared/sdb1/"), 1207u);
    EXPECT_EQ(theStorageManagerService.GetPartitionUsedSize("/mnt/pvr/shared/sdb1"), 1207u);
    EXPECT_EQ(theStorageManagerService.GetPartitionUsedSize(std::string(150, 'a').c_str()), 0u);
    EXPECT_EQ(theStorageManagerService.GetPartitionFsType("/mnt/pvr/shared/sdb10"), "fuseblk");
    EXPECT_EQ(theStorageManagerService.GetPartitionFsType("/mnt/pvr/shared/sdq1"), "");
}

// The disk's total by df, as a 64-bit number in the Parcel's order; 0 for an empty or missing id.
TEST_F(VolumeQuery, PvrDiskTotalRepliesEightBytes)
{
    auto total = [](const char* id) {
        android::Parcel request, reply;
        request.writeInt32(STORAGE_PVR_DISK_TOTAL);
        if (id != nullptr)
            request.writeCString(id);
        request.setDataPosition(0);
        EXPECT_EQ(StorageModuleHub::self()->invoke(request, &reply), 0);
        return std::vector<unsigned char>(reply.data(), reply.data() + reply.dataSize());
    };
    EXPECT_EQ(total("/dev/sdb1"), (std::vector<unsigned char>{0xCF, 0x1D, 0, 0, 0, 0, 0, 0}));  // 7631
    EXPECT_EQ(total(""), std::vector<unsigned char>(8, 0));
    EXPECT_EQ(total(nullptr), std::vector<unsigned char>(8, 0));
}

namespace {
class MountRun : public FakeTools {
protected:
    void SetUp() override
    {
        FakeTools::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        ASSERT_TRUE(mounts.tmpfs("/mnt", "mode=755"));
    }
    void TearDown() override
    {
        // Fakes of these tests alone: later tests in this process find the real tools.
        remove("/tmp/fakebin/mkdir");
        remove("/tmp/fakebin/umount");
        FakeTools::TearDown();
    }
};

}  // namespace

// A volume a format has taken off-line is left alone by every other run until the format's own run brings it back.
TEST_F(MountRun, AVolumeOffLineForAFormatIsLeftAloneUntilTheFormatBringsItBack)
{
    StorageManagerService& service = theStorageManagerService;
    output("blkid", "/dev/sdb1: UUID=\"1\" TYPE=\"ext4\"\n/dev/sdc1: UUID=\"2\" TYPE=\"ext4\"\n");
    {
        std::lock_guard<std::mutex> run(service.m_RunLock);
        service.m_OfflineVolume = "/dev/sdc1";
    }
    auto mount_lines = [] {
        std::string out;
        for (const std::string& line : call_lines())
            if (line.rfind("mount -t ", 0) == 0 && line.find(" /dev/sd") != std::string::npos)
                out += line.substr(line.find(" /dev/sd") + 1) + "\n";
        return out;
    };
    // A plug-in's run, and a client's request naming the volume.
    EXPECT_EQ(1, service.MountUsbDevices(nullptr));
    EXPECT_EQ(1, service.MountUsbDevices("sdc1"));
    EXPECT_EQ(mount_lines(), "/dev/sdb1 /mnt/pvr/shared/sdb1\n/dev/sdb1 /mnt/pvr/shared/sdb1\n");
    EXPECT_EQ(2, service.BringOnline("/dev/sdc1"));
    EXPECT_NE(std::string::npos, mount_lines().find("/dev/sdc1 /mnt/pvr/shared/sdc1\n")) << mount_lines();
    EXPECT_TRUE(service.m_OfflineVolume.empty());
}

TEST_F(MountRun, OneStickRunsItsCommandLinesInOrder)
{
    write_fake_volume_tools();
    write_fake_tool("mkdir", "PATH=${PATH#/tmp/fakebin:}\nexec mkdir \"$@\"\n");
    output("blkid", "/dev/sdb1: LABEL=\"STICK\" UUID=\"1\" TYPE=\"ext4\"\n");
    EXPECT_EQ(1, theStorageManagerService.MountUsbDevices(nullptr));
    // Up to the type as mounted; the device table's commands follow.
    const std::vector<std::string> want = {
        "blkid -d",
        "mount",
        "readlink -f /sys/block/sdb/device",
        "mkdir -p /mnt/pvr/shared/",
        "mkdir -p /mnt/pvr/shared/sdb1",
        "mount -t ext4 -w /dev/sdb1 /mnt/pvr/shared/sdb1",
        "sync",
        "blkid -d",
        "mount",
    };
    std::vector<std::string> got = call_lines();
    got.resize(std::min(got.size(), want.size()));
    EXPECT_EQ(got, want) << calls();
}

TEST_F(MountRun, UnmountThatFailsIsTriedTwice2sApartInEachOfTwoPasses)
{
    // blkid no longer lists sdb1: it has gone, and its umount keeps failing.
    output("mount", "/dev/sdb1 on /mnt/pvr/shared/sdb1 type ext4 (rw)\n");
    write_fake_tool("umount", "date +%s.%N >> /tmp/fake/umount.times\nexit 1\n");
    remove("/tmp/fake/umount.times");
    EXPECT_EQ(0, theStorageManagerService.UnmountUsbDevices(nullptr));
    std::vector<double> at;
    std::ifstream times("/tmp/fake/umount.times");
    for (double t; times >> t;)
        at.push_back(t);
    ASSERT_EQ(at.size(), 4u) << "two tries in each of two passes";
    // Two seconds after each try; five more before the second pass.
    for (size_t gap : {1u, 3u}) {
        EXPECT_GE(at[gap] - at[gap - 1], 1.9) << gap;
        EXPECT_LT(at[gap] - at[gap - 1], 6.0) << gap;
    }
    EXPECT_GE(at[2] - at[1], 6.9);
    EXPECT_NE(calls().find("umount -fl /mnt/pvr/shared/sdb1"), std::string::npos) << calls();
}
