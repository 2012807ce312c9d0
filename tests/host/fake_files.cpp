// Canned answers of the file commands; the result events are one byte,
// assembled here, independently of lumctl's table of result words.
#include "fake_files.h"

#include <cerrno>
#include <mutex>
#include <string>

#include <StorageEvents.h>
#include <StorageModuleCmd.h>

#include "fake_bytes.h"

namespace fakesvc {

std::atomic<int> g_result{0};
std::atomic<bool> g_out_of_space{false};

namespace {

std::mutex g_lock;
std::vector<Bytes> g_requests;

void keep(const android::Parcel& request)
{
    std::lock_guard<std::mutex> lock(g_lock);
    g_requests.emplace_back(request.data(), request.data() + request.dataSize());
}

std::string text_of(const android::Parcel& request)
{
    const char* text = request.readCString();
    return text != nullptr ? text : "";
}

uint8_t result_byte()
{
    return static_cast<uint8_t>(g_result.load());
}

// Another client's result, of an id the command does not answer with.
void unrelated(int32_t own)
{
    notify(own == LUM_TV_EVT_STORAGE_MOVE_FILE ? LUM_TV_EVT_STORAGE_RENAME_FILE : LUM_TV_EVT_STORAGE_MOVE_FILE,
           Bytes{0});
}

// A command run on the caller's thread: the event, then the reply.
int direct(const android::Parcel& request, android::Parcel* reply, int32_t event, bool always_true)
{
    keep(request);
    const std::string path = text_of(request);
    if (path == kRefusedPath)
        return -1;
    if (path == kSilentPath) {
        reply->writeBool(false);
        return 0;
    }
    unrelated(event);
    notify(event, Bytes{result_byte()});
    reply->writeBool(always_true || result_byte() == 0);
    return 0;
}

template <int32_t Event, bool AlwaysTrue = false>
int direct_row(const android::Parcel& request, android::Parcel* reply)
{
    return direct(request, reply, Event, AlwaysTrue);
}

// SET_PROTECTED: the path behind the mode byte.
int set_protected(const android::Parcel& request, android::Parcel* reply)
{
    keep(request);
    const std::string text = text_of(request);
    const std::string path = text.empty() ? text : text.substr(1);
    reply->writeBool(path != kRefusedPath);
    if (path == kRefusedPath || path == kSilentPath)
        return 0;
    unrelated(LUM_TV_EVT_STORAGE_SET_PROTECTED);
    notify(LUM_TV_EVT_STORAGE_SET_PROTECTED, Bytes{result_byte()});
    return 0;
}

int copy(const android::Parcel& request, android::Parcel* reply)
{
    keep(request);
    const std::string src = text_of(request);
    reply->writeBool(src != kRefusedPath);
    if (src.empty() || src == kRefusedPath || src == kSilentPath)
        return 0;
    unrelated(LUM_TV_EVT_STORAGE_COPY);
    if (g_out_of_space)
        notify(LUM_TV_EVT_STORAGE_OUT_OF_SPACE, Bytes{0x11});
    notify(LUM_TV_EVT_STORAGE_COPY, Bytes{static_cast<uint8_t>(g_out_of_space ? 1 : result_byte())});
    return 0;
}

int copy_direct(const android::Parcel& request, android::Parcel* reply)
{
    keep(request);
    reply->writeBool(result_byte() == 0);
    return 0;
}

int exec_plain(const android::Parcel& request, android::Parcel* reply)
{
    keep(request);
    reply->writeInt32(g_result);
    return 0;
}

int exec_capture(const android::Parcel& request, android::Parcel* reply)
{
    keep(request);
    const std::string command = text_of(request);
    std::string output = "ran: " + command + "\n";
    int32_t count = static_cast<int32_t>(output.size());
    if (command == "fail")
        count = -1;
    if (command == "big")
        output.assign(1024, 'x'), count = 1024;
    if (command == "nul")
        output = "ab", count = 5;
    reply->writeInt32(count);
    if (count > 0)
        reply->writeCString(output.c_str());
    return 0;
}

// -1 and err, or value.
void answer(android::Parcel* reply, bool fails, int32_t err, int32_t value)
{
    reply->writeInt32(fails ? -1 : value);
    if (fails)
        reply->writeInt32(err);
}

int path_call(const android::Parcel& request, android::Parcel* reply, int32_t value)
{
    keep(request);
    answer(reply, text_of(request) == kMissingPath, ENOENT, value);
    return 0;
}

int fd_read(const android::Parcel& request, android::Parcel* reply)
{
    keep(request);
    const int32_t fd = request.readInt32();
    const int32_t bytes = request.readInt32();
    const Bytes data = {'a', 0, 'b', 0xff, 'c'};
    const int32_t count = fd == kOpenFd ? std::min<int32_t>(bytes, 5) : 0;
    answer(reply, fd != kOpenFd && fd != kEofFd, EBADF, count);
    if (fd == kOpenFd || fd == kEofFd)
        reply->writeInt32(count);
    if (count > 0)
        reply->write(data.data(), static_cast<size_t>(count));
    return 0;
}

// close, write (the count given) and sync, on kOpenFd only.
int fd_call(const android::Parcel& request, android::Parcel* reply, bool as_bool)
{
    keep(request);
    const int32_t fd = request.readInt32();
    const int32_t bytes = request.dataAvail() >= 4 ? request.readInt32() : 0;
    if (as_bool)
        reply->writeBool(fd == kOpenFd);
    else
        answer(reply, fd != kOpenFd, EBADF, bytes);
    return 0;
}

const Row kFileRows[] = {
    {STORAGE_CREATE_DIR, direct_row<LUM_TV_EVT_STORAGE_CREATE_DIR>},
    {STORAGE_DELETE_FILE, direct_row<LUM_TV_EVT_STORAGE_DELETE_FILE>},
    {STORAGE_DELETE_DIR, direct_row<LUM_TV_EVT_STORAGE_DELETE_DIR>},
    {STORAGE_RENAME_FILE, direct_row<LUM_TV_EVT_STORAGE_RENAME_FILE>},
    {STROAGE_LUM_MOVE, direct_row<LUM_TV_EVT_STORAGE_MOVE_FILE>},
    {STORAGE_WRITE_FILE, direct_row<LUM_TV_EVT_STORAGE_WRITE_FILE, true>},
    {STORAGE_SET_PROTECTED, set_protected},
    {STORAGE_COPY, copy},
    {STORAGE_COPY_FILE, copy_direct},
    {STORAGE_COPY_DIRS, copy_direct},
    {STORAGE_LUM_EXE_SYS_CMD, exec_plain},
    {STORAGE_LUM_EXE_SYS_CMD_RET, exec_capture},
    {STORAGE_LUM_CHMOD, [](const android::Parcel& q, android::Parcel* r) { return path_call(q, r, 0); }},
    {STROAGE_LUM_OPEN, [](const android::Parcel& q, android::Parcel* r) { return path_call(q, r, kOpenFd); }},
    {STROAGE_LUM_CLOSE, [](const android::Parcel& q, android::Parcel* r) { return fd_call(q, r, false); }},
    {STROAGE_LUM_READ, fd_read},
    {STROAGE_LUM_WRITE, [](const android::Parcel& q, android::Parcel* r) { return fd_call(q, r, false); }},
    {STORAGE_LUM_SYNC, [](const android::Parcel& q, android::Parcel* r) { return fd_call(q, r, true); }},
};

}  // namespace

const Row* file_rows(size_t* count)
{
    *count = sizeof(kFileRows) / sizeof(kFileRows[0]);
    return kFileRows;
}

std::vector<std::vector<uint8_t>> file_requests()
{
    std::lock_guard<std::mutex> lock(g_lock);
    return g_requests;
}

void reset_files()
{
    std::lock_guard<std::mutex> lock(g_lock);
    g_requests.clear();
    g_result = 0;
    g_out_of_space = false;
}

}  // namespace fakesvc
