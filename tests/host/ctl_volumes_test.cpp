// The volume list of lumstoragectl volumes: parsing the tagged payload
// (built by hand here), the device types and connection names, sizes in
// human units, and the table with partitions under their disk.
#include <gtest/gtest.h>

#include <cstring>

#include "lumctl/device_decoders.h"
#include "lumctl/volume_table.h"

namespace {

using Bytes = std::vector<uint8_t>;
using lumctl::VolumeEntry;

Bytes elem(uint16_t tag, const Bytes& value)
{
    Bytes out = {static_cast<uint8_t>(tag >> 8), static_cast<uint8_t>(tag),
                 static_cast<uint8_t>(value.size() >> 8), static_cast<uint8_t>(value.size())};
    out.reserve(out.size() + value.size());
    out.insert(out.end(), value.begin(), value.end());
    return out;
}

Bytes str(const char* text)
{
    return Bytes(text, text + strlen(text) + 1);
}

Bytes be32(uint32_t v)
{
    return {static_cast<uint8_t>(v >> 24), static_cast<uint8_t>(v >> 16), static_cast<uint8_t>(v >> 8),
            static_cast<uint8_t>(v)};
}

Bytes cat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes& p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

VolumeEntry entry(const char* node, int conn, const char* fs, const char* label, uint32_t size,
                  int64_t used, const char* mount, const char* vendor = "", const char* model = "")
{
    VolumeEntry e;
    e.node = node;
    e.conn = conn;
    e.fs_type = fs;
    e.label = label;
    e.size_mb = size;
    e.has_size = true;
    e.used_mb = used >= 0 ? static_cast<uint32_t>(used) : 0;
    e.has_used = used >= 0;
    e.mount_point = mount;
    e.vendor = vendor;
    e.model = model;
    return e;
}

TEST(CtlVolumes, TaggedListParsesIntoRecords)
{
    // A disk with every child element (unknown tag 7 and 99 in between),
    // then an MTP device whose strings lack their NUL.
    Bytes disk = elem(1, cat({elem(2, str("/dev/sdb")), elem(3, {6}), elem(4, str("")), elem(7, {1, 2}),
                              elem(5, str("")), elem(6, str("")), elem(8, str("  SanDisk ")),
                              elem(9, str("Cruzer Blade    ")), elem(10, str("4C53 ")), elem(99, {}),
                              elem(11, be32(0x0781556B)), elem(12, be32(29822)), elem(13, be32(7))}));
    Bytes mtp = elem(1, cat({elem(2, {'V', 'E', 'N', '_', '1'}), elem(3, {7}), elem(12, be32(57000))}));
    Bytes payload = cat({{0}, disk, elem(42, {9, 9}), mtp});
    std::vector<VolumeEntry> out;
    ASSERT_TRUE(lumctl::parse_volume_table(payload.data(), payload.size(), &out));
    ASSERT_EQ(2u, out.size());
    EXPECT_EQ("/dev/sdb", out[0].node);
    EXPECT_EQ(6, out[0].conn);
    EXPECT_EQ("SanDisk", out[0].vendor);
    EXPECT_EQ("Cruzer Blade", out[0].model);
    EXPECT_EQ("4C53", out[0].serial);
    EXPECT_EQ(0x0781556Bu, out[0].dev_id);
    EXPECT_TRUE(out[0].has_size && out[0].has_used);
    EXPECT_EQ(29822u, out[0].size_mb);
    EXPECT_EQ(7u, out[0].used_mb);
    EXPECT_EQ("VEN_1", out[1].node);
    EXPECT_TRUE(out[1].has_size);
    EXPECT_FALSE(out[1].has_used);

    // Empty lists: no bytes, or just the leading zero.
    out.clear();
    EXPECT_TRUE(lumctl::parse_volume_table(nullptr, 0, &out));
    Bytes zero = {0};
    EXPECT_TRUE(lumctl::parse_volume_table(zero.data(), zero.size(), &out));
    EXPECT_TRUE(out.empty());
}

TEST(CtlVolumes, MalformedListsKeepTheEntriesBeforeTheFault)
{
    Bytes good = elem(1, elem(2, str("/dev/sdb")));
    Bytes child_overruns = elem(1, cat({elem(2, str("/dev/sdc")), Bytes{0, 5, 0, 9, 'x'}}));
    Bytes element_overruns = Bytes{0, 1, 0, 40, 0, 2};
    for (const Bytes& bad : {child_overruns, element_overruns, Bytes{0xab, 0xcd}}) {
        Bytes payload = cat({{0}, good, bad});
        std::vector<VolumeEntry> out;
        EXPECT_FALSE(lumctl::parse_volume_table(payload.data(), payload.size(), &out));
        ASSERT_EQ(1u, out.size());
        EXPECT_EQ("/dev/sdb", out[0].node);
    }
    // A device-information body: elements without a container.
    Bytes info = cat({elem(8, str("Samsung")), elem(11, be32(0x04E86860))});
    lumctl::Object obj;
    ASSERT_TRUE(lumctl::decode_elements(info.data(), info.size(), &obj));
    VolumeEntry e = lumctl::volume_entry(obj.json);
    EXPECT_EQ("Samsung", e.vendor);
    EXPECT_EQ(0x04E86860u, e.dev_id);
    info.pop_back();
    EXPECT_FALSE(lumctl::decode_elements(info.data(), info.size(), &obj));
}

TEST(CtlVolumes, TypesConnectionsAndHumanSizes)
{
    struct TypeCase {
        const char* node;
        int conn;
        const char* type;
    };
    const TypeCase types[] = {
        {"/dev/sdb", 6, "disk"},   {"/dev/sdb1", 0, "part"},   {"/dev/sdb", 7, "mtp"},
        {"VEN_04E8", 0, "mtp"},    {"/dev/mmcblk0", 4, "part"}, {"/dev/sd1", 0, "part"},
        {"sdb", 3, "part"},        {"/dev/sdab", 3, "part"},
    };
    for (const TypeCase& c : types)
        EXPECT_STREQ(c.type, lumctl::volume_type(entry(c.node, c.conn, "", "", 0, -1, ""))) << c.node;

    const char* const conns[] = {"-", "HDDEdwa", "HDDAsdd", "USBAsdd", "HDD Int", "USB Int", "USB Ext", "PTP"};
    for (int conn = 0; conn < 8; ++conn)
        EXPECT_EQ(conns[conn], lumctl::conn_label(conn));
    EXPECT_EQ("8", lumctl::conn_label(8));
    EXPECT_EQ("-1", lumctl::conn_label(-1));

    struct SizeCase {
        uint64_t mb;
        const char* text;
    };
    const SizeCase sizes[] = {
        {0, "0M"},           {48, "48M"},          {1023, "1023M"},     {1024, "1G"},
        {1945, "1.9G"},      {2047, "2G"},         {29822, "29.1G"},    {1048064, "1023.5G"},
        {1048525, "1T"},     {1048576, "1T"},      {3815447, "3.6T"},   {1073741824, "1P"},
        {4294967295, "4P"},  {1073741824ull * 2000, "2000P"},
    };
    for (const SizeCase& c : sizes)
        EXPECT_EQ(c.text, lumctl::human_mb(c.mb)) << c.mb;

    EXPECT_EQ("Cruzer Blade", lumctl::trim_blanks("  Cruzer Blade \t"));
    EXPECT_EQ("", lumctl::trim_blanks("    "));
}

TEST(CtlVolumes, TableShowsPartitionsUnderTheirDisk)
{
    // The disk's partitions come later in the list and still land under it;
    // a partition whose disk is not listed stands alone.
    std::vector<VolumeEntry> entries = {
        entry("/dev/sdb", 6, "", "", 29822, -1, "", "SanDisk", "Cruzer Blade"),
        entry("VEN_04E8_PID_6860", 7, "mtpfs", "", 57000, 100, "/mnt/mtp/phone", "Samsung", "Galaxy S9"),
        entry("/dev/sdb1", 0, "vfat", "KINGSTON", 48, 12, "/mnt/usb/sdb1"),
        entry("/dev/sdb2", 0, "ext4", "", 29773, 1945, "/mnt/usb/sdb2"),
        entry("/dev/sdc1", 0, "ntfs", "ARCHIVE", 3815447, 3000000, "/mnt/usb/sdc1"),
    };
    const std::string want =
        "NAME              TYPE CONN    FSTYPE LABEL     SIZE USED MOUNTPOINT     VENDOR  MODEL\n"
        "sdb               disk USB Ext                 29.1G                     SanDisk Cruzer Blade\n"
        "\u251c\u2500sdb1            part -       vfat   KINGSTON   48M  12M /mnt/usb/sdb1\n"
        "\u2514\u2500sdb2            part -       ext4            29.1G 1.9G /mnt/usb/sdb2\n"
        "VEN_04E8_PID_6860 mtp  PTP     mtpfs           55.7G 100M /mnt/mtp/phone Samsung Galaxy S9\n"
        "sdc1              part -       ntfs   ARCHIVE   3.6T 2.9T /mnt/usb/sdc1\n";
    EXPECT_EQ(want, lumctl::render_volume_table(entries));

    // Control characters from the service do not reach the terminal.
    std::vector<VolumeEntry> odd = {entry("/dev/sdd", 3, "", "a\nb\x1b", 1, -1, "")};
    EXPECT_EQ("NAME TYPE CONN    FSTYPE LABEL SIZE USED MOUNTPOINT VENDOR MODEL\n"
              "sdd  disk USBAsdd        a?b?    1M\n",
              lumctl::render_volume_table(odd));
    EXPECT_EQ("NAME TYPE CONN FSTYPE LABEL SIZE USED MOUNTPOINT VENDOR MODEL\n(no devices)\n",
              lumctl::render_volume_table({}));

    // Chinese characters take two columns on screen, accented letters one:
    // the columns behind them stay in line.
    std::vector<VolumeEntry> labels = {entry("/dev/sdb1", 0, "vfat", "\u97f3\u4e50", 96, 1, ""),
                                       entry("/dev/sdb2", 0, "ext4", "Caf\u00e9", 144, 3, "")};
    EXPECT_EQ("NAME TYPE CONN FSTYPE LABEL SIZE USED MOUNTPOINT VENDOR MODEL\n"
              "sdb1 part -    vfat   \u97f3\u4e50   96M   1M\n"
              "sdb2 part -    ext4   Caf\u00e9  144M   3M\n",
              lumctl::render_volume_table(labels));
}

}  // namespace
