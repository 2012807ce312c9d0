// Directory listings: record and block bytes against vectors built from the wire tables, the filters, block
// splitting, times by volume type, covers. The test reads the blocks with a reader of its own.
#include <algorithm>
#include <fcntl.h>
#include <sys/time.h>

#include <norvfw/RTC.h>

#include "DirListing.h"
#include "StorageEvents.h"
#include "fake_tools.h"
#include "test_support.h"

namespace {
// A listed directory lies five slashes deep, like a mount point of the tree,
// so that the volume-type check finds its prefix in the fake mount output.
const std::string kVolume = "/tmp/lst/shared/sdb1";
const std::string kDir = kVolume + "/dir/";
const time_t kWhen = 1715953500;  // 2024-05-17 13:45:00 UTC, MJD 60447 = 0x00EC1F

struct Record {
    Bytes info_file;
    std::string name, title, artist, album, genre, link;
    Bytes info_tag;
};

struct Block {
    unsigned offset, total;
    std::vector<Record> records;
    size_t len;
};

unsigned be16(const unsigned char* p) { return (p[0] << 8) | p[1]; }

// The test's own reader of the wire format: header, then records until the payload ends.
Block parse_block(const Bytes& d)
{
    Block b{be16(d.data()), be16(d.data() + 2), {}, d.size()};
    size_t i = 4;
    while (i < d.size()) {
        Record r;
        r.info_file.assign(d.begin() + i, d.begin() + i + 10);
        i += 10;
        for (std::string* s : {&r.name, &r.title, &r.artist, &r.album, &r.genre, &r.link}) {
            *s = std::string(reinterpret_cast<const char*>(d.data() + i));
            i += s->size() + 1;
        }
        EXPECT_EQ(d[i], 0) << "separator";
        i += 1;
        r.info_tag.assign(d.begin() + i, d.begin() + i + 18);
        i += 18;
        b.records.push_back(r);
    }
    EXPECT_EQ(i, d.size());
    return b;
}

void touch_file(const std::string& path, size_t size, time_t mtime = kWhen, mode_t mode = 0644)
{
    std::ofstream(path, std::ios::binary) << std::string(size, 'x');
    chmod(path.c_str(), mode);
    struct timeval tv[2] = {{mtime, 0}, {mtime, 0}};
    lutimes(path.c_str(), tv);
}

class Listing : public FakeTools {
protected:
    void SetUp() override
    {
        FakeTools::SetUp();
        if (IsSkipped())
            return;
        system("rm -rf /tmp/lst");
        system(("mkdir -p " + kDir).c_str());
        volume("vfat");
    }
    void volume(const char* type) { output("mount", "/dev/sdb1 on " + kVolume + " type " + type + " (rw)\n"); }
    // Runs a listing of request (len bytes of it, the path's terminator included, by default) and returns its blocks.
    std::vector<Block> list(const std::string& request, int len = -1, unsigned short id = 0x1234,
                            bool* ok = nullptr)
    {
        EventCapture events;
        int n = len < 0 ? static_cast<int>(strlen(request.c_str()) + 1) : len;
        bool result = theStorageManagerService.ReadDirAdvanced(request.c_str(), n, id);
        if (ok != nullptr)
            *ok = result;
        EXPECT_EQ(be16(theStorageManagerService.m_SendBuf), id);
        std::vector<Block> blocks;
        for (const Event& e : events.events()) {
            if (e.id == LUM_TV_EVT_STORAGE_READ_DIRS)
                blocks.push_back(parse_block(e.data));
        }
        return blocks;
    }
    // The same with a flags byte behind the path.
    std::vector<Block> list_flags(const std::string& path, unsigned char flags)
    {
        std::string request = path + '\0' + static_cast<char>(flags);
        return list(request, static_cast<int>(path.size() + 2));
    }
};

std::vector<std::string> names(const std::vector<Block>& blocks)
{
    std::vector<std::string> out;
    for (const Block& b : blocks)
        for (const Record& r : b.records)
            out.push_back(r.name);
    return out;
}

}  // namespace

