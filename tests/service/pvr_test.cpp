// The PVR identity, the choice after mount and unmount runs and the guide record, on rows filled by hand
// whose mount points are folders of the private /tmp.
#include <cstring>
#include <sys/stat.h>

#include <cutils/properties.h>

#include "PvrIdentity.h"
#include "StoragePvr.h"
#include "test_support.h"

namespace {
void set_props(const char* rec, const char* tsh, const char* limit, const char* identity)
{
    property_set("persist.pvr.rec.enable", rec);
    property_set("persist.pvr.tshift.enable", tsh);
    property_set("persist.pvr.device_size_limit", limit);
    property_set(PVR_IDENTITY_PROPERTY, identity);
}

class Pvr : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!g_isolated)
            GTEST_SKIP() << "SKIPPED: needs the private /tmp and property folder";
        EXPECT_EQ(0, system("rm -rf /tmp/pvr && mkdir -p /tmp/pvr"));
        std::lock_guard<std::mutex> hold(theStorageManagerService.m_DevTableLock);
        memset(theStorageManagerService.m_ConnectedDevice, 0, sizeof(theStorageManagerService.m_ConnectedDevice));
        theStorageManagerService.m_DeviceCnt = 0;
        theStorageManagerService.m_PvrDevState = false;
        theStorageManagerService.m_PvrMountPath.clear();
    }
    void TearDown() override { SetUp(); }
    // A mounted partition row; its mount point is a real folder.
    static void add_row(const char* dev, const char* mount, const char* fs, uint64_t sizeMB)
    {
        std::lock_guard<std::mutex> hold(theStorageManagerService.m_DevTableLock);
        SConnectedDevice& row = theStorageManagerService.m_ConnectedDevice[theStorageManagerService.m_DeviceCnt++];
        memset(&row, 0, sizeof(row));
        strcpy(row.devName, dev);
        strcpy(row.mountPoint, mount);
        strcpy(row.fsType, fs);
        row.devSize = sizeMB;
        if (mount[0] != '\0')
            mkdir(mount, 0755);
    }
};

}  // namespace

TEST_F(Pvr, IdentityNamesAndTheListingRules)
{
    char name[18];
    EXPECT_EQ(create_identity_filename(name, 17), -1);
    EXPECT_EQ(create_identity_filename(nullptr, 30), -1);
    ASSERT_EQ(create_identity_filename(name, sizeof(name)), 0);
    EXPECT_EQ(strlen(name), 17u);
    EXPECT_EQ(name[0], '.');
    EXPECT_STREQ(name + 13, ".ide");
    char ctx[256] = {0};
    char good[] = "-rw-r--r-- 1 root root 0 Jul 15 00:42 .201907150042.ide";
    EXPECT_EQ(find_pvr_identity_callback(ctx, good), 0);
    EXPECT_STREQ(ctx, ".201907150042.ide");
    char bak[] = "-rw-r--r-- 1 root root 0 Jul 15 00:42 .201907150042.ide.bak";
    EXPECT_EQ(find_pvr_identity_callback(ctx, bak), -1);
    char video[] = "drwxr-xr-x 2 root root 40 Jul 15 00:42 video";
    EXPECT_EQ(find_pvr_identity_callback(ctx, video), -1);
    EXPECT_STREQ(ctx, ".201907150042.ide");  // what an earlier line stored stays
    char shortLine[] = "a.ide";
    EXPECT_EQ(find_pvr_identity_callback(ctx, shortLine), -1);
}

TEST_F(Pvr, FirstCandidateIsChosenAndKept)
{
    set_props("0", "1", "100", "no");
    add_row("/dev/sdb", "", "", 4000);
    add_row("/dev/sdb1", "/tmp/pvr/b1", "ntfs", 4000);   // wrong file system
    add_row("/dev/sdb2", "/tmp/pvr/b2", "vfat", 50);     // too small
    add_row("/dev/sdb3", "/tmp/pvr/b3", "vfat", 100);    // exactly at the limit
    add_row("/dev/sdb4", "/tmp/pvr/b4", "ext4", 4000);
    EventCapture events;
    theStorageManagerService.MountPvrPartitionProcess();
    auto got = events.events();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].id, LUM_TV_EVT_STORAGE_PVR_DEV_CHANGE);
    EXPECT_EQ(std::string(got[0].data.begin(), got[0].data.end()), "/tmp/pvr/b3");  // no NUL
    EXPECT_TRUE(theStorageManagerService.GetPvrDevState());
    EXPECT_EQ(theStorageManagerService.GetPvrMountPath(), "/tmp/pvr/b3");
    // While a partition is chosen, a mount run changes nothing.
    EventCapture later;
    theStorageManagerService.MountPvrPartitionProcess();
    EXPECT_TRUE(later.events().empty());
}

