// The listing's block and record decoding, the cover answer, the listing
// request's bytes and the assembly of a listing from blocks, against byte
// vectors written out by hand from the layouts.
#include <gtest/gtest.h>

#include <memory>

#include <StorageEvents.h>

#include "fake_bytes.h"
#include "lumctl/event_decoders.h"
#include "lumctl/listing.h"

namespace {

using fakesvc::Bytes;
using fakesvc::join;

// Protected, 1 KiB, 2024-05-17 (MJD 60447) 13:45, "a.mp3", title "T",
// year 2024, track 3, 215 s, 192 kbit/s, read by TagLib: 6 string bytes +
// 35 = 41 bytes.
const Bytes kSong = {
    0x01, 0x00, 0x00, 0x00, 0x01, 0x00, 0xEC, 0x1F, 0x0D, 0x2D,  // file information
    'a', '.', 'm', 'p', '3', 0x00, 'T', 0x00, 0x00, 0x00, 0x00, 0x00,  // name title artist album genre link
    0x00,                                                              // separator
    0x07, 0xE8, 0x00, 0x03, 0x00, 0x00, 0x00, 0xD7, 0x00, 0x00, 0x00, 0xC0,  // year track duration bitrate
    0x00, 0x00, 0x00, 0x00, 0x00, 0x01,                                      // reserved, TagLib read it
};

// Writable directory "d/" of 1901-01-01 (MJD 15385) 00:07 with the link
// "http://x" and the genre "G", no tag numbers: 2 + 1 + 8 string bytes + 35
// = 46 bytes.
const Bytes kDir = {
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x3C, 0x19, 0x00, 0x07,
    'd', '/', 0x00, 0x00, 0x00, 0x00, 'G', 0x00, 'h', 't', 't', 'p', ':', '/', '/', 'x', 0x00,
    0x00,
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
};

// offset 2, total 7, then the two records.
const Bytes kBlock = join({{0x00, 0x02, 0x00, 0x07}, kSong, kDir});

// A copy in an allocation of exactly len bytes, so that AddressSanitizer
// sees any read past the payload.
std::unique_ptr<uint8_t[]> exact(const Bytes& bytes, size_t len)
{
    std::unique_ptr<uint8_t[]> copy(new uint8_t[len > 0 ? len : 1]);
    std::copy(bytes.begin(), bytes.begin() + static_cast<long>(len), copy.get());
    return copy;
}

TEST(CtlListing, RecordsDecodeFieldByFieldFromHandBuiltBytes)
{
    ASSERT_EQ(41u, kSong.size());
    ASSERT_EQ(46u, kDir.size());
    lumctl::ListingBlock block;
    ASSERT_TRUE(lumctl::parse_listing_block(kBlock.data(), kBlock.size(), &block));
    EXPECT_EQ(2, block.offset);
    EXPECT_EQ(7, block.total);
    EXPECT_EQ(kBlock.size(), block.used);
    EXPECT_EQ("", block.damage);
    ASSERT_EQ(2u, block.records.size());
    const lumctl::ListingRecord& song = block.records[0];
    EXPECT_TRUE(song.is_protected);
    EXPECT_EQ(1u, song.size_kib);
    EXPECT_EQ(60447u, song.mjd);
    EXPECT_EQ(13, song.hour);
    EXPECT_EQ(45, song.minute);
    EXPECT_EQ("a.mp3", song.name);
    EXPECT_EQ("T", song.title);
    EXPECT_EQ("", song.artist + song.album + song.genre + song.link);
    EXPECT_EQ(2024, song.year);
    EXPECT_EQ(3, song.track);
    EXPECT_EQ(215u, song.duration);
    EXPECT_EQ(192u, song.bitrate);
    EXPECT_TRUE(song.tag_read);
    const lumctl::ListingRecord& dir = block.records[1];
    EXPECT_FALSE(dir.is_protected);
    EXPECT_EQ("d/", dir.name);
    EXPECT_EQ("G", dir.genre);
    EXPECT_EQ("http://x", dir.link);
    EXPECT_EQ(0u, dir.duration);
    EXPECT_FALSE(dir.tag_read);

    EXPECT_EQ("r         1 2024-05-17 13:45 a.mp3  title \"T\", year 2024, track 3, 3:35, 192 kbit/s",
              lumctl::record_line(song, false));
    EXPECT_EQ("w     0K 1901-01-01 00:07 d/  genre \"G\", link \"http://x\"", lumctl::record_line(dir, true));

    // The event table decodes it for watch: every field in the JSON.
    lumctl::Decoded d = lumctl::decode_event(LUM_TV_EVT_STORAGE_READ_DIRS, kBlock.data(), kBlock.size());
    EXPECT_TRUE(d.complete);
    EXPECT_TRUE(d.rest.empty());
    const std::string json = lumctl::json_line((lumctl::fields_json(d)));
    EXPECT_EQ(0u, json.find("{\"offset\":2,\"total\":7,\"records\":[{\"protected\":true,\"sizeKiB\":1,\"mjd\":60447,"
                            "\"date\":\"2024-05-17\",\"time\":\"13:45\",\"name\":\"a.mp3\",\"title\":\"T\","
                            "\"artist\":\"\",\"album\":\"\",\"genre\":\"\",\"link\":\"\",\"year\":2024,\"track\":3,"
                            "\"duration\":215,\"bitrate\":192,\"tagRead\":true},{\"protected\":false,"))
        << json;
    EXPECT_NE(std::string::npos, json.find("\"link\":\"http://x\"")) << json;
}

TEST(CtlListing, DamagedBlocksEndTheWalkCleanly)
{
    // Every prefix of the block: the whole records before the cut are kept,
    // the cut is reported, nothing past the payload is read.
    const size_t song_end = 4 + kSong.size();
    for (size_t len = 0; len <= kBlock.size(); ++len) {
        SCOPED_TRACE(len);
        auto bytes = exact(kBlock, len);
        lumctl::ListingBlock block;
        bool parsed = lumctl::parse_listing_block(bytes.get(), len, &block);
        lumctl::Decoded d = lumctl::decode_event(LUM_TV_EVT_STORAGE_READ_DIRS, bytes.get(), len);
        if (len < 4) {
            EXPECT_FALSE(parsed);
            EXPECT_FALSE(d.complete);
            continue;
        }
        ASSERT_TRUE(parsed);
        const bool boundary = len == 4 || len == song_end || len == kBlock.size();
        EXPECT_EQ(boundary, block.damage.empty()) << block.damage;
        EXPECT_EQ(len < song_end ? 0u : len < kBlock.size() ? 1u : 2u, block.records.size());
        EXPECT_EQ(boundary ? len : len < song_end ? 4 : song_end, block.used);
        EXPECT_EQ(boundary, d.complete);
        EXPECT_EQ(len - block.used, d.rest.size());
    }

    struct Case {
        Bytes bytes;
        const char* damage;
    };
    Bytes no_nul = kSong;
    no_nul.resize(10 + 3);  // "a.m" of the name and the payload ends
    Bytes bad_separator = kSong;
    bad_separator[22] = 0x20;
    const Case cases[] = {
        {join({{0, 0, 0, 2}, kSong, no_nul}), "record 2 at byte 45: name without its NUL"},
        {join({{0, 0, 0, 1}, Bytes(kSong.begin(), kSong.end() - 1)}), "record 1 at byte 4: tag information cut short (18 of 19 bytes)"},
        {join({{0, 0, 0, 1}, Bytes(kSong.begin(), kSong.begin() + 9)}), "record 1 at byte 4: file information cut short (9 of 10 bytes)"},
        {join({{0, 0, 0, 1}, bad_separator}), "record 1 at byte 4: separator is 32, not 0"},
    };
    for (const Case& c : cases) {
        lumctl::ListingBlock block;
        ASSERT_TRUE(lumctl::parse_listing_block(c.bytes.data(), c.bytes.size(), &block));
        EXPECT_EQ(c.damage, block.damage);
        lumctl::Decoded d = lumctl::decode_event(LUM_TV_EVT_STORAGE_READ_DIRS, c.bytes.data(), c.bytes.size());
        EXPECT_FALSE(d.complete);
        EXPECT_EQ("damage", d.fields.back().name);
    }
}

TEST(CtlListing, FailureIsTotalFFFFWithoutRecords)
{
    const Bytes failed = {0x00, 0x00, 0xFF, 0xFF};
    lumctl::ListingBlock block;
    ASSERT_TRUE(lumctl::parse_listing_block(failed.data(), failed.size(), &block));
    EXPECT_TRUE(lumctl::listing_failed(block));
    lumctl::Decoded d = lumctl::decode_event(LUM_TV_EVT_STORAGE_READ_DIRS, failed.data(), failed.size());
    EXPECT_EQ("65535 (failed)", d.fields[1].text);
    // A directory of 65535 entries has the same total in blocks with records.
    const Bytes full = join({{0x00, 0x00, 0xFF, 0xFF}, kSong});
    ASSERT_TRUE(lumctl::parse_listing_block(full.data(), full.size(), &block));
    EXPECT_FALSE(lumctl::listing_failed(block));
}

TEST(CtlListing, DatesFromModifiedJulianDays)
{
    const std::pair<uint32_t, const char*> cases[] = {
        {0, "1858-11-17"},     {15020, "1900-01-01"}, {15385, "1901-01-01"},       {40586, "1969-12-31"},
        {40587, "1970-01-01"}, {51603, "2000-02-29"}, {60447, "2024-05-17"},       {2973483, "9999-12-31"},
        {16777215, "47793-05-01"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.second, lumctl::mjd_date(c.first)) << c.first;
}

TEST(CtlListing, CoverAnswerIsStatusPathAndSpareBytes)
{
    const Bytes answer = {0x00, '/', 't', 'm', 'p', '/', 's', 'h', 'a', 'r', 'e', '/', 'a', '.', 'm', 'p', '3', '.', 0x00,
                          0x00, 0x00, 0x00};
    lumctl::Decoded d = lumctl::decode_event(LUM_TV_EVT_STORAGE_EXTRACT_COVER, answer.data(), answer.size());
    EXPECT_EQ("{\"status\":0,\"path\":\"/tmp/share/a.mp3.\"}", lumctl::json_line(lumctl::fields_json(d)));
    EXPECT_TRUE(d.complete);
    EXPECT_TRUE(d.rest.empty());
    Bytes longer = join({answer, {0x42}});
    d = lumctl::decode_event(LUM_TV_EVT_STORAGE_EXTRACT_COVER, longer.data(), longer.size());
    EXPECT_EQ((Bytes{0x42}), d.rest);
    for (size_t len : {size_t{0}, size_t{1}, size_t{10}}) {
        auto bytes = exact(answer, len);  // the path's NUL is not there
        d = lumctl::decode_event(LUM_TV_EVT_STORAGE_EXTRACT_COVER, bytes.get(), len);
        EXPECT_FALSE(d.complete) << len;
    }
}

TEST(CtlListing, RequestCarriesTheFlagsWordOnlyWhenAsked)
{
    std::vector<uint8_t> out;
    std::string error;
    ASSERT_EQ(0, lumctl::build_listing_request("/mnt/a", lumctl::kListingNoFlags, 0x1234, &out, &error));
    const Bytes head = {0x25, 0x10, 0x00, 0x00, '/', 'm', 'n', 't', '/', 'a', 0x00, 0x00};
    const Bytes id = {0x34, 0x12, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(join({head, {0x07, 0, 0, 0}, id}), out);
    ASSERT_EQ(0, lumctl::build_listing_request("/mnt/a", 3 | lumctl::kListingNoTags, 0x1234, &out, &error));
    EXPECT_EQ(join({head, {0x08, 0, 0, 0}, id, {0x0B, 0, 0, 0}}), out);
    ASSERT_EQ(0, lumctl::build_listing_request("", lumctl::kListingNoFlags, 1, &out, &error));
    EXPECT_EQ((Bytes{0x25, 0x10, 0, 0, 0, 0, 0, 0, 0x01, 0, 0, 0, 0x01, 0, 0, 0, 0, 0, 0, 0}), out);

    // 99 bytes of path, 98 when the flags byte needs its place.
    const std::string p99(99, 'x'), p100(100, 'x');
    EXPECT_EQ(0, lumctl::build_listing_request(p99, lumctl::kListingNoFlags, 1, &out, &error));
    EXPECT_EQ(-1, lumctl::build_listing_request(p100, lumctl::kListingNoFlags, 1, &out, &error));
    EXPECT_EQ(0, lumctl::build_listing_request(p99.substr(1), 0, 1, &out, &error));
    out.clear();
    EXPECT_EQ(-1, lumctl::build_listing_request(p99, 0, 1, &out, &error));
    EXPECT_TRUE(out.empty());
    EXPECT_NE(std::string::npos, error.find("at most 98 bytes")) << error;
}

lumctl::ListingBlock block_of(uint16_t offset, uint16_t total, size_t records)
{
    lumctl::ListingBlock b;
    b.offset = offset;
    b.total = total;
    b.records.resize(records);
    return b;
}

TEST(CtlListing, AssemblyCountsModulo65536AndWaitsForTheEndMarker)
{
    using lumctl::BlockRole;
    // 65537 entries: total 1, offsets wrap.
    lumctl::ListingAssembly a;
    EXPECT_EQ(BlockRole::kSkipped, a.take(block_of(3, 1, 1)));
    EXPECT_EQ(BlockRole::kFirst, a.take(block_of(0, 1, 40000)));
    EXPECT_FALSE(a.complete);
    EXPECT_EQ(BlockRole::kSkipped, a.take(block_of(40000, 2, 5)));
    EXPECT_EQ(BlockRole::kSkipped, a.take(block_of(0, 1, 5)));
    EXPECT_EQ(BlockRole::kNext, a.take(block_of(40000, 1, 25000)));
    EXPECT_FALSE(a.complete);
    EXPECT_EQ(BlockRole::kNext, a.take(block_of(65000, 1, 537)));
    EXPECT_TRUE(a.complete);
    EXPECT_EQ(0u, a.not_shown());
    EXPECT_EQ(BlockRole::kEndMark, a.take(block_of(0, 0xFFFF, 0)));
    EXPECT_EQ(BlockRole::kSkipped, a.take(block_of(0, 0xFFFF, 0)));

    // 65536 + 1400 entries: the first block ends on total, yet the listing
    // goes on until the end marker.
    lumctl::ListingAssembly wraps;
    EXPECT_EQ(BlockRole::kFirst, wraps.take(block_of(0, 1400, 1400)));
    EXPECT_TRUE(wraps.complete);
    EXPECT_EQ(BlockRole::kNext, wraps.take(block_of(1400, 1400, 65000)));
    EXPECT_FALSE(wraps.complete);
    EXPECT_EQ(BlockRole::kSkipped, wraps.take(block_of(0, 1400, 536)));
    EXPECT_EQ(BlockRole::kNext, wraps.take(block_of(864, 1400, 536)));
    EXPECT_TRUE(wraps.complete);
    EXPECT_EQ(66936u, wraps.received);
    EXPECT_EQ(BlockRole::kEndMark, wraps.take(block_of(0, 0xFFFF, 0)));

    lumctl::ListingAssembly fifo;
    EXPECT_EQ(BlockRole::kFirst, fifo.take(block_of(0, 3, 0)));
    EXPECT_EQ(BlockRole::kEndMark, fifo.take(block_of(0, 0xFFFF, 0)));
    EXPECT_FALSE(fifo.complete);
    EXPECT_EQ(3u, fifo.not_shown());

    // A failed listing: its own failure block, then the end marker; nothing
    // starts in between.
    lumctl::ListingAssembly failed;
    EXPECT_EQ(BlockRole::kFailed, failed.take(block_of(0, 0xFFFF, 0)));
    EXPECT_EQ(BlockRole::kSkipped, failed.take(block_of(0, 2, 2)));
    EXPECT_EQ(BlockRole::kEndMark, failed.take(block_of(0, 0xFFFF, 0)));
    EXPECT_TRUE(failed.failed);
    EXPECT_FALSE(failed.started);
}

}  // namespace
