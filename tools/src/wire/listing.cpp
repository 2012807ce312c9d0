// Directory listings and the cover answer. A listing block is a big-endian
// header (offset, total) and records back to back: 10 bytes of file
// information, six NUL-terminated strings, a 0 separator and 18 bytes of tag
// information. The request's path may carry a flags byte behind its NUL.
#include "lumctl/output.h"

namespace lumctl {

namespace {

constexpr size_t kHeaderBytes = 4;
constexpr size_t kFileInfoBytes = 10;
constexpr size_t kTagInfoBytes = 18;
constexpr int64_t kMjdOfEpoch = 40587;  // 1970-01-01

uint32_t be24(const uint8_t* p) { return be16(p) << 8 | p[2]; }

// The six strings of a record, in their order on the wire.
const char* const kStringNames[] = {"name", "title", "artist", "album", "genre", "link"};

// Days since 1970-01-01 to year, month and day of the proleptic Gregorian
// calendar (H. Hinnant's civil_from_days); negative days are before 1970.
void civil_from_days(int64_t z, int64_t* y, unsigned* m, unsigned* d)
{
    z += 719468;
    const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
    const int64_t doe = z - era * 146097;
    const int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const int64_t mp = (5 * doy + 2) / 153;
    *d = static_cast<unsigned>(doy - (153 * mp + 2) / 5 + 1);
    *m = static_cast<unsigned>(mp < 10 ? mp + 3 : mp - 9);
    *y = yoe + era * 400 + (*m <= 2 ? 1 : 0);
}

std::string duration_text(uint32_t seconds)
{
    char buf[24];
    snprintf(buf, sizeof(buf), "%u:%02u", seconds / 60, seconds % 60);
    return buf;
}

// The tags present, in wire order: "title "T", year 2024, 3:35, 192 kbit/s".
std::string tags_text(const Json& r)
{
    std::vector<std::string> parts;
    for (const char* name : {"title", "artist", "album", "genre"}) {
        const std::string& value = r[name].get_ref<const std::string&>();
        if (!value.empty())
            parts.push_back(std::string(name) + " " + quoted(value.data(), value.size()));
    }
    if (r["year"] != 0)
        parts.push_back("year " + r["year"].dump());
    if (r["track"] != 0)
        parts.push_back("track " + r["track"].dump());
    if (r["duration"] != 0)
        parts.push_back(duration_text(r["duration"]));
    if (r["bitrate"] != 0)
        parts.push_back(r["bitrate"].dump() + " kbit/s");
    const std::string& link = r["link"].get_ref<const std::string&>();
    if (!link.empty())
        parts.push_back("link " + quoted(link.data(), link.size()));
    std::string out;
    for (const std::string& part : parts)
        out += (out.empty() ? "  " : ", ") + part;
    return out;
}

// A failed listing: total 0xFFFF and no records.
bool listing_failed(const ListingBlock& block)
{
    return block.total == 0xFFFF && block.records.empty() && block.damage.empty();
}

// "2024-05-17" from a Modified Julian Date (40587 is 1970-01-01).
std::string mjd_date(uint32_t mjd)
{
    int64_t year = 0;
    unsigned month = 0, day = 0;
    civil_from_days(static_cast<int64_t>(mjd) - kMjdOfEpoch, &year, &month, &day);
    char buf[32];
    snprintf(buf, sizeof(buf), "%04lld-%02u-%02u", static_cast<long long>(year), month, day);
    return buf;
}

std::string records_text(const Json& records)
{
    std::string out;
    for (const Json& r : records)
        out += (out.empty() ? "" : "\n  ") + record_line(r, false);
    return out;
}

// One record from p[0..n): the bytes it takes, or 0 with the reason.
size_t parse_record(const uint8_t* p, size_t n, Json* rec, std::string* why)
{
    if (n < kFileInfoBytes) {
        *why = "file information cut short (" + std::to_string(n) + " of 10 bytes)";
        return 0;
    }
    char time[16];
    snprintf(time, sizeof(time), "%02u:%02u", p[8], p[9]);
    *rec = {{"protected", p[0] != 0}, {"sizeKiB", be32(p + 1)}, {"mjd", be24(p + 5)}, {"date", mjd_date(be24(p + 5))},
            {"time", time}};
    size_t at = kFileInfoBytes;
    for (const char* name : kStringNames) {
        const void* nul = at < n ? memchr(p + at, 0, n - at) : nullptr;
        if (nul == nullptr) {
            *why = std::string(name) + " without its NUL";
            return 0;
        }
        size_t len = static_cast<size_t>(static_cast<const uint8_t*>(nul) - (p + at));
        (*rec)[name] = std::string(reinterpret_cast<const char*>(p + at), len);
        at += len + 1;
    }
    if (n - at < 1 + kTagInfoBytes) {
        *why = "tag information cut short (" + std::to_string(n - at) + " of 19 bytes)";
        return 0;
    }
    if (p[at] != 0) {
        *why = "separator is " + std::to_string(p[at]) + ", not 0";
        return 0;
    }
    const uint8_t* tag = p + at + 1;
    (*rec)["year"] = be16(tag);
    (*rec)["track"] = be16(tag + 2);
    (*rec)["duration"] = be32(tag + 4);
    (*rec)["bitrate"] = be32(tag + 8);
    (*rec)["tagRead"] = tag[17] != 0;
    return at + 1 + kTagInfoBytes;
}

}  // namespace

bool parse_listing_block(const uint8_t* data, size_t len, ListingBlock* block)
{
    if (len < kHeaderBytes)
        return false;
    block->offset = static_cast<uint16_t>(be16(data));
    block->total = static_cast<uint16_t>(be16(data + 2));
    block->records = Json::array();
    block->damage.clear();
    size_t at = kHeaderBytes;
    while (at < len) {
        Json rec;
        std::string why;
        size_t used = parse_record(data + at, len - at, &rec, &why);
        if (used == 0) {
            block->damage = "record " + std::to_string(block->records.size() + 1) + " at byte " +
                            std::to_string(at) + ": " + why;
            break;
        }
        block->records.push_back(std::move(rec));
        at += used;
    }
    block->used = at;
    return true;
}

std::string record_line(const Json& r, bool human)
{
    const uint32_t kib = r["sizeKiB"];
    const std::string size = human ? human_kib(kib) : std::to_string(kib);
    char head[64];
    snprintf(head, sizeof(head), "%c %*s %s %s ", r["protected"] ? 'r' : 'w', human ? 6 : 9, size.c_str(),
             r["date"].get_ref<const std::string&>().c_str(), r["time"].get_ref<const std::string&>().c_str());
    return head + printable(r["name"]) + tags_text(r);
}

Json listing_block_json(const ListingBlock& block)
{
    Json json = {{"offset", block.offset}, {"total", block.total}, {"records", block.records}};
    if (!block.damage.empty())
        json["damage"] = block.damage;
    return json;
}

size_t decode_listing_block(const uint8_t* data, size_t len, Decoded* out)
{
    ListingBlock block;
    if (!parse_listing_block(data, len, &block))
        return 0;
    const bool failed = listing_failed(block);
    add_uint(out, "offset", block.offset);
    add_uint(out, "total", block.total);
    if (failed)
        out->fields.back().text += " (failed)";
    out->fields.push_back(Field{"records", records_text(block.records), block.records});
    if (!block.damage.empty()) {
        add_string(out, "damage", block.damage.data(), block.damage.size());
        out->complete = false;
    }
    return block.used;
}

size_t decode_cover(const uint8_t* data, size_t len, Decoded* out)
{
    const void* nul = len > 1 ? memchr(data + 1, 0, len - 1) : nullptr;
    if (nul == nullptr)
        return 0;
    const size_t used = static_cast<size_t>(static_cast<const uint8_t*>(nul) - data) + 1;
    add_uint(out, "status", data[0]);
    add_string(out, "path", reinterpret_cast<const char*>(data + 1), used - 2);
    // The spare bytes (room of a three-letter extension) carry nothing.
    return len - used <= 3 ? len : used + 3;
}

int build_listing_request(const std::string& path, int flags, uint16_t id, Bytes* out, std::string* error)
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
}  // namespace lumctl
