// Mount and unmount runs against fake tools: the command lines of a run and
// the retries of an unmount. The mount tree is a private tmpfs over /mnt.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <algorithm>

#include "StorageManagerService.h"
#include "fake_tools.h"

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
