// The listing request and the assembly of a listing from its blocks.
#include "lumctl/listing.h"

#include "lumctl/cmd_table.h"
#include "lumctl/request_build.h"

namespace lumctl {

int build_listing_request(const std::string& path, int flags, uint16_t id, std::vector<uint8_t>* out,
                          std::string* error)
{
    const bool with_flags = flags != kListingNoFlags;
    const size_t limit = with_flags ? kServiceTextMax - 1 : kServiceTextMax;
    if (path.size() > limit) {
        *error = "path of " + std::to_string(path.size()) + " bytes is too long: the service takes at most " +
                 std::to_string(limit) + " bytes" + (with_flags ? " with --filter or --no-tags" : "");
        return -1;
    }
    const CmdRow* row = cmd_find("STORAGE_READ_DIRS");
    const std::string len = std::to_string(path.size() + (with_flags ? 2 : 1));
    if (row == nullptr || build_request(*row, {path, len, std::to_string(id)}, out, error) != 0)
        return -1;
    return with_flags ? encode_field('i', std::to_string(flags), out, error) : 0;
}

BlockRole ListingAssembly::take(const ListingBlock& block)
{
    if (end_marked)
        return BlockRole::kSkipped;
    if (listing_failed(block)) {
        end_marked = started || failed;
        failed = !started;
        return end_marked ? BlockRole::kEndMark : BlockRole::kFailed;
    }
    const bool first = !started && !failed && block.offset == 0;
    // A block that goes on from the count belongs to the listing even after
    // the count once met total: with 65536 entries or more, total is only
    // the low 16 bits, and a block can end on them before the last one. The
    // end marker, not the count, ends the listing.
    const bool next = started && block.offset == (received & 0xFFFF) && block.total == total;
    if (!first && !next)
        return BlockRole::kSkipped;
    started = true;
    total = block.total;
    received += static_cast<uint32_t>(block.records.size());
    complete = (received & 0xFFFF) == total;
    return first ? BlockRole::kFirst : BlockRole::kNext;
}

uint32_t ListingAssembly::not_shown() const
{
    return (total - received) & 0xFFFF;
}

}  // namespace lumctl
