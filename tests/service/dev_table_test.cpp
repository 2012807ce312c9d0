// The device table: checksum, the tagged bytes the build writes, the rows the reader makes of good and
// damaged buffers. Expected bytes are written out from the element layout (tag, length, big-endian value).
#include <algorithm>

#include "DevTable.h"
#include "ServiceHandlers.h"
#include "fake_tools.h"
#include "test_support.h"

namespace {
constexpr unsigned kEntry = 0x0001, kNode = 0x0002, kConn = 0x0003, kMount = 0x0004, kLabel = 0x0005,
                   kFs = 0x0006, kVendor = 0x0008, kModel = 0x0009, kSerial = 0x000A, kId = 0x000B,
                   kSize = 0x000C, kUsed = 0x000D;

Bytes el(unsigned tag, const Bytes& v)
{
    Bytes b = {static_cast<unsigned char>(tag >> 8), static_cast<unsigned char>(tag),
               static_cast<unsigned char>(v.size() >> 8), static_cast<unsigned char>(v.size())};
    b.reserve(b.size() + v.size());
    b.insert(b.end(), v.begin(), v.end());
    return b;
}
Bytes str(const std::string& t)  // a string value with its NUL
{
    Bytes b(t.begin(), t.end());
    b.push_back(0);
    return b;
}
Bytes cat(std::initializer_list<Bytes> parts)
{
    Bytes b;
    for (const Bytes& p : parts)
        b.insert(b.end(), p.begin(), p.end());
    return b;
}
Bytes entry(std::initializer_list<Bytes> children) { return el(kEntry, cat(children)); }
const unsigned char* ucs(const char* t) { return reinterpret_cast<const unsigned char*>(t); }
bool contains(const Bytes& hay, const Bytes& needle)
{
    return std::search(hay.begin(), hay.end(), needle.begin(), needle.end()) != hay.end();
}

// Parses an exactly sized heap copy: a read past its end is an ASan error.
int parse(const Bytes& table, SConnectedDevice* rows, int maxRows)
{
    Bytes copy(table);
    return parse_dev_table(copy.empty() ? nullptr : copy.data(), static_cast<int>(copy.size()), rows, maxRows);
}

const Bytes kDiskInfo = {0x00, 0x08, 0x00, 0x01, 0x00,                 // VENDOR "" (file unreadable)
                         0x00, 0x09, 0x00, 0x01, 0x00,                 // MODEL ""
                         0x00, 0x0A, 0x00, 0x04, 'A', 'B', 'C', 0x00,  // SERIALNR "ABC"
                         0x00, 0x0B, 0x00, 0x04, 0xAF, 0x82, 0x29, 0xAA};  // DEVICEID crc("ABC")
}  // namespace

TEST(DevTableCrc, Vectors)
{
    EXPECT_EQ(crc32_be(0, ucs("ABC"), 3), 0xAF8229AAul);
    EXPECT_EQ(crc32_be(0, ucs("123456789"), 9), 0x89A1897Ful);
    unsigned char one = 0x01;  // reaches the top bit after 7 shifts, leaves the polynomial on the 8th
    EXPECT_EQ(crc32_be(0, &one, 1), 0x04C11DB7ul);
}

class DevTableReader : public ::testing::Test {
protected:
    void SetUp() override { memset(rows, 0xAA, sizeof(rows)); }  // old bytes everywhere
    SConnectedDevice rows[STORAGE_MAX_CONNECTED_DEVICES + 1];
};

