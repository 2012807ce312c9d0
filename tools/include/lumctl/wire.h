// The wire of lumstoragectl: the command table, requests in android::Parcel
// layout, payload decoders (one per payload, feeding both the text and the
// JSON rendering), listings and the wait for event-answered requests.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "lumctl/ctl_client.h"

namespace lumctl {

using Bytes = std::vector<uint8_t>;
// Members stay in the order they were added, which is the order printed.
using Json = nlohmann::ordered_json;

// Seconds on the monotonic clock; milliseconds left before deadline (0 once
// it passed, -1 for a deadline below 0: none).
double now_seconds();
int time_left_ms(double deadline);

// ---- Decoded payloads: named fields, each with its text and JSON value.

struct Field {
    std::string name;
    std::string text;
    Json json;
    Bytes bytes = {};  // a byte field's bytes, which json holds in hex
};

struct Decoded {
    std::vector<Field> fields;
    bool complete = true;  // false: the payload ended before its layout did
    Bytes rest;            // bytes not decoded
};

void add_int(Decoded* out, const char* name, long long value);
void add_uint(Decoded* out, const char* name, unsigned long long value);
void add_bool(Decoded* out, const char* name, int32_t raw);
void add_string(Decoded* out, const char* name, const char* text, size_t len);
// The text shows up to 64 bytes, the JSON value has them all as hex.
void add_bytes(Decoded* out, const char* name, const uint8_t* data, size_t len);
// A fixed char array of a record, up to its first NUL or its end.
template <size_t N>
void add_chars(Decoded* out, const char* name, const char (&text)[N])
{
    add_string(out, name, text, strnlen(text, N));
}
Json fields_json(const Decoded& decoded);

inline uint32_t be16(const uint8_t* p) { return static_cast<uint32_t>(p[0]) << 8 | p[1]; }
inline uint32_t be32(const uint8_t* p) { return be16(p) << 16 | be16(p + 2); }

// Copies a fixed-size record from the start of a payload; false when shorter.
template <typename T>
bool read_record(const uint8_t* data, size_t len, T* record)
{
    if (len < sizeof(T))
        return false;
    memcpy(record, data, sizeof(T));
    return true;
}

// Event name from StorageEventList.h, or null for an unknown id.
const char* event_name(int32_t id);
// Decodes by the event's row; without one the payload is a "hex" field. A
// payload too short for its row gives complete = false, all bytes in rest.
Decoded decode_event(int32_t id, const uint8_t* data, size_t len);
inline Json event_json(const CtlEvent& event)
{
    return fields_json(decode_event(event.id, event.data.data(), event.data.size()));
}
// The volume list (tag 1 device entries behind a zero byte), the device
// table rows and GET_DEV_INFO (status, then one device's elements).
size_t decode_tagged_table(const uint8_t* data, size_t len, Decoded* out);
size_t decode_device_rows(const uint8_t* data, size_t len, Decoded* out);
size_t decode_dev_info(const uint8_t* data, size_t len, Decoded* out);
// The PVR guide record: show, event, the partition rows and the connected
// devices' rows (as many as the counts say, up to the record's rows).
size_t decode_guide(const uint8_t* data, size_t len, Decoded* out);
// The name of an EStoragePvrFlag, "unknown" outside the enumeration.
const char* verdict_name(int32_t verdict);
// The word of a one-byte file result for its event ("protected"), the
// event's word for the others for values without a row of their own.
const char* result_word(int32_t id, uint8_t result);

// Decodes reply bytes by the reply token of StorageCmdList.h ("", b, s, l,
// u, i, "i>s", "i<i", "iG", "R"). A short reply gives complete = false and
// its tail in rest; an unknown or null token leaves every byte in rest.
Decoded decode_reply(const char* token, const uint8_t* data, size_t len);

// ---- Commands and requests.

struct CmdRow {
    const char* name;     // "STORAGE_DEV_MOUNT"
    int32_t value;        // the command word
    const char* request;  // field letters behind the word
    const char* reply;    // reply token
};

const CmdRow* cmd_rows(size_t* count);
// By exact name, by name without STORAGE_ (or STROAGE_) in any case with '-'
// for '_' ("dev-mount"), or by number (decimal or 0x hex); null otherwise.
const CmdRow* cmd_find(const char* word);
// A whole number of text in [low, high] in base as strtoll reads it (0: C's
// rules), by default decimal or, after "0x", hex; no blanks, no '+', a '-'
// only where low is below 0. The one reader of the command line's numbers.
constexpr int kDecimalOrHex = -1;
bool parse_number(const std::string& text, long long low, long long high, long long* out, int base = kDecimalOrHex);

// Each builder returns 0 with the request (command word first) in out, or
// -1 with a message in error.
// Appends one field: s string, i int32, u uint32, l int64, b bool
// (true/false/1/0), c char (one character or a number -128..255).
int encode_field(char letter, const std::string& text, Bytes* out, std::string* error);
// One argument per request letter of row; "-" for the int32 just before an
// 'r' field puts the raw byte count there.
int build_request(const CmdRow& row, const std::vector<std::string>& args, Bytes* out, std::string* error);
// TYPE:VALUE items (as above, and x: hex bytes appended without padding).
int build_raw_request(int32_t word, const std::vector<std::string>& items, Bytes* out, std::string* error);

// The file requests, with the service's limits checked first.
constexpr size_t kCaptureMax = 1024;  // output bytes the capturing exec answers
constexpr int32_t kDeleteEmptyDir = 1;
constexpr int32_t kDeleteTree = 2;
constexpr int kCopyPlain = -1;  // no type byte: a file
constexpr int kCopyRecording = 1;
int build_create_dir(const std::string& path, Bytes* out, std::string* error);
int build_delete_file(const std::string& path, bool recording, Bytes* out, std::string* error);
int build_delete_dir(const std::string& path, int32_t mode, Bytes* out, std::string* error);
int build_set_protected(const std::string& path, bool protect, Bytes* out, std::string* error);
// A tree copy is one whose src ends in "/"; build_copy_cancel sends no block.
int build_copy(const std::string& src, const std::string& dst, int type, Bytes* out, std::string* error);
int build_copy_cancel(Bytes* out, std::string* error);
int build_copy_direct(const std::string& src, const std::string& dst, bool tree, Bytes* out, std::string* error);
// STORAGE_RENAME_FILE / STROAGE_LUM_MOVE (word).
int build_packed_paths(int32_t word, const std::string& src, const std::string& dst, bool recording, Bytes* out,
                       std::string* error);
int build_write_file(const std::string& path, const Bytes& data, Bytes* out, std::string* error);
int build_exec(const std::string& command, bool capture, Bytes* out, std::string* error);
int build_fd_write(int32_t fd, const Bytes& data, Bytes* out, std::string* error);
// open(2) flags: names joined by '|' (with or without O_, any case) or a
// number; a mode in octal, 0 to 07777.
bool parse_open_flags(const std::string& text, int32_t* out);
bool parse_mode(const std::string& text, int32_t* out);
// 0 for a request of size bytes that fits a frame, else -1 with error.
int check_frame(size_t size, std::string* error);
// All of FILE, or of in for "-", up to the frame limit.
int read_data(const std::string& file, FILE* in, Bytes* out, std::string* error);

// ---- Directory listings and the cover answer.

// The service takes texts of at most 99 bytes.
constexpr size_t kServiceTextMax = 99;
// Flags byte: bits 0-2 the filter index, bit 3 no tags and no playlist
// expansion.
constexpr int kListingFilters = 8;
constexpr int kListingNoTags = 8;
constexpr int kListingNoFlags = -1;

// cstring path, int32 len, int64 id, and unless kListingNoFlags an int32
// whose low byte is the flags byte (len counts it).
int build_listing_request(const std::string& path, int flags, uint16_t id, Bytes* out, std::string* error);

struct ListingBlock {
    uint16_t offset = 0;  // records sent in earlier blocks of the listing
    uint16_t total = 0;   // entries of the listing, low 16 bits
    // Each record as named fields: protected, sizeKiB, mjd (Modified Julian
    // Date), date, time, name, title, artist, album, genre, link, year,
    // track, duration (s), bitrate (kbit/s), tagRead (TagLib read the file).
    Json records = Json::array();
    size_t used = 0;     // bytes of the header and the whole records
    std::string damage;  // why the walk stopped before the payload's end
};

// The 4-byte header, then records until the payload ends; a record cut
// short ends the walk and is described in damage. False below 4 bytes.
bool parse_listing_block(const uint8_t* data, size_t len, ListingBlock* block);
// "r     1 2024-05-17 13:45 a.mp3  title "T", year 2024, 3:35, 192 kbit/s"
std::string record_line(const Json& record, bool human);
// {"offset":N,"total":N,"records":[...]} and "damage" for a damaged block.
Json listing_block_json(const ListingBlock& block);

enum class BlockRole {
    kSkipped,  // not this listing's (another client's, or before it began)
    kFirst,    // offset 0
    kNext,     // continues it
    kFailed,   // total 0xFFFF and no records, before it began
    kEndMark,  // a failure block after it began or failed: the end marker
};

// A listing put together block by block: the first block with offset 0
// starts it, a later one belongs when its offset is the records taken so far
// and its total the same. The end marker (the failure block answering the
// empty path sent behind the request) ends it, also one that never reaches
// its total (entries neither file, link nor directory send no record).
struct ListingAssembly {
    bool started = false;
    uint16_t total = 0;
    uint32_t received = 0;
    bool complete = false;  // received reached total (modulo 65536)
    bool failed = false;
    bool end_marked = false;