TEST_F(Listing, RecordsCarrySizeDateProtectionAndEmptyTagsByte)
{
    touch_file(kDir + "a.bin", 1023, kWhen, 0644);
    touch_file(kDir + "b.bin", 1024, kWhen + 59, 0444);  // read-only for the owner only counts
    touch_file(kDir + "c.bin", 5 * 1024 * 1024 + 100, kWhen, 0577);
    mkdir((kDir + "d").c_str(), 0755);
    struct timeval tv[2] = {{kWhen, 0}, {kWhen, 0}};
    utimes((kDir + "d").c_str(), tv);
    std::vector<Block> blocks = list(kDir);
    ASSERT_EQ(blocks.size(), 1u);
    EXPECT_EQ(blocks[0].offset, 0u);
    EXPECT_EQ(blocks[0].total, 4u);
    ASSERT_EQ(blocks[0].records.size(), 4u);
    const Bytes when = {0x00, 0xEC, 0x1F, 13, 45};
    auto info = [&](unsigned char prot, uint32_t kb) {
        Bytes b = {prot, static_cast<unsigned char>(kb >> 24), static_cast<unsigned char>(kb >> 16),
                   static_cast<unsigned char>(kb >> 8), static_cast<unsigned char>(kb)};
        b.reserve(b.size() + when.size());
        b.insert(b.end(), when.begin(), when.end());
        return b;
    };
    EXPECT_EQ(blocks[0].records[0].info_file, info(0, 0));
    EXPECT_EQ(blocks[0].records[1].info_file, info(1, 1));
    EXPECT_EQ(blocks[0].records[2].info_file, info(1, 5120));
    EXPECT_EQ(blocks[0].records[3].info_file, info(0, 0));
    EXPECT_EQ(names(blocks), (std::vector<std::string>{"a.bin", "b.bin", "c.bin", "d/"}));
    // The whole payload of a one-file directory, byte by byte.
    system(("rm -rf " + kDir + "*").c_str());
    touch_file(kDir + "x", 2048, kWhen, 0444);
    EventCapture events;
    theStorageManagerService.ReadDirAdvanced(kDir.c_str(), static_cast<int>(kDir.size() + 1), 7);
    Bytes expected = {0, 0, 0, 1,                     // offset 0, total 1
                      1, 0, 0, 0, 2, 0x00, 0xEC, 0x1F, 13, 45,  // info_file
                      'x', 0, 0, 0, 0, 0, 0,          // name and five empty strings
                      0};                             // separator
    expected.resize(expected.size() + 18, 0);
    ASSERT_EQ(events.events().size(), 1u);
    EXPECT_EQ(events.events()[0].id, LUM_TV_EVT_STORAGE_READ_DIRS);
    EXPECT_EQ(events.events()[0].data, expected);
}

TEST_F(Listing, BadPathsAndEmptyDirectories)
{
    const Bytes failed = {0, 0, 0xFF, 0xFF};
    const Bytes empty = {0, 0, 0, 0};
    auto payloads = [&](const std::string& request, bool* ok) {
        EventCapture events;
        *ok = theStorageManagerService.ReadDirAdvanced(request.c_str(), static_cast<int>(request.size() + 1), 1);
        std::vector<Bytes> out;
        for (const Event& e : events.events())
            out.push_back(e.data);
        return out;
    };
    bool ok = true;
    EXPECT_EQ(payloads(kDir, &ok), std::vector<Bytes>{empty});
    EXPECT_TRUE(ok);
    LogCapture log;
    EXPECT_EQ(payloads(kVolume + "/dir", &ok), std::vector<Bytes>{empty});  // the "/" is added
    EXPECT_TRUE(ok);
    EXPECT_TRUE(log.has("directory name shall end with '/'"));
    for (const std::string bad : {"tmp/lst/", "", "/tmp/lst/none/", "/tmp/lst/shared/sdb1/dir/../../x/"}) {
        EXPECT_EQ(payloads(bad, &ok), std::vector<Bytes>{failed}) << bad;
        EXPECT_FALSE(ok) << bad;
    }
    EXPECT_TRUE(log.has("scandir returned -1"));
    // 258 bytes pass, 259 are refused before anything is looked at.
    std::string deep = kVolume + "/";
    while (deep.size() < 257)
        deep += "d/";
    deep.resize(257);
    deep += "/";
    ASSERT_EQ(deep.size(), 258u);
    system(("mkdir -p '" + deep + "'").c_str());
    EXPECT_EQ(payloads(deep, &ok), std::vector<Bytes>{empty});
    EXPECT_TRUE(ok);
    EXPECT_EQ(payloads(deep + "e/", &ok), std::vector<Bytes>{failed});
    EXPECT_TRUE(log.has("directory name too long"));
    // An entry whose full path would pass 258 bytes goes out under its name with nothing else known.
    std::string name(200, 'n');
    touch_file(deep + name, 5000);
    char before[4096];
    ASSERT_NE(getcwd(before, sizeof(before)), nullptr);
    std::vector<Block> blocks = list(deep);
    ASSERT_EQ(blocks.size(), 1u);
    ASSERT_EQ(blocks[0].records.size(), 1u);
    EXPECT_EQ(blocks[0].records[0].name, name);
    EXPECT_EQ(blocks[0].records[0].info_file, Bytes(10, 0));
    EXPECT_TRUE(log.has("full path for '" + name + "' too long"));
    char after[4096];
    EXPECT_STREQ(getcwd(after, sizeof(after)), before);  // the working directory is back
}