TEST_F(DevTableReader, DiskWithTwoPartitionsGivesThreeRows)
{
    Bytes table = cat({
        entry({el(kNode, str("/dev/sda")), el(kConn, {6}), el(kSize, be32(7632)), el(kVendor, str("SanDisk")),
               el(kModel, str("Cruzer")), el(kSerial, str("ABC")), el(kId, {0xAF, 0x82, 0x29, 0xAA})}),
        entry({el(kNode, str("/dev/sda1")), el(kMount, str("/mnt/pvr/shared/sda1")), el(kUsed, be32(1207)),
               el(kFs, str("vfat")), el(kSize, be32(7631))}),
        entry({el(kNode, str("/dev/sda2")), el(kSize, be32(0x01020304))}),
    });
    ASSERT_EQ(parse(table, rows, STORAGE_MAX_CONNECTED_DEVICES), 3);
    EXPECT_STREQ(rows[0].devName, "/dev/sda");
    EXPECT_EQ(rows[0].devConnectionType, 6);
    EXPECT_EQ(rows[0].devSize, 7632u);
    EXPECT_STREQ(rows[0].devVendor, "SanDisk");
    EXPECT_STREQ(rows[0].devModel, "Cruzer");
    EXPECT_STREQ(rows[0].devSerialNr, "ABC");
    EXPECT_EQ(rows[0].devId, 0xAF8229AAu);
    EXPECT_EQ(rows[0].mountPoint[0] | rows[0].fsType[0] | rows[0].volumeName[0], 0);
    EXPECT_EQ(rows[0].pvrDirFound, LUM_FALSE);
    EXPECT_STREQ(rows[1].mountPoint, "/mnt/pvr/shared/sda1");
    EXPECT_STREQ(rows[1].fsType, "vfat");
    EXPECT_EQ(rows[1].devConnectionType, 0);
    EXPECT_EQ(rows[1].devUsedSize, 1207u);
    EXPECT_EQ(rows[1].devVendor[0] | rows[1].devSerialNr[0], 0);
    EXPECT_EQ(rows[1].devId, 0u);
    EXPECT_EQ(rows[2].devSize, 0x01020304u);
    EXPECT_EQ(rows[3].devName[0], 0);  // rows behind the last are cleared
    EXPECT_EQ(rows[3].devSize, 0u);
}

TEST_F(DevTableReader, RepeatsSkipsAndLimits)
{
    Bytes table = cat({
        el(kNode, str("/dev/stray")),                            // not an entry
        entry({el(kSize, be32(5))}),                             // no node
        entry({el(kNode, str("/dev/sdb")), el(kNode, str("/dev/sdc")), el(kConn, {0}), el(kConn, {7}),
               el(kConn, {4}), el(kFs, str("ext4")), el(kFs, str("vfat")), el(kMount, str("/mnt/a")),
               el(kMount, str("/mnt/b")), el(kVendor, str("V1")), el(kVendor, str("V2")), el(kModel, str("M1")),
               el(kModel, str("M2")), el(kSerial, str("S1")), el(kSerial, str("S2")), el(kSize, be32(10)),
               el(kSize, {0, 0, 30}), el(kId, {1, 2, 3, 4, 5}), el(kUsed, {9, 9}), el(0x0007, str("x")),
               el(0x1234, {1})}),
    });
    ASSERT_EQ(parse(table, rows, 4), 1);
    EXPECT_STREQ(rows[0].devName, "/dev/sdb");
    EXPECT_EQ(rows[0].devConnectionType, 7);  // a 0 counts as not set
    EXPECT_STREQ(rows[0].fsType, "ext4");
    EXPECT_STREQ(rows[0].mountPoint, "/mnt/a");
    EXPECT_STREQ(rows[0].devVendor, "V2");
    EXPECT_STREQ(rows[0].devModel, "M2");
    EXPECT_STREQ(rows[0].devSerialNr, "S2");
    EXPECT_EQ(rows[0].devSize, 10u);  // lengths other than 4 are skipped
    EXPECT_EQ(rows[0].devId, 0u);
    EXPECT_EQ(rows[0].devUsedSize, 0u);
    // 32 rows at most: the 33rd entry is not read.
    table.clear();
    for (int i = 0; i < 33; ++i) {
        Bytes e = entry({el(kNode, str("/dev/sd" + std::to_string(i)))});
        table.insert(table.end(), e.begin(), e.end());
    }
    ASSERT_EQ(parse(table, rows, STORAGE_MAX_CONNECTED_DEVICES), 32);
    EXPECT_EQ(static_cast<unsigned char>(rows[32].devName[0]), 0xAA);
    // Texts cut to their fields; a connection value beyond the labels.
    std::string n(40, 'n'), f(30, 'f'), m(120, 'm'), v(300, 'v');
    table = entry({el(kNode, str(n)), el(kFs, str(f)), el(kMount, str(m)), el(kVendor, str(v)), el(kConn, {200})});
    ASSERT_EQ(parse(table, rows, 1), 1);
    EXPECT_EQ(std::string(rows[0].devName), n.substr(0, 29));
    EXPECT_EQ(std::string(rows[0].fsType), f.substr(0, 19));
    EXPECT_EQ(std::string(rows[0].mountPoint), m.substr(0, 99));
    EXPECT_EQ(std::string(rows[0].devVendor), v.substr(0, 255));
}

