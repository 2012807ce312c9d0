// Canned listing blocks and cover answers. Records are assembled field by
// field from the record layout (10 bytes of file information, six strings
// with their NULs, a 0 separator, 18 bytes of tag information, big-endian),
// independently of lumctl's parser.
#include "fake_listing.h"

#include <mutex>
#include <string>

#include <StorageEvents.h>
#include <StorageModuleCmd.h>

#include "fake_bytes.h"

namespace fakesvc {

std::atomic<bool> g_answer_empty_path{true};

namespace {

std::mutex g_requests_lock;
std::vector<Bytes> g_requests;

struct Rec {
    uint8_t protect;
    uint32_t kib;
    uint32_t mjd;
    uint8_t hour, minute;
    const char* strings[6];  // name, title, artist, album, genre, link
    uint16_t year, track;
    uint32_t duration, bitrate;
    uint8_t tag_read;
};

Bytes record(const Rec& r)
{
    Bytes out{r.protect};
    put_be32(&out, r.kib);
    out.push_back(static_cast<uint8_t>(r.mjd >> 16));
    put_be16(&out, r.mjd & 0xffff);
    out.push_back(r.hour);
    out.push_back(r.minute);
    for (const char* s : r.strings)
        out = join({out, c_string(s)});
    out.push_back(0);
    put_be16(&out, r.year);
    put_be16(&out, r.track);
    put_be32(&out, r.duration);
    put_be32(&out, r.bitrate);
    out.insert(out.end(), 5, 0);
    out.push_back(r.tag_read);
    return out;
}

Bytes block(uint16_t offset, uint16_t total, std::initializer_list<Rec> records)
{
    Bytes out;
    put_be16(&out, offset);
    put_be16(&out, total);
    for (const Rec& r : records)
        out = join({out, record(r)});
    return out;
}

void send_block(const Bytes& data)
{
    notify(LUM_TV_EVT_STORAGE_READ_DIRS, data);
}

const Rec kAlbumDir = {0, 0, 60447, 9, 5, {"album/", "", "", "", "", ""}, 0, 0, 0, 0, 0};
const Rec kSong = {1, 4200, 60447, 13, 45, {"a.mp3", "T", "Artist", "Album", "Pop", ""}, 2024, 3, 215, 192, 1};
const Rec kFlac = {0, 30000, 15385, 0, 0, {"b.flac", "", "", "", "", ""}, 0, 0, 3725, 900, 1};
const Rec kPlaylist = {0, 1, 60447, 10, 0, {"list.m3u/", "", "", "", "", ""}, 0, 0, 0, 0, 0};
const Rec kOld = {0, 2, 40586, 23, 59, {"old.txt", "", "", "", "", ""}, 0, 0, 0, 0, 0};
const Rec kForeign = {0, 7, 60000, 1, 2, {"foreign.txt", "", "", "", "", ""}, 0, 0, 0, 0, 0};

// Another client's listing continues before this one begins and between
// its blocks: a block with the next offset and another total, and a first
// block of a listing of 2.
void music()
{
    send_block(block(7, 9, {kForeign}));
    send_block(Bytes{0, 1});  // shorter than a header
    send_block(block(0, 5, {kAlbumDir, kSong}));
    send_block(block(2, 9, {kForeign}));
    send_block(block(0, 2, {kForeign}));
    send_block(block(2, 5, {kFlac, kPlaylist}));
    send_block(block(4, 5, {kOld}));
}

void fifo()
{
    send_block(block(0, 4, {kSong, kOld}));
}

void damaged()
{
    Bytes cut = record(kSong);
    cut.resize(10 + 6 + 2 + 3);  // file information, "a.mp3", "T", then "Art" without its NUL
    send_block(join({block(0, 3, {kOld}), cut}));
}

struct Canned {
    const char* path;
    void (*play)();
};

const Canned kListings[] = {
    {kMusicDir, music},
    {kFifoDir, fifo},
    {kEmptyDir, [] { send_block(Bytes{0, 0, 0, 0}); }},
    {kDamagedDir, damaged},
};

int read_dirs(const android::Parcel& request, android::Parcel* reply)
{
    {
        std::lock_guard<std::mutex> lock(g_requests_lock);
        g_requests.emplace_back(request.data(), request.data() + request.dataSize());
    }
    const char* text = request.readCString();
    const std::string path = text != nullptr ? text : "";
    const bool refused = path == kRefused || (path.empty() && !g_answer_empty_path);
    reply->writeBool(!refused);
    if (refused || path == kSilent)
        return 0;
    for (const Canned& c : kListings) {
        if (path == c.path) {
            c.play();
            return 0;
        }
    }
    send_block(Bytes{0, 0, 0xff, 0xff});
    return 0;
}

Bytes cover_answer(uint8_t status, const std::string& file)
{
    Bytes out{status};
    out = join({out, c_string(("/tmp/share/" + file + ".").c_str())});
    out.insert(out.end(), 3, 0);
    return out;
}

int extract_cover(const android::Parcel& request, android::Parcel* reply)
{
    const char* folder = request.readCString();
    const char* file = request.readCString();
    const bool refused = folder == nullptr || file == nullptr || std::string(folder) == kRefused;
    reply->writeBool(!refused);
    if (refused)
        return 0;
    notify(LUM_TV_EVT_STORAGE_EXTRACT_COVER, cover_answer(0, std::string("x") + file));
    notify(LUM_TV_EVT_STORAGE_EXTRACT_COVER, cover_answer(std::string(file) == kCoverFails ? 1 : 0, file));
    return 0;
}

const Row kListingRows[] = {
    {STORAGE_READ_DIRS, read_dirs},
    {STORAGE_EXTRACT_COVER, extract_cover},
};

}  // namespace

const Row* listing_rows(size_t* count)
{
    *count = sizeof(kListingRows) / sizeof(kListingRows[0]);
    return kListingRows;
}

std::vector<std::vector<uint8_t>> listing_requests()
{
    std::lock_guard<std::mutex> lock(g_requests_lock);
    return g_requests;
}

void reset_listing()
{
    std::lock_guard<std::mutex> lock(g_requests_lock);
    g_requests.clear();
    g_answer_empty_path = true;
}

}  // namespace fakesvc
