// The client side of a directory listing: the STORAGE_READ_DIRS request
// with its optional flags word, and the listing put together from the
// block events, which carry no command id and may come mixed with other
// clients' blocks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "lumctl/listing_decoders.h"

namespace lumctl {

// The service takes texts of at most 99 bytes; a listing's flags byte,
// which stands behind the path's NUL, takes one of them.
constexpr size_t kServiceTextMax = 99;
// Flags byte: bits 0-2 the filter index, bit 3 no tags and no playlist
// expansion.
constexpr int kListingFilters = 8;
constexpr int kListingNoTags = 8;
constexpr int kListingNoFlags = -1;

// cstring path, int32 len, int64 id, and when flags is not kListingNoFlags
// an int32 whose low byte is the flags byte. len is strlen(path) + 1, or +
// 2 with flags. Returns 0, or -1 with a message in error when the path is
// too long (nothing is built then).
int build_listing_request(const std::string& path, int flags, uint16_t id, std::vector<uint8_t>* out,
                          std::string* error);

// What a block meant for the listing.
enum class BlockRole {
    kSkipped,   // not this listing's (another client's, or before it began)
    kFirst,     // the first block: offset 0
    kNext,      // a block that continues it
    kFailed,    // the listing failed: total 0xFFFF and no records, before it began
    kEndMark,   // a failure block after it began or failed: the end marker
};

// Puts a listing together block by block. The first block with offset 0
// starts it; a later block belongs to it when its offset equals the records
// taken so far and its total is the same, also after the count once met
// total. It is complete when the records reach total (modulo 65536). The
// end marker, the failure block that
// answers the empty path sent right behind the request, comes after every
// block of the listing: it ends a listing that never reaches its total
// (entries that are neither file, link nor directory count in total but
// send no record), and follows a complete or failed one.
struct ListingAssembly {
    bool started = false;
    uint16_t total = 0;
    uint32_t received = 0;  // records taken
    bool complete = false;  // received reached total
    bool failed = false;
    bool end_marked = false;

    BlockRole take(const ListingBlock& block);
    // Entries counted in total that sent no record.
    uint32_t not_shown() const;
};

}  // namespace lumctl