TEST_F(DevTableReader, DamagedBuffersStayInBounds)
{
    Bytes good = entry({el(kNode, str("/dev/sdf")), el(kSize, be32(7))});
    struct {
        Bytes table;
        int rowsWanted;
    } cases[] = {
        {{}, 0},
        {{0x00, 0x01, 0x00}, 0},                          // half a header
        {{0x00, 0x01, 0x00, 0x20, 0x00, 0x02}, 0},        // entry longer than the buffer
        {cat({el(kEntry, {}), good}), 1},                 // zero-length entry
        {cat({el(kEntry, {0x00, 0x02, 0x00, 0x09, '/'}), good}), 1},  // child longer than its entry
        {el(kEntry, cat({el(kNode, str("/dev/sdg")), Bytes{0x00, 0x0C, 0x00}})), 1},  // child header cut
        {el(kEntry, el(kNode, {'a', 'b', 'c'})), 1},      // unterminated string
        {cat({good, Bytes{0x00}}), 1},                    // a stray byte at the end
    };
    for (const auto& c : cases)
        EXPECT_EQ(parse(c.table, rows, 4), c.rowsWanted);
    EXPECT_EQ(parse(good, nullptr, 4), 0);
}

TEST(DevTableInfo, InvalidNamesGiveNoInformation)
{
    unsigned char buf[DEV_INFO_MAX_LEN];
    EXPECT_EQ(add_dev_info("/dev/mmcblk0", 0, buf), 0);
    EXPECT_EQ(add_dev_info(nullptr, 0, buf), 0);
    EXPECT_EQ(add_dev_info("VENnone", -1, buf), 0);  // no driver slot -1
    char serial[8];
    EXPECT_FALSE(get_dev_serial_nr("/dev/sda", 0, serial, 0));
    EXPECT_FALSE(get_dev_serial_nr("sd", 0, serial, sizeof(serial)));  // shorter than "/dev/"
}

class DevTableBuild : public FakeTools {
protected:
    void SetUp() override
    {
        FakeTools::SetUp();
        if (IsSkipped())
            return;
        if (access("/sys/block/sdz", F_OK) == 0)
            GTEST_SKIP() << "SKIPPED: this machine has a disk sdz";
        // cat answers the two kernel lists from the test's files; every other
        // cat (the fake tools use it too) is the real one.
        const char* real = access("/bin/cat", X_OK) == 0 ? "/bin/cat" : "/usr/bin/cat";
        std::ofstream("/tmp/fakebin/cat") << "#!/bin/sh\ncase \"$1\" in\n/proc/partitions) exec " << real
                                          << " /tmp/fake/partitions.out ;;\n/proc/driver/mptp/devices) exec " << real
                                          << " /tmp/fake/mptp.out ;;\nesac\nexec " << real << " \"$@\"\n";
        chmod("/tmp/fakebin/cat", 0755);
        output("partitions", "");
        output("mptp", "");
        mkdir("/tmp/fake/usb", 0755);  // the disk's USB device, with its serial number
        mkdir("/tmp/fake/usb/1-1", 0755);
        std::ofstream("/tmp/fake/usb/1-1/serial") << "ABC\n";
        output("readlink", "/tmp/fake/usb/1-1/1-1:1.0/host0/target0:0:0/0:0:0:0/block/sdz\n");
    }
    void TearDown() override
    {
        remove("/tmp/fakebin/cat");
        StorageManagerService& s = theStorageManagerService;  // back to the table before any build
        std::lock_guard<std::mutex> hold(s.m_DevTableLock);
        memset(s.m_DevTabBuf, 0, sizeof(s.m_DevTabBuf));
        memset(s.m_ConnectedDevice, 0, sizeof(s.m_ConnectedDevice));
        s.m_DevTabBufLen = s.m_DeviceCnt = 0;
        FakeTools::TearDown();
    }
    static Bytes one_disk()
    {
        output("partitions", "major minor  #blocks  name\n\n   8 0 7823360 sdz\n   8 1 7818240 sdz1\n   8 2 1 sdz2\n");
        output("mount", "/dev/sdz1 on /mnt/pvr/shared/sdz1 type fuseblk (rw,relatime)\n");
        output("df", "Filesystem 1048576-blocks Used Available Capacity Mounted on\n"
                     "/dev/sdz1 7631 1207 6424 16% /mnt/pvr/shared/sdz1\n");
        output("blkid", "/dev/sdz1: LABEL=\"MYDISK\" UUID=\"0123-4567\" TYPE=\"ntfs\"\n");
        Bytes disk = cat({el(kNode, str("/dev/sdz")), Bytes{0x00, 0x03, 0x00, 0x01, 0x06}, el(kSize, be32(0)),
                          kDiskInfo});
        return cat({Bytes{0}, el(kEntry, disk),
                    entry({el(kNode, str("/dev/sdz1")), el(kMount, str("/mnt/pvr/shared/sdz1")),
                           el(kUsed, be32(1207)), el(kFs, str("ntfs")), el(kLabel, str("MYDISK")),
                           el(kSize, be32(7631))}),
                    entry({el(kNode, str("/dev/sdz2")), el(kSize, be32(0))})});
    }
    static Bytes one_line(const std::string& text)  // the callback's entry for one line
    {
        Bytes table(STORAGE_DEV_TAB_BUF_SIZE);
        SDevTabCursor cursor = {table.data(), table.data() + table.size(), 0};
        std::vector<char> line(text.begin(), text.end());
        line.push_back('\0');
        EXPECT_EQ(get_dev_table_callback(&cursor, line.data()), 0);
        return Bytes(table.data(), cursor.pos);
    }
};

