// Directory listings end to end: lumstoragectl ls against the service on the simulated television, with real
// FAT and ext4 volumes, TagLib on a real MP3 and a playlist expanded into its entries.
#include <ctime>

#include "rig_fixture.h"

namespace e2e {
namespace {
const char* kFat = "/mnt/pvr/shared/sdb1";
const char* kExt = "/mnt/pvr/shared/sdb2";

class Listing : public ServiceRig {
protected:
    void SetUp() override
    {
        ServiceRig::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        char tmpl[] = "/tmp/lumls-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        media_ = tmpl;
        std::string make = "cd " + media_ + " && sox -n -r 44100 -b 16 -c 2 t.wav synth 2.5 sine 440 2>/dev/null && "
                           "LC_ALL=C.UTF-8 lame --quiet -b 128 --id3v2-only --tt 'Song \"1\"' --ta Band --ty 2024 "
                           "--tn 5 t.wav song.mp3";
        if (system(make.c_str()) != 0)
            GTEST_SKIP() << "SKIPPED: needs sox and lame (scripts/install-deps.sh)";
    }
    void TearDown() override
    {
        ServiceRig::TearDown();
        if (!media_.empty())
            system(("rm -rf " + media_).c_str());
    }
    Result Ls(const std::vector<std::string>& args) const
    {
        std::vector<std::string> argv{"ls"};
        argv.insert(argv.end(), args.begin(), args.end());
        return Ctl(argv);
    }
    std::string media_;
};

// The JSON object of one record, by its name.
std::string RecordOf(const std::string& out, const std::string& name)
{
    size_t at = out.find("\"name\":\"" + name + "\"");
    if (at == std::string::npos)
        return "";
    size_t start = out.rfind('{', at);
    size_t end = out.find('}', at);
    return out.substr(start, end - start + 1);
}

// The date and time a record shows for the file same.txt of a volume whose
// times get `offset` seconds: its stat time as UTC, plus the offset.
std::string Shown(const lumrig::Tv& tv, const char* vol, long offset)
{
    Result st = tv.Exec(std::string("stat -c %Y ") + vol + "/same.txt");
    time_t when = static_cast<time_t>(atol(st.out.c_str()) + offset);
    struct tm tm;
    gmtime_r(&when, &tm);
    char text[40];
    strftime(text, sizeof(text), "%Y-%m-%d\",\"time\":\"%H:%M", &tm);
    return text;
}

}  // namespace

TEST_F(Listing, LocalTimesTagsAndAPlaylistShownAsADirectory)
{
    std::string desc = "disk stick size=160M table=msdos plugged=no\n"
                       "  part size=64M fs=vfat label=FAT\n"
                       "    file /same.txt text=x\n"
                       "  part fs=ext4 label=EXT\n"
                       "    file /same.txt text=x\n"
                       "    file /music/song.mp3 from=" + media_ + "/song.mp3\n"
                       "    file /music/list.m3u text=#EXTM3U\n";
    // The daemon runs eight hours east of UTC, so local times differ from UTC.
    StartService(desc, {"stick"}, {"TZ=CST-8"});
    if (HasFatalFailure())
        return;
    // 2024-05-17 13:45 UTC on both volumes. Whatever time the FAT adapter makes of it, the record shows a FAT
    // file's time as stat gives it, and an ext4 file's eight hours later.
    for (const char* vol : {kFat, kExt})
        ASSERT_TRUE(tv.Exec(std::string("touch -d @1715953500 ") + vol + "/same.txt").ok());
    // The service mounted both volumes and knows their file systems: the listings ask no shell about them.
    auto asked = [&] {
        std::string log = tv.Log("lumstoraged");
        size_t n = 0;
        for (size_t at = 0; (at = log.find("run: mount | grep", at)) != std::string::npos; ++at)
            ++n;
        return n;
    };
    size_t before = asked();
    Result fat = Ls({std::string(kFat) + "/"});
    Result ext = Ls({std::string(kExt) + "/"});
    EXPECT_EQ(asked(), before);
    ASSERT_TRUE(fat.ok()) << fat.Describe();
    ASSERT_TRUE(ext.ok()) << ext.Describe();
    std::string f = RecordOf(fat.out, "same.txt");
    std::string e = RecordOf(ext.out, "same.txt");
    EXPECT_TRUE(Has(f, "\"date\":\"" + Shown(tv, kFat, 0) + "\"")) << f;
    EXPECT_TRUE(Has(e, "\"date\":\"" + Shown(tv, kExt, 8 * 3600) + "\"")) << e;
    EXPECT_TRUE(Has(e, "\"date\":\"2024-05-17\",\"time\":\"21:45\"")) << e;
    EXPECT_TRUE(Has(e, "\"sizeKiB\":0")) << e;
    EXPECT_TRUE(Has(ext.out, "\"name\":\"music/\"")) << ext.out;
    EXPECT_TRUE(Has(ext.out, "\"name\":\"lost+found/\"")) << ext.out;
    EXPECT_TRUE(Has(ext.out, "\"failed\":false")) << ext.out;
    // A path that is no directory fails with the exit code scripts can test.
    Result none = Ls({std::string(kExt) + "/nothing/"});
    EXPECT_EQ(none.status, 1) << none.Describe();
    EXPECT_TRUE(Has(none.out, "\"failed\":true")) << none.out;
    // Tags of a real MP3, and a playlist shown as a directory of its entries.
    std::string music = std::string(kExt) + "/music/";
    ASSERT_TRUE(tv.Exec("printf '#EXTM3U\\n#EXTINF:2,x\\nsong.mp3\\nhttp://radio.example/a.mp3\\n../missing.mp3\\n' > " +
                        music + "list.m3u")
                    .ok());
    Result dir = Ls({music});
    ASSERT_TRUE(dir.ok()) << dir.Describe();
    std::string song = RecordOf(dir.out, "song.mp3");
    EXPECT_TRUE(Has(song, "\"title\":\"Song \\\"1\\\"\",\"artist\":\"Band\"")) << song;
    EXPECT_TRUE(Has(song, "\"year\":2024,\"track\":5,\"duration\":2,")) << song;
    EXPECT_TRUE(Has(song, "\"tagRead\":true")) << song;
    EXPECT_TRUE(Has(dir.out, "\"name\":\"list.m3u/\"")) << dir.out;
    Result list = Ls({music + "list.m3u/"});
    ASSERT_TRUE(list.ok()) << list.Describe();
    size_t a = list.out.find("\"name\":\"song.mp3\"");
    size_t b = list.out.find("\"name\":\"a.mp3\"");
    size_t c = list.out.find("\"name\":\"missing.mp3\"");
    ASSERT_TRUE(a != std::string::npos && b != std::string::npos && c != std::string::npos) << list.out;
    EXPECT_LT(a, b);
    EXPECT_LT(b, c);
    EXPECT_TRUE(Has(RecordOf(list.out, "song.mp3"), "\"link\":\"" + music + "song.mp3\"")) << list.out;
    EXPECT_TRUE(Has(RecordOf(list.out, "song.mp3"), "\"title\":\"Song \\\"1\\\"\"")) << list.out;
    EXPECT_TRUE(Has(RecordOf(list.out, "a.mp3"), "\"link\":\"http://radio.example/a.mp3\"")) << list.out;
    EXPECT_TRUE(Has(RecordOf(list.out, "missing.mp3"), "\"link\":\"" + std::string(kExt) + "/missing.mp3\""))
        << list.out;
    // Tags off: the playlist is a file under its plain name, no tags read.
    Result off = Ls({music, "--no-tags"});
    ASSERT_TRUE(off.ok()) << off.Describe();
    EXPECT_TRUE(Has(off.out, "\"name\":\"list.m3u\"")) << off.out;
    EXPECT_TRUE(Has(RecordOf(off.out, "song.mp3"), "\"tagRead\":false")) << off.out;
}

}  // namespace e2e