TEST_F(Listing, FiltersByFlagsAndTheDefault)
{
    for (const char* f : {".archive", "..archive", ".tsb1", ".hidden", "a.idx", "a.desc", "a.xml", "a.ts",
                          "a.ts.idx.desc", "b.IDX", "x.xml.sig"})
        touch_file(kDir + f, 10);
    mkdir((kDir + "sub").c_str(), 0755);
    mkdir((kDir + ".dotdir").c_str(), 0755);
    symlink("a.ts", (kDir + "link").c_str());
    mkfifo((kDir + "pipe").c_str(), 0644);
    using V = std::vector<std::string>;
    const V all = {"./", "../", "..archive", ".archive", ".dotdir/", ".hidden", ".tsb1", "a.desc", "a.idx",
                   "a.ts", "a.ts.idx.desc", "a.xml", "b.IDX", "link", "sub/", "x.xml.sig"};
    auto without = [&](std::initializer_list<const char*> gone) {
        V out;
        for (const std::string& n : all)
            if (std::find(gone.begin(), gone.end(), n) == gone.end())
                out.push_back(n);
        return out;
    };
    const V noDots = without({"./", "../", "..archive", ".archive", ".dotdir/", ".hidden", ".tsb1"});
    const V row3 = {"a.ts", "b.IDX", "link", "sub/", "x.xml.sig"};
    std::vector<Block> d = list(kDir);
    EXPECT_EQ(names(d), without({"./", "../", ".dotdir/", ".hidden"}));
    EXPECT_EQ(d[0].total, 13u);  // the FIFO counts, though it has no record
    EXPECT_EQ(names(list_flags(kDir, 0)), all);
    EXPECT_EQ(list_flags(kDir, 0)[0].total, 17u);
    EXPECT_EQ(names(list_flags(kDir, 1)), noDots);
    EXPECT_EQ(names(list_flags(kDir, 2)), without({"a.desc", "a.idx", "a.ts.idx.desc"}));
    EXPECT_EQ(names(list_flags(kDir, 3)), row3);
    for (unsigned char f = 4; f < 8; ++f)
        EXPECT_EQ(names(list_flags(kDir, f)), (V{"link", "sub/"})) << int(f);
    // Bit 3 leaves the filter bits as they are.
    EXPECT_EQ(names(list_flags(kDir, 8 | 3)), row3);
    // A len that says no flags byte is there keeps the default, whatever stands behind the terminator.
    std::string request = kDir + '\0' + '\0';
    EXPECT_EQ(names(list(request, static_cast<int>(kDir.size() + 1))), names(d));
}

TEST_F(Listing, LongListingsSplitAt49900BytesWithRunningOffsets)
{
    // 400 records of 35 + 240 bytes: 181 fit a block (6 + 181 * 275 = 49781).
    for (int i = 0; i < 400; ++i) {
        char name[241];
        snprintf(name, sizeof(name), "%04d%0236d", i, 0);
        touch_file(kDir + name, 0);
    }
    std::vector<Block> blocks = list(kDir);
    ASSERT_EQ(blocks.size(), 3u);
    unsigned seen = 0;
    for (const Block& b : blocks) {
        EXPECT_EQ(b.offset, seen);
        EXPECT_EQ(b.total, 400u);
        EXPECT_LE(b.len + 2, 49900u);
        seen += static_cast<unsigned>(b.records.size());
    }
    EXPECT_EQ(blocks[0].records.size(), 181u);
    EXPECT_EQ(blocks[1].records.size(), 181u);
    EXPECT_EQ(seen, 400u);
    std::vector<std::string> got = names(blocks);
    EXPECT_TRUE(std::is_sorted(got.begin(), got.end()));
}

