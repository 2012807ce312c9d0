// Media tags in listing records, from real files made at test time with
// Debian's encoders and checked against mediainfo, an independent reader.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "listing_fixture.h"

using namespace listing_test;

namespace {

bool have_tools()
{
    return system("(command -v sox && command -v lame && command -v oggenc && command -v flac && "
                  "command -v mediainfo) >/dev/null 2>&1") == 0;
}

std::string run(const std::string& command)
{
    std::string out;
    FILE* p = popen(command.c_str(), "r");
    char buf[512];
    while (p != nullptr && fgets(buf, sizeof(buf), p) != nullptr)
        out += buf;
    if (p != nullptr)
        pclose(p);
    while (!out.empty() && out.back() == '\n')
        out.pop_back();
    return out;
}

// What mediainfo says of a file: the tag texts, and numbers as the record
// carries them (whole seconds, kilobits per second).
struct Independent {
    std::string title, artist, album, genre;
    unsigned year, track, seconds, kbps;
};

Independent mediainfo(const std::string& path)
{
    Independent m{};
    std::string line = run("LC_ALL=C.UTF-8 mediainfo --Inform='General;%Title%|%Performer%|%Album%|%Genre%|%Recorded_Date%|"
                           "%Track/Position%|%Duration%|%OverallBitRate%' '" + path + "'");
    std::vector<std::string> f;
    size_t start = 0;
    for (size_t bar; (bar = line.find('|', start)) != std::string::npos; start = bar + 1)
        f.push_back(line.substr(start, bar - start));
    f.push_back(line.substr(start));
    if (f.size() != 8)
        return m;
    m.title = f[0];
    m.artist = f[1];
    m.album = f[2];
    m.genre = f[3];
    m.year = static_cast<unsigned>(atoi(f[4].c_str()));
    m.track = static_cast<unsigned>(atoi(f[5].c_str()));
    m.seconds = static_cast<unsigned>(atol(f[6].c_str()) / 1000);
    m.kbps = static_cast<unsigned>(atol(f[7].c_str()) / 1000);
    return m;
}

unsigned be32(const Bytes& b, size_t at)
{
    return (unsigned(b[at]) << 24) | (unsigned(b[at + 1]) << 16) | (unsigned(b[at + 2]) << 8) | b[at + 3];
}

class MediaTags : public Listing {
protected:
    void SetUp() override
    {
        Listing::SetUp();
        if (IsSkipped())
            return;
        if (!have_tools())
            GTEST_SKIP() << "SKIPPED: needs sox, lame, vorbis-tools, flac and mediainfo (scripts/install-deps.sh)";
        const std::string d = kDir;
        // Pink noise keeps the headers' share of the bit rate small, so both
        // readers agree on it.
        ASSERT_EQ(system(("cd " + d + " && sox -n -r 44100 -b 16 -c 2 /tmp/lst/n.wav synth 8.4 pinknoise vol 0.5 && "
                          "LC_ALL=C.UTF-8 lame --quiet -b 128 --id3v2-only --tt 'Tïtle \"q\"' --ta Artist --tl Album --tg Rock "
                          "--ty 2024 --tn 3 /tmp/lst/n.wav tagged.mp3 && "
                          "lame --quiet -V 4 /tmp/lst/n.wav notag.mp3 && "
                          "oggenc -Q -t OggT -a OggA -l OggL -G Jazz -d 2023 -N 7 -o vorbis.ogg /tmp/lst/n.wav && "
                          "flac -s -T TITLE=FlacT -T ARTIST=FlacA -T DATE=1999 -T TRACKNUMBER=12 -T GENRE=Pop "
                          "/tmp/lst/n.wav -o lossless.flac && "
                          "echo hello > unknown.xyz && echo hello > garbage.mp3 && mkfifo fifo.mp3 && "
                          "ln -s fifo.mp3 link-to-fifo.mp3 && ln -s tagged.mp3 link.mp3")
                             .c_str()),
                  0);
    }
};

}  // namespace