TEST_F(DevTableBuild, OneDiskWithTwoPartitions)
{
    EventCapture events;
    StorageManagerService& s = theStorageManagerService;
    output("partitions", " 179 0 100 mmcblk0\n");  // nothing of ours: the zero byte alone
    s.GetDevTable();
    Bytes want = one_disk();
    s.GetStorageVolumes();
    s.GetDevTable();
    s.GetStorageVolumes();
    auto got = events.events();
    ASSERT_EQ(got.size(), 4u);
    EXPECT_EQ(got[0].data, Bytes{0});
    EXPECT_TRUE(got[1].data.empty());
    EXPECT_EQ(got[2].id, LUM_TV_EVT_STORAGE_GET_STORAGE_VOLUMES);
    EXPECT_EQ(got[2].data, want);
    EXPECT_EQ(got[3].id, LUM_TV_EVT_STORAGE_GET_DEV_TABLE);
    ASSERT_EQ(got[3].data.size(), 3 * 984u);
    const SConnectedDevice* rows = s.m_ConnectedDevice;
    std::lock_guard<std::mutex> hold(s.m_DevTableLock);
    EXPECT_TRUE(std::all_of(s.m_DevTabBuf + want.size(), s.m_DevTabBuf + STORAGE_DEV_TAB_BUF_SIZE,
                            [](unsigned char b) { return b == 0; }));
    EXPECT_EQ(rows[0].devConnectionType, 6);
    EXPECT_EQ(rows[0].devId, 0xAF8229AAu);
    EXPECT_STREQ(rows[1].fsType, "ntfs");
    EXPECT_STREQ(rows[1].volumeName, "MYDISK");  // blkid's answer for the partition
}

TEST_F(DevTableBuild, OneLineEntries)
{
    output("blkid", "/dev/sdz1: LABEL=\"" + std::string(150, 'L') + "\" TYPE=\"vfat\"\n");
    output("mount", "/dev/sdz1 on /mnt/pvr/shared/sdz1 type ufsd (rw)\n");
    Bytes got = one_line("sdz1");
    EXPECT_TRUE(contains(got, cat({el(kMount, str("/mnt/pvr/shared/sdz1")), el(kUsed, be32(0)),
                                   el(kFs, str("ntfs")), el(kLabel, str(std::string(99, 'L')))})));
    EXPECT_EQ(static_cast<size_t>((got[2] << 8) | got[3]), got.size() - 4);
    std::string longType(40, 't');
    output("mount", "/dev/sdz1 on /mnt/pvr/shared/sdz1 type " + longType + " (rw)\n");
    output("blkid", "/dev/sdz1: LABEL=\"open\n");  // no closing quote: no label
    got = one_line("sdz1");
    EXPECT_TRUE(contains(got, el(kFs, str(longType.substr(0, 31)))));
    EXPECT_FALSE(contains(got, str("open")));
    // A PTP device is a base device; without a driver id it has no information.
    output("mount", "");
    EXPECT_EQ(one_line("VENphone1 3 mptpdev"),
              entry({el(kNode, str("VENphone1")), Bytes{0x00, 0x03, 0x00, 0x01, 0x07}, el(kSize, be32(0))}));
    // Names from the kernel and the driver reach grep literally and run nothing.
    remove("/tmp/pwned");
    std::string evil = "VEN\"$(touch${IFS}/tmp/pwned)\"";
    output("mount", evil + " on /mnt/pvr/shared/evil type mptpfs (rw)\n");
    EXPECT_TRUE(contains(one_line(evil + " 1 mptpdev"), el(kMount, str("/mnt/pvr/shared/evil"))));
    one_line("sd`touch${IFS}/tmp/pwned`");
    EXPECT_NE(access("/tmp/pwned", F_OK), 0) << "a device name ran a command";
}