TEST(ListingPieces, TimesBeforeAndAfter1970AndPlaylistNames)
{
    unsigned char info[10] = {0};
    put_file_time(info, 0);
    EXPECT_EQ(Bytes(info + 5, info + 10), (Bytes{0x00, 0x9E, 0x8B, 0, 0}));  // MJD 40587
    put_file_time(info, -2145913200);  // 1902-01-01 01:00 UTC, a playlist placeholder's time
    EXPECT_EQ(Bytes(info + 5, info + 10), (Bytes{0x00, 0x3D, 0x86, 1, 0}));  // MJD 15750
    put_file_time(info, -60);  // 1969-12-31 23:59
    EXPECT_EQ(Bytes(info + 5, info + 10), (Bytes{0x00, 0x9E, 0x8A, 23, 59}));
    for (const char* yes : {"x.M3U", "y.m3u", "/a/b.m3U/", "z.tar.m3u"})
        EXPECT_EQ(is_playlist_file(yes), 1) << yes;
    for (const char* no : {"m3u", "x.m3u8", "x.m3u//", "/a.m3u/b", "x.m3", ""})
        EXPECT_EQ(is_playlist_file(no), 0) << no;
}

TEST_F(Listing, CoversAreLinksToTheOneCoverFile)
{
    mkdir("/tmp/share", 0755);
    EventCapture events;
    EXPECT_EQ(theStorageManagerService.ExtractCover("/mnt/pvr/shared/sdb1/", "a.mp3"), 0);
    EXPECT_EQ(theStorageManagerService.ExtractCover("/mnt/pvr/shared/sdb1/", "a.mp3"), 0);
    EXPECT_EQ(theStorageManagerService.ExtractCover("/x/", "../../etc/evil"), 0);
    std::vector<Event> got = events.events();
    ASSERT_EQ(got.size(), 3u);
    std::string path = "/tmp/share/a.mp3.";
    Bytes expected = {0};
    expected.insert(expected.end(), path.begin(), path.end());
    expected.insert(expected.end(), {0, 0, 0, 0});  // terminator, three spare bytes
    EXPECT_EQ(got[0].id, LUM_TV_EVT_STORAGE_EXTRACT_COVER);
    EXPECT_EQ(got[0].data, expected);
    EXPECT_EQ(got[1].data, expected);
    char target[64] = {0};
    ASSERT_GT(readlink("/tmp/share/a.mp3.", target, sizeof(target) - 1), 0);
    EXPECT_STREQ(target, "/tmp/share/cover-file");
    // A name that climbs out of the folder is answered and makes no link.
    EXPECT_EQ(got[2].data[0], 0);
    struct stat st;
    EXPECT_NE(lstat("/tmp/etc/evil.", &st), 0);
    EXPECT_NE(lstat("/etc/evil.", &st), 0);
}

// Tags themselves are checked on the rig against TagLib's files; here a record
// whose tags do not fit a block goes without them.
TEST_F(Listing, RecordTooLargeForABlockGoesWithoutItsTags)
{
    if (system("(command -v sox && command -v lame && command -v python3) >/dev/null 2>&1") != 0)
        GTEST_SKIP() << "SKIPPED: needs sox, lame and python3 (scripts/install-deps.sh)";
    // Two ID3v2.3 frames of 30,000 bytes each before an MPEG stream: title and artist alone pass what one block holds.
    ASSERT_EQ(system(("sox -n -r 44100 -b 16 -c 2 /tmp/lst/n.wav synth 1 pinknoise vol 0.5 && "
                      "lame --quiet -V 4 /tmp/lst/n.wav /tmp/lst/notag.mp3 && python3 -c '"
                      "import struct,sys\n"
                      "def frame(n, t):\n"
                      "    body = b\"\\0\" + t\n"
                      "    return n + struct.pack(\">I\", len(body)) + b\"\\0\\0\" + body\n"
                      "f = frame(b\"TIT2\", b\"T\" * 30000) + frame(b\"TPE1\", b\"A\" * 30000)\n"
                      "size = bytes((len(f) >> s) & 0x7f for s in (21, 14, 7, 0))\n"
                      "mpeg = open(sys.argv[1], \"rb\").read()\n"
                      "open(sys.argv[2], \"wb\").write(b\"ID3\\3\\0\\0\" + size + f + mpeg)\n"
                      "' /tmp/lst/notag.mp3 " + kDir + "huge.mp3")
                         .c_str()),
              0);
    LogCapture log;
    std::vector<Block> blocks = list(kDir);
    ASSERT_EQ(blocks.size(), 1u);
    ASSERT_EQ(blocks[0].records.size(), 1u);
    const Record& huge = blocks[0].records[0];
    EXPECT_EQ(huge.name, "huge.mp3");
    EXPECT_EQ(huge.title + huge.artist + huge.album + huge.genre, "");
    Bytes readOnly(18, 0);
    readOnly[17] = 1;  // read, but nothing sent
    EXPECT_EQ(huge.info_tag, readOnly);
    EXPECT_TRUE(log.has("record of 'huge.mp3' too large, sent without its tags"));
}