TEST_F(MediaTags, RecordsAgreeWithAnIndependentReader)
{
    std::vector<Block> blocks = list(kDir);
    ASSERT_EQ(blocks.size(), 1u);
    std::map<std::string, Record> byName;
    for (const Record& r : blocks[0].records)
        byName[r.name] = r;

    for (const char* name : {"tagged.mp3", "notag.mp3", "vorbis.ogg", "lossless.flac", "link.mp3"}) {
        SCOPED_TRACE(name);
        ASSERT_EQ(byName.count(name), 1u);
        const Record& r = byName[name];
        Independent m = mediainfo(kDir + name);
        EXPECT_EQ(r.title, m.title);
        EXPECT_EQ(r.artist, m.artist);
        EXPECT_EQ(r.album, m.album);
        EXPECT_EQ(r.genre, m.genre);
        EXPECT_EQ((r.info_tag[0] << 8) | r.info_tag[1], m.year);
        EXPECT_EQ((r.info_tag[2] << 8) | r.info_tag[3], m.track);
        EXPECT_EQ(be32(r.info_tag, 4), m.seconds);
        // mediainfo's overall rate counts the container's headers too.
        EXPECT_NEAR(double(be32(r.info_tag, 8)), double(m.kbps), m.kbps * 0.08 + 1);
        EXPECT_EQ(Bytes(r.info_tag.begin() + 12, r.info_tag.begin() + 17), Bytes(5, 0));
        EXPECT_EQ(r.info_tag[17], 1);
    }
    // Hand-checked values of the tagged MP3: the year 2024 is 07 E8.
    EXPECT_EQ(byName["tagged.mp3"].title, "Tïtle \"q\"");
    EXPECT_EQ(byName["tagged.mp3"].info_tag[0], 0x07);
    EXPECT_EQ(byName["tagged.mp3"].info_tag[1], 0xE8);
    EXPECT_EQ(byName["tagged.mp3"].info_tag[3], 3);
    EXPECT_EQ(byName["notag.mp3"].info_tag[1], 0);  // audio properties, no tag: year 0

    // TagLib does not know the type: no tags, byte 17 clear.
    EXPECT_EQ(byName["unknown.xyz"].info_tag, Bytes(18, 0));
    // Known by its name, but no audio in it: read, nothing found.
    Bytes readOnly(18, 0);
    readOnly[17] = 1;
    EXPECT_EQ(byName["garbage.mp3"].info_tag, readOnly);
    // A link to a FIFO is listed (the FIFO itself is not) and never opened:
    // opening it would block the listing until a writer came.
    EXPECT_EQ(byName.count("fifo.mp3"), 0u);
    ASSERT_EQ(byName.count("link-to-fifo.mp3"), 1u);
    EXPECT_EQ(byName["link-to-fifo.mp3"].info_tag, Bytes(18, 0));
    EXPECT_EQ(blocks[0].total, 9u);
}

TEST_F(MediaTags, RecordTooLargeForABlockGoesWithoutItsTags)
{
    // Two ID3v2.3 frames of 30,000 bytes each: title and artist alone pass
    // what one block holds.
    ASSERT_EQ(system(("python3 -c '"
                      "import struct,sys\n"
                      "def frame(n, t):\n"
                      "    body = b\"\\0\" + t\n"
                      "    return n + struct.pack(\">I\", len(body)) + b\"\\0\\0\" + body\n"
                      "f = frame(b\"TIT2\", b\"T\" * 30000) + frame(b\"TPE1\", b\"A\" * 30000)\n"
                      "size = bytes((len(f) >> s) & 0x7f for s in (21, 14, 7, 0))\n"
                      "mpeg = open(sys.argv[1], \"rb\").read()\n"
                      "open(sys.argv[2], \"wb\").write(b\"ID3\\3\\0\\0\" + size + f + mpeg)\n"
                      "' " + kDir + "notag.mp3 " + kDir + "huge.mp3")
                         .c_str()),
              0);
    ASSERT_EQ(mediainfo(kDir + "huge.mp3").title, std::string(30000, 'T'));
    LogCapture log;
    std::vector<Block> blocks = list(kDir);
    ASSERT_EQ(blocks.size(), 1u);
    const Record* huge = nullptr;
    for (const Record& r : blocks[0].records)
        if (r.name == "huge.mp3")
            huge = &r;
    ASSERT_NE(huge, nullptr);
    EXPECT_EQ(huge->title + huge->artist + huge->album + huge->genre, "");
    Bytes readOnly(18, 0);
    readOnly[17] = 1;
    EXPECT_EQ(huge->info_tag, readOnly);
    EXPECT_TRUE(log.has("record of 'huge.mp3' too large, sent without its tags"));
    EXPECT_EQ(blocks[0].records.size() + 1, blocks[0].total);  // the FIFO sends no record
}