    BlockRole take(const ListingBlock& block);
    uint32_t not_shown() const { return (total - received) & 0xFFFF; }
};

// The event decoders of both: a block; the cover answer's status byte and
// path (the link to the cover, up to its NUL).
size_t decode_listing_block(const uint8_t* data, size_t len, Decoded* out);
size_t decode_cover(const uint8_t* data, size_t len, Decoded* out);

// ---- Requests answered by event: subscribe, send, then hand the awaited
// events to a handler until it says done, the reply refuses, or time is up.

enum class EventStep { kMore, kDone };

struct EventQuery {
    Bytes request;
    // Sent right behind request (the daemon keeps the order); their replies
    // go to on_more_reply and decide nothing.
    std::vector<Bytes> more_requests;
    std::vector<int32_t> ids;  // events handed to on_event; others are skipped
    int timeout_ms = 60000;
    // Each awaited event once the reply accepted the request (events that
    // came before the reply are kept and handed over right after it).
    std::function<EventStep(const CtlEvent& event)> on_event;
    std::function<EventStep(size_t index, const CtlReply& reply)> on_more_reply;
    // Instead of reply_accepted(): commands run on the caller's thread send
    // their result event before the reply, even a reply of false.
    std::function<bool(const CtlReply& reply)> accepts;
    // On a refusal: kMore keeps waiting (the outcome stays kRefused), for
    // requests behind it whose events must not reach the next client.
    std::function<EventStep(const CtlReply& reply)> on_refused;
    // 0 or more: the wait ends at most this long after an accepting reply.
    int after_reply_ms = -1;
    std::function<void()> on_tick;  // every tick_ms while nothing arrives
    int tick_ms = 0;
};

enum class QueryStatus { kDone, kRefused, kTimeout, kError };

struct QueryOutcome {
    QueryStatus status = QueryStatus::kError;
    CtlReply reply{0, {}};
    std::vector<CtlReply> more_replies;
    uint64_t dropped = 0;  // events the daemon lost for this connection meanwhile
    std::string error;
};

// Result 0 and a bool true: the service queued the request.
bool reply_accepted(const CtlReply& reply);
// Connects, subscribes, runs the query and closes.
QueryOutcome event_query(const std::string& socket_path, const EventQuery& query);

}  // namespace lumctl
