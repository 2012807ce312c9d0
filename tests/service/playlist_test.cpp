// Playlists expanded into placeholders under /tmp/m3u/ with the real touch, in the private /tmp of the test
// process. Entries are read back as a listing would see them: placeholders ordered by modification time, and
// the maps looked up under each placeholder's name.
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iconv.h>
#include <sys/stat.h>
#include <utility>

#include "Playlist.h"
#include "test_support.h"

namespace {
// One entry as a listing would show it; the placeholder's time orders the entries.
struct Entry {
    std::string link, title;
    time_t mtime;
};

// The UTF-8 text in GBK, through the C library's iconv.
std::string to_gbk(const std::string& utf8)
{
    iconv_t cd = iconv_open("GBK", "UTF-8");
    if (cd == reinterpret_cast<iconv_t>(-1))
        return "";
    std::string out(utf8.size() * 2 + 4, '\0');
    char* in = const_cast<char*>(utf8.data());
    size_t inLeft = utf8.size();
    char* o = &out[0];
    size_t outLeft = out.size();
    size_t rc = iconv(cd, &in, &inLeft, &o, &outLeft);
    iconv_close(cd);
    if (rc == static_cast<size_t>(-1))
        return "";
    out.resize(out.size() - outLeft);
    return out;
}

// 1 January of year, hh:mm, in local time as touch -t takes it.
time_t local_new_year(int year, int hour, int minute)
{
    struct tm t = {0, minute, hour, 1, 0, year - 1900, 0, 0, -1, 0, nullptr};
    return mktime(&t);
}

std::set<std::string> placeholders() { return list_dir(M3U_TEMP_DIR); }

class Playlist : public ::testing::Test {
protected:
    void SetUp() override
    {
        REQUIRE_ISOLATION();
        char tmpl[] = "/tmp/plXXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = std::string(tmpl) + "/";
    }
    std::string write(const std::string& name, const std::string& bytes)
    {
        std::string path = dir + name;
        std::string parent = path.substr(0, path.rfind('/'));
        EXPECT_EQ(system(("mkdir -p '" + parent + "'").c_str()), 0);
        std::ofstream(path, std::ios::binary) << bytes;
        return path;
    }
    bool expand(const std::string& path)
    {
        links.clear();
        titles.clear();
        return ExtractPlaylistToTempDir(path.c_str(), links, titles);
    }
    // The entries in the order of their placeholders' times; every placeholder must have its rows in both maps.
    std::vector<Entry> entries()
    {
        std::vector<std::pair<time_t, std::string>> byTime;
        for (const std::string& name : placeholders()) {
            struct stat st;
            EXPECT_EQ(stat((M3U_TEMP_DIR + name).c_str(), &st), 0) << name;
            byTime.emplace_back(st.st_mtime, name);
        }
        std::sort(byTime.begin(), byTime.end());
        std::vector<Entry> result;
        for (const auto& p : byTime) {
            EXPECT_EQ(links.count(p.second), 1u) << p.second;
            EXPECT_EQ(titles.count(p.second), 1u) << p.second;
            result.push_back({links[p.second], titles[p.second], p.first});
        }
        EXPECT_EQ(links.size(), result.size());
        EXPECT_EQ(titles.size(), result.size());
        return result;
    }
    std::vector<Entry> expect_entries(const std::string& path) { EXPECT_TRUE(expand(path)) << path; return entries(); }
    std::string dir;
    std::map<std::string, std::string> links, titles;
};

// A playlist's bytes and the entries it gives, link and title; a link
// beginning with "@" lies in the playlist's folder (dir).
struct ListRow {
    const char* why;
    std::string file, bytes;
    std::vector<std::pair<std::string, std::string>> entries;
};

std::vector<ListRow> list_rows()
{
    const std::string bom = "\xEF\xBB\xBF";
    const std::string chinese = "\xE4\xB8\xAD\xE6\x96\x87.mp3";  // UTF-8, also valid GBK bytes
    const std::string zhong = "\xE4\xB8\xAD.mp3", gbkZhong = to_gbk(zhong);
    const std::string music = "\xE9\x9F\xB3\xE4\xB9\x90";                 // 音乐
    const std::string song = "\xE4\xB8\xAD\xE6\x96\x87\xE6\xAD\x8C.mp3";  // 中文歌.mp3
    const std::string test = "\xE6\xB5\x8B\xE8\xAF\x95.mp3";              // 测试.mp3
    const std::string sincere = "\xE8\xAA\xA0.mp3";  // 誠, D5 5C in GBK: a backslash only before the conversion
    std::string wide;  // 300 GBK characters: 300 UTF-16 units fit, 900 bytes of UTF-8 do not
    for (int k = 0; k < 300; ++k)
        wide += "\xE4\xB8\xAD";
    wide = to_gbk(wide);
    const std::string lng = gbkZhong.substr(0, 2) + std::string(600, 'a');  // too many UTF-16 units
    const std::string bad = "\x81\x20.mp3";                                    // no GBK at all
    const std::string evil[] = {"$(touch /tmp/marker1).mp3", "`touch /tmp/marker2`.mp3",
                                "a\"; touch /tmp/marker3; \".mp3", "'$(touch /tmp/marker4)'"};
    return {
        {"extended: an indented #EXTINF is a comment", "ext.m3u",
         "#EXTM3U\n#EXTINF:123,Zulu\nc.mp3\n  #EXTINF:5,Alpha\nsub/a.mp3\n#EXTINF:7,Bravo\nb.mp3\n",
         {{"@c.mp3", "c.mp3"}, {"@sub/a.mp3", "a.mp3"}, {"@b.mp3", "b.mp3"}}},
        {"plain: #EXTINF a comment, indented an entry, last line without its end", "plain.m3u",
         "c.mp3\n#EXTINF:1,x\n  #EXTINF:5,y\nb.mp3",
         {{"@c.mp3", "c.mp3"}, {"@  #EXTINF:5,y", "  #EXTINF:5,y"}, {"@b.mp3", "b.mp3"}}},
        {"mark before #EXTM3U", "bom.m3u", bom + "#EXTM3U\r\n  #EXTINF:1,t\r\n" + chinese + "\r\n",
         {{"@" + chinese, chinese}}},
        {"mark on a plain file makes every line UTF-8", "bomplain.m3u", bom + "a.mp3\n\xD6\xD0.mp3\n",
         {{"@a.mp3", "a.mp3"}, {"@\xD6\xD0.mp3", "\xD6\xD0.mp3"}}},
        {"mark hides the # of a first comment", "bomcomment.m3u", bom + "#note\nb.mp3\n",
         {{"@#note", "#note"}, {"@b.mp3", "b.mp3"}}},
        {"two bytes of a mark are GBK", "cut.m3u", std::string("\xEF\xBB\n") + gbkZhong + "\n",
         {{"@\xE9\x94\x98", "\xE9\x94\x98"}, {"@" + zhong, zhong}}},
        {"one ASCII byte first makes the file UTF-8", "one.m3u", "x\n" + gbkZhong + "\n",
         {{"@x", "x"}, {"@" + gbkZhong, gbkZhong}}},
        {"GBK on every line, backslashes to slashes", "gbk.m3u",
         to_gbk("#EXTM3U\r\n#EXTINF:1,x\r\n" + music + "\\" + song + "\r\n#EXTINF:2,y\r\nabc.mp3\r\n" + test + "\r\n"),
         {{"@" + music + "/" + song, song}, {"@abc.mp3", "abc.mp3"}, {"@" + test, test}}},
        {"a GBK trail byte 5C survives", "trail.m3u", to_gbk(song + "\r\n" + music + "\\" + sincere + "\r\n"),
         {{"@" + song, song}, {"@" + music + "/" + sincere, sincere}}},
        {"GBK lines that do not fit stay as read", "long.m3u",
         "\xD6\xD0.mp3\n" + wide + "\n" + lng + "\n" + bad + "\n",
         {{"@" + zhong, zhong}, {"@" + wide, wide}, {"@" + lng, lng}, {"@" + bad, bad}}},
        {"parent steps climb the playlist's folder", "a/b/list.m3u", "..\\music\\x.mp3\nsub/../y.mp3\n../../z.mp3\n",
         {{"@a/music/x.mp3", "x.mp3"}, {"@a/y.mp3", "y.mp3"}, {"@z.mp3", "z.mp3"}}},
        // dir is /tmp/plXXXXXX/: two levels to climb, then the last "../" stays.
        {"climbing past the root", "top.m3u", "../../../x.mp3\n", {{"/../x.mp3", "x.mp3"}}},
        {"only http in that case is a URL", "urls.m3u",
         "http://radio.example/live/stream.mp3\nhttp://host/../x.mp3\nHTTP://host/y.mp3\nhttps://host/dir/z.mp3\n"
         "/abs/w.mp3\nC:\\music\\v.mp3\n",
         {{"http://radio.example/live/stream.mp3", "http://radio.example/live/stream.mp3"},
          {"http://host/../x.mp3", "http://host/../x.mp3"}, {"@HTTP://host/y.mp3", "y.mp3"},
          {"@https://host/dir/z.mp3", "z.mp3"}, {"@/abs/w.mp3", "w.mp3"}, {"@C:/music/v.mp3", "v.mp3"}}},
        {"a blank line ends the list", "blank.m3u", "#EXTM3U\n#EXTINF:1,a\n1.mp3\n2.mp3\n\n3.mp3\n4.mp3\n",
         {{"@1.mp3", "1.mp3"}, {"@2.mp3", "2.mp3"}}},
        {"empty", "empty.m3u", "", {}},
        {"names with commands run nothing", "evil.m3u", evil[0] + "\n" + evil[1] + "\n" + evil[2] + "\n" + evil[3] + "\n",
         {{"@" + evil[0], "marker1).mp3"}, {"@" + evil[1], "marker2`.mp3"}, {"@" + evil[2], "marker3; \".mp3"},
          {"@" + evil[3], "marker4)'"}}},
    };
}

TEST_F(Playlist, EntriesInFileOrderAsTheyAreRead)
{
    ASSERT_EQ(to_gbk("\xE9\x94\x98"), "\xEF\xBB");
    ASSERT_EQ(to_gbk("\xE8\xAA\xA0.mp3"), "\xD5\x5C.mp3");
    for (const ListRow& row : list_rows()) {
        SCOPED_TRACE(row.why);
        std::vector<std::pair<std::string, std::string>> want, got;
        for (const auto& [link, title] : row.entries)
            want.emplace_back(link[0] == '@' ? dir + link.substr(1) : link, title);
        for (const Entry& e : expect_entries(write(row.file, row.bytes)))
            got.emplace_back(e.link, e.title);
        EXPECT_EQ(got, want);
        EXPECT_EQ(placeholders().size(), want.size());
    }
    // The form with the trailing "/" under which a listing shows a playlist.
    EXPECT_EQ(expect_entries(dir + "plain.m3u/").size(), 3u);
    for (const char* marker : {"/tmp/marker1", "/tmp/marker2", "/tmp/marker3", "/tmp/marker4"})
        EXPECT_FALSE(exists(marker)) << marker;
}

TEST_F(Playlist, TimeStampsCountMinutesFrom1902)
{
    // Zero-padded names of falling order, so that the placeholders' names cannot give the order by chance.
    std::string text;
    for (int k = 0; k < 1441; ++k)
        text += std::to_string(9999 - k) + ".mp3\n";
    std::vector<Entry> got = expect_entries(write("many.m3u", text));
    ASSERT_EQ(got.size(), 1441u);
    for (int k = 0; k < 1441; ++k)
        ASSERT_EQ(got[k].title, std::to_string(9999 - k) + ".mp3") << "entry " << k;
    EXPECT_EQ(got[0].mtime, local_new_year(1902, 0, 0));
    EXPECT_EQ(got[59].mtime, local_new_year(1902, 0, 59));
    EXPECT_EQ(got[60].mtime, local_new_year(1902, 1, 0));  // the sixty-first
    EXPECT_EQ(got[1439].mtime, local_new_year(1902, 23, 59));
    EXPECT_EQ(got[1440].mtime, local_new_year(1903, 0, 0));
}

TEST_F(Playlist, UnreadablePathsGiveFalse)
{
    std::string good = write("good.m3u", "a.mp3\nb.mp3\n");
    ASSERT_EQ(expect_entries(good).size(), 2u);
    // What the last expansion left goes all the same.
    EXPECT_FALSE(expand(dir + "missing.m3u"));
    EXPECT_TRUE(exists(M3U_TEMP_DIR));
    EXPECT_TRUE(placeholders().empty());
    EXPECT_TRUE(links.empty());
    EXPECT_FALSE(expand("/"));
    EXPECT_FALSE(expand(""));
}

}  // namespace