TEST_F(MediaTags, TagsOffReadsNothing)
{
    std::vector<Block> blocks = list_flags(kDir, 8 | 1);
    ASSERT_EQ(blocks.size(), 1u);
    for (const Record& r : blocks[0].records) {
        EXPECT_EQ(r.title + r.artist + r.album + r.genre, "") << r.name;
        EXPECT_EQ(r.info_tag, Bytes(18, 0)) << r.name;
    }
}

TEST_F(MediaTags, ExpandedPlaylistKeepsItsOrderAndShowsLinksAndTitles)
{
    // touch dates the placeholders in local time; UTC makes their bytes fixed.
    std::string oldTz = getenv("TZ") != nullptr ? getenv("TZ") : "";
    setenv("TZ", "UTC0", 1);
    std::ofstream(kDir + "list.m3u") << "#EXTM3U\n#EXTINF:1,ignored\nnotag.mp3\ntagged.mp3\n"
                                        "http://radio.example/live/x.mp3\nsub/../lossless.flac\n";
    std::vector<Block> shown = list(kDir);
    std::vector<std::string> all = names(shown);
    EXPECT_NE(std::find(all.begin(), all.end(), "list.m3u/"), all.end());

    std::vector<Block> blocks = list(kDir + "list.m3u/");
    ASSERT_EQ(blocks.size(), 1u);
    EXPECT_EQ(blocks[0].total, 4u);
    const std::vector<Record>& r = blocks[0].records;
    ASSERT_EQ(r.size(), 4u);
    EXPECT_EQ(names(blocks), (std::vector<std::string>{"notag.mp3", "tagged.mp3", "x.mp3", "lossless.flac"}));
    EXPECT_EQ(r[0].link, kDir + "notag.mp3");
    EXPECT_EQ(r[0].title, "notag.mp3");  // the playlist's text, the file has none
    EXPECT_EQ(r[0].info_tag[17], 1);
    EXPECT_EQ(r[1].title, "Tïtle \"q\"");  // the file's own title wins
    EXPECT_EQ(r[1].artist, "Artist");
    EXPECT_EQ(r[2].link, "http://radio.example/live/x.mp3");
    EXPECT_EQ(r[2].title, "http://radio.example/live/x.mp3");
    EXPECT_EQ(r[2].info_tag, Bytes(18, 0));  // nothing to open
    EXPECT_EQ(r[3].link, kVolume + "/lossless.flac");  // "sub/.." climbs one level of the playlist's folder
    EXPECT_EQ(r[3].title, "lossless.flac");
    // Size and time are the placeholder's: empty, 1 January 1902 from 00:00 on.
    for (size_t i = 0; i < r.size(); ++i) {
        EXPECT_EQ(Bytes(r[i].info_file.begin() + 1, r[i].info_file.begin() + 5), Bytes(4, 0));
        EXPECT_EQ(Bytes(r[i].info_file.begin() + 5, r[i].info_file.end()),
                  (Bytes{0x00, 0x3D, 0x86, 0, static_cast<unsigned char>(i)}));
    }
    // With tags off the playlist is a plain file and no directory.
    bool ok = true;
    std::vector<Block> off = list(kDir + "list.m3u/" + std::string(1, '\0') + std::string(1, '\x09'),
                                  static_cast<int>(kDir.size() + 11), 1, &ok);
    EXPECT_FALSE(ok);
    ASSERT_EQ(off.size(), 1u);
    EXPECT_EQ(off[0].total, 0xFFFFu);
    if (oldTz.empty())
        unsetenv("TZ");
    else
        setenv("TZ", oldTz.c_str(), 1);
}