TEST_F(DevTableBuild, TableNeverOutgrowsItsBuffer)
{
    LogCapture log;
    // Names cut to 31 characters make 48-byte entries (4 + 4 + 32 + 8): 42
    // fit the 2047 bytes behind the zero byte, 8 of the 50 do not.
    std::string lines;
    for (int i = 10; i < 60; ++i)
        lines += "   8   1   100 sdz" + std::to_string(i) + std::string(30, '0') + "\n";
    output("partitions", lines);
    StorageManagerService& s = theStorageManagerService;
    s.GetDevTable();
    {
        std::lock_guard<std::mutex> hold(s.m_DevTableLock);
        EXPECT_EQ(s.m_DevTabBufLen, 1 + 42 * 48);
        EXPECT_EQ(s.m_DeviceCnt, 32);
        Bytes last = entry({el(kNode, str(("/dev/sdz51" + std::string(30, '0')).substr(0, 31))), el(kSize, be32(0))});
        EXPECT_EQ(Bytes(s.m_DevTabBuf + 1 + 41 * 48, s.m_DevTabBuf + 1 + 42 * 48), last);
        EXPECT_TRUE(std::all_of(s.m_DevTabBuf + s.m_DevTabBufLen, s.m_DevTabBuf + STORAGE_DEV_TAB_BUF_SIZE,
                                [](unsigned char b) { return b == 0; }));
    }
    EXPECT_EQ(log.count("] ***W: dev table full - 8 devices left out\n"), 1);
}

TEST_F(DevTableBuild, DevInfoAndRowLabels)
{
    EventCapture events;
    StorageManagerService& s = theStorageManagerService;
    s.GetDevInfo(ucs("/dev/sdz"), 8);
    s.GetDevInfo(ucs("VENunknown"), 10);
    s.GetDevInfo(ucs("usb0"), 4);
    StorageManagerAction_t action = {};
    memset(action.buf1, 'x', sizeof(action.buf1));  // a full field, unterminated
    handle_get_volume(s, nullptr, &action);
    output("readlink", "");  // no USB device: no serial number
    s.GetDevInfo(ucs("/dev/sdz"), 8);
    auto got = events.events();
    ASSERT_EQ(got.size(), 5u);
    EXPECT_EQ(got[0].data, cat({Bytes{0}, kDiskInfo}));
    for (size_t i = 0; i < got.size(); ++i) {
        EXPECT_EQ(got[i].id, LUM_TV_EVT_STORAGE_GET_DEV_INFO);
        EXPECT_TRUE(i == 0 || got[i].data == Bytes{1}) << i;
    }
    // A row's label is blkid's for the row's device, not the table's text.
    output("blkid", "/dev/sdz1: LABEL=\"REAL\" TYPE=\"ext4\"\n");
    Bytes table = cat({entry({el(kNode, str("/dev/sdz1")), el(kLabel, str("TAGTEXT")), el(kLabel, str("2"))}),
                       entry({el(kNode, str("/dev/sdz2")), el(kLabel, str("X"))})});
    s.trace_dev_table(table.data(), static_cast<int>(table.size()));
    std::lock_guard<std::mutex> hold(s.m_DevTableLock);
    ASSERT_EQ(s.m_DeviceCnt, 2);
    EXPECT_STREQ(s.m_ConnectedDevice[0].volumeName, "REAL");
    EXPECT_STREQ(s.m_ConnectedDevice[1].volumeName, "");
}

