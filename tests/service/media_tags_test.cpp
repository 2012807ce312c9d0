// Media tags in listing records: a record whose tags do not fit a block goes
// without them. Tags themselves are checked on the rig against TagLib's files.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "listing_fixture.h"

using namespace listing_test;

TEST_F(Listing, RecordTooLargeForABlockGoesWithoutItsTags)
{
    if (system("(command -v sox && command -v lame && command -v python3) >/dev/null 2>&1") != 0)
        GTEST_SKIP() << "SKIPPED: needs sox, lame and python3 (scripts/install-deps.sh)";
    // Two ID3v2.3 frames of 30,000 bytes each before an MPEG stream: title
    // and artist alone pass what one block holds.
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