TEST_F(Pvr, UnmountFallsBackOrLetsGo)
{
    set_props("1", "1", "100", "no");
    add_row("/dev/sdb1", "/tmp/pvr/c1", "ext4", 4000);
    add_row("/dev/sdc1", "/tmp/pvr/c2", "ext4", 4000);
    add_row("/dev/sdd1", "/tmp/pvr/c3", "ext4", 4000);
    theStorageManagerService.MountPvrPartitionProcess();
    ASSERT_EQ(theStorageManagerService.GetPvrMountPath(), "/tmp/pvr/c1");
    // Another disk than the chosen one goes: no event, the choice stays.
    {
        std::lock_guard<std::mutex> hold(theStorageManagerService.m_DevTableLock);
        theStorageManagerService.m_DeviceCnt = 2;
    }
    EventCapture other;
    theStorageManagerService.UnmountPvrPartitionProcess();
    EXPECT_TRUE(other.events().empty());
    EXPECT_EQ(theStorageManagerService.GetPvrMountPath(), "/tmp/pvr/c1");
    // c1 goes: plug-out with the old path, then the change to c2.
    {
        std::lock_guard<std::mutex> hold(theStorageManagerService.m_DevTableLock);
        theStorageManagerService.m_ConnectedDevice[0] = theStorageManagerService.m_ConnectedDevice[1];
        theStorageManagerService.m_DeviceCnt = 1;
    }
    EventCapture events;
    theStorageManagerService.UnmountPvrPartitionProcess();
    auto got = events.events();
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0].id, LUM_TV_EVT_STORAGE_PVR_PLUG_OUT);
    EXPECT_EQ(std::string(got[0].data.begin(), got[0].data.end()), "/tmp/pvr/c1");
    EXPECT_EQ(got[1].id, LUM_TV_EVT_STORAGE_PVR_DEV_CHANGE);
    EXPECT_EQ(std::string(got[1].data.begin(), got[1].data.end()), "/tmp/pvr/c2");
    // Nothing left: plug-out, state cleared, the guide still lists no rows.
    {
        std::lock_guard<std::mutex> hold(theStorageManagerService.m_DevTableLock);
        theStorageManagerService.m_DeviceCnt = 0;
    }
    EventCapture last;
    theStorageManagerService.UnmountPvrPartitionProcess();
    ASSERT_EQ(last.events().size(), 1u);
    EXPECT_EQ(last.events()[0].id, LUM_TV_EVT_STORAGE_PVR_PLUG_OUT);
    EXPECT_FALSE(theStorageManagerService.GetPvrDevState());
    EXPECT_EQ(theStorageManagerService.GetPvrMountPath(), "");
    SStoragePvrDevGuideInfo guide;
    theStorageManagerService.GetPvrDevGuideInfo(guide);
    EXPECT_EQ(guide.bShow, 0);
    EXPECT_EQ(guide.s32ConnectedDevNum, 0);
}

TEST_F(Pvr, GuideForTimeshiftOffersTheSmallestLargeEnoughPartition)
{
    set_props("0", "1", "1000", "no");
    add_row("/dev/sdb1", "/tmp/pvr/d1", "ntfs", 10000);
    add_row("/dev/sdb2", "/tmp/pvr/d2", "ntfs", 5000);
    add_row("/dev/sdb3", "/tmp/pvr/d3", "ntfs", 5000);
    add_row("/dev/sdb4", "", "", 3000);
    SStoragePvrDevGuideInfo guide;
    theStorageManagerService.GetPvrDevGuideInfo(guide);
    // The record's bytes, checked at their offsets.
    const auto* b = reinterpret_cast<const unsigned char*>(&guide);
    auto i32 = [b](size_t at) {
        int32_t v;
        memcpy(&v, b + at, 4);
        return v;
    };
    EXPECT_EQ(i32(0), 1);                                      // bShow
    EXPECT_EQ(i32(4), PLUGIN_EVENT_REQUEST_FORMAT_PARTITION);  // enEvt
    EXPECT_EQ(i32(8), 1);                                      // s32PartitionNum
    EXPECT_EQ(i32(12), 0);
    EXPECT_STREQ(reinterpret_cast<const char*>(b + 16), "/dev/sdb2");  // the earlier of the two 5000 MB rows
    EXPECT_EQ(i32(31504), 4);                                          // s32ConnectedDevNum
    EXPECT_EQ(i32(31508), 0);
    EXPECT_STREQ(reinterpret_cast<const char*>(b + 31512 + 3 * 984), "/dev/sdb4");
    uint64_t size;
    memcpy(&size, b + 31512 + 928, 8);
    EXPECT_EQ(size, 10000u);
    set_props("0", "0", "1000", "no");
    theStorageManagerService.GetPvrDevGuideInfo(guide);
    EXPECT_EQ(guide.bShow, 0);
    EXPECT_EQ(guide.s32ConnectedDevNum, 4);  // filled in every case
    set_props("1", "0", "0", "no");
    theStorageManagerService.GetPvrDevGuideInfo(guide);
    EXPECT_EQ(guide.bShow, 0);
}

