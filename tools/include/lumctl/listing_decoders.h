// The blocks of a directory listing (LUM_TV_EVT_STORAGE_READ_DIRS) and the
// cover answer (LUM_TV_EVT_STORAGE_EXTRACT_COVER): parsed from their bytes,
// shown as text and JSON, and decoded for the event table.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "lumctl/decoded.h"

namespace lumctl {

// The total of a block that reports a failed listing (when it has no records).
constexpr uint16_t kListingFailedTotal = 0xFFFF;

struct ListingRecord {
    bool is_protected = false;  // the owner-write bit is clear
    uint32_t size_kib = 0;      // 0 for a directory
    uint32_t mjd = 0;           // modification date, Modified Julian Date
    uint8_t hour = 0;
    uint8_t minute = 0;
    std::string name, title, artist, album, genre, link;
    uint16_t year = 0;
    uint16_t track = 0;
    uint32_t duration = 0;  // seconds
    uint32_t bitrate = 0;   // kbit/s
    bool tag_read = false;  // TagLib read the file
};

struct ListingBlock {
    uint16_t offset = 0;  // records sent in earlier blocks of the listing
    uint16_t total = 0;   // entries of the listing, low 16 bits
    std::vector<ListingRecord> records;
    size_t used = 0;      // bytes of the header and the whole records
    std::string damage;   // why the walk stopped before the payload's end; empty when whole
};

// Parses a block: the 4-byte header, then records until the payload ends. A
// record cut short (a string without its NUL, a separator that is not 0,
// fewer than 18 tag bytes) ends the walk and is described in damage; bytes
// beyond len are never read. False when len is below the header's 4 bytes.
bool parse_listing_block(const uint8_t* data, size_t len, ListingBlock* block);

// The block of a failed listing: total 0xFFFF and no records.
bool listing_failed(const ListingBlock& block);

// "2024-05-17" from a Modified Julian Date (40587 is 1970-01-01, 0 is
// 1858-11-17).
std::string mjd_date(uint32_t mjd);

// One line in the manner of ls -l: protection (r protected, w writable),
// size in KiB (human: "1.5M"), date and time, name, then the tags present:
//   r     1 2024-05-17 13:45 a.mp3  title "T", year 2024, track 3, 3:35, 192 kbit/s
std::string record_line(const ListingRecord& record, bool human);
// Every field as one JSON object.
Json record_json(const ListingRecord& record);

// A parsed block as one JSON object, the form `watch --json` gives it:
// {"offset":N,"total":N,"records":[...]} and "damage" for a damaged block.
Json listing_block_json(const ListingBlock& block);

// Event decoders (rows of the event table): offset, total and the records;
// status and the cover's link path.
size_t decode_listing_block(const uint8_t* data, size_t len, Decoded* out);
size_t decode_cover(const uint8_t* data, size_t len, Decoded* out);

struct CoverAnswer {
    uint8_t status = 0;
    std::string path;  // the link to the cover
};

// Status byte, then the path with its NUL (the 3 spare bytes after it are
// not read). Returns the bytes it took, 0 when the path has no NUL.
size_t parse_cover(const uint8_t* data, size_t len, CoverAnswer* out);

}  // namespace lumctl
