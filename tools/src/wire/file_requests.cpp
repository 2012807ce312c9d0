// Requests of the file subcommands. Every field goes through
// android::Parcel, so the bytes are the layout the service reads: 4-byte
// items, strings NUL-terminated and zero-padded, raw bytes padded.
#include <cstring>
#include <fcntl.h>
#include <strings.h>

#include <binder/Parcel.h>
#include <StorageModuleCmd.h>

#include "lumctl/wire.h"
#include "lumproto/frame.h"

namespace lumctl {

namespace {

// Posted commands keep a text in a field of 100 bytes (99 and its NUL). The
// copy engine takes at most 256 bytes of each path of its block, and a block
// of at most 1024 bytes. Rename and move pack flag, source, NUL, destination
// and NUL into 512 bytes. The service refuses a command of 512 bytes or more.
constexpr size_t kPostedTextMax = 99, kCopyPathMax = 256, kCopyBlockMax = 1024;
constexpr size_t kPackedPathsMax = 512, kSysCommandMax = 512;

// A request under construction: the command word, then fields.
struct Request {
    android::Parcel parcel;
    explicit Request(int32_t word) { parcel.writeInt32(word); }
    Request& str(const std::string& text)
    {
        parcel.writeCString(text.c_str());
        return *this;
    }
    Request& i32(int64_t value)
    {
        parcel.writeInt32(static_cast<int32_t>(value));
        return *this;
    }
    Request& raw(const void* data, size_t len)
    {
        if (len > 0)
            parcel.write(data, len);
        return *this;
    }
    // Checks the frame limit and hands the bytes over.
    int done(Bytes* out, std::string* error) const
    {
        if (check_frame(parcel.dataSize(), error) != 0)
            return -1;
        out->assign(parcel.data(), parcel.data() + parcel.dataSize());
        return 0;
    }
};

int refuse(std::string* error, const std::string& text)
{
    *error = text;
    return -1;
}

// Paths are the service's: absolute, not empty, no more than limit bytes.
int check_path(const std::string& path, size_t limit, std::string* error)
{
    if (path.empty() || path[0] != '/')
        return refuse(error, "'" + path + "' is not an absolute path (the service resolves paths in its own process)");
    if (path.size() > limit)
        return refuse(error, "path of " + std::to_string(path.size()) +
                                 " bytes is too long: the service takes at most " + std::to_string(limit) +
                                 " bytes here");
    return 0;
}

// A recording is named by its main file, NAME.ts; the companions add their
// suffixes to that whole name.
int check_recording(const std::string& path, std::string* error)
{
    if (path.size() >= 3 && path.compare(path.size() - 3, 3, ".ts") == 0)
        return 0;
    return refuse(error, "--recording takes the main file of a recording, NAME.ts, not '" + path + "'");
}

}  // namespace

int build_create_dir(const std::string& path, Bytes* out, std::string* error)
{
    if (check_path(path, lumproto::kMaxPayload, error) != 0)
        return -1;
    return Request(STORAGE_CREATE_DIR).str(path).i32(path.size() + 1).done(out, error);
}

int build_delete_file(const std::string& path, bool recording, Bytes* out, std::string* error)
{
    if (check_path(path, lumproto::kMaxPayload, error) != 0)
        return -1;
    if (recording && check_recording(path, error) != 0)
        return -1;
    Request req(STORAGE_DELETE_FILE);
    req.str(path).i32(path.size() + 1);
    if (recording)
        req.i32(1);
    return req.done(out, error);
}

int build_delete_dir(const std::string& path, int32_t mode, Bytes* out, std::string* error)
{
    if (check_path(path, lumproto::kMaxPayload, error) != 0)
        return -1;
    return Request(STORAGE_DELETE_DIR).str(path).i32(mode).i32(path.size() + 1).done(out, error);
}

int build_set_protected(const std::string& path, bool protect, Bytes* out, std::string* error)
{
    if (check_path(path, kPostedTextMax - 1, error) != 0)
        return -1;
    const char mode = protect ? '\x02' : '\x01';
    return Request(STORAGE_SET_PROTECTED).str(mode + path).done(out, error);
}

int build_copy(const std::string& src, const std::string& dst, int type, Bytes* out, std::string* error)
{
    if (check_path(src, kCopyPathMax, error) != 0 || check_path(dst, kCopyPathMax, error) != 0)
        return -1;
    if (type == kCopyRecording && check_recording(src, error) != 0)
        return -1;
    Bytes block(src.begin(), src.end());
    block.push_back(0);
    block.insert(block.end(), dst.begin(), dst.end());
    block.push_back(0);
    if (type != kCopyPlain)
        block.push_back(static_cast<uint8_t>(type));
    // Unreachable with the path limits above; the service's own bound.
    if (block.size() > kCopyBlockMax)
        return refuse(error, "the copy request's paths are too long");
    return Request(STORAGE_COPY).str(src).i32(block.size()).raw(block.data(), block.size()).done(out, error);
}

int build_copy_cancel(Bytes* out, std::string* error)
{
    return Request(STORAGE_COPY).str("").i32(0).done(out, error);
}

int build_copy_direct(const std::string& src, const std::string& dst, bool tree, Bytes* out, std::string* error)
{
    if (check_path(src, lumproto::kMaxPayload, error) != 0 || check_path(dst, lumproto::kMaxPayload, error) != 0)
        return -1;
    return Request(tree ? STORAGE_COPY_DIRS : STORAGE_COPY_FILE).str(src).str(dst).done(out, error);
}

int build_packed_paths(int32_t word, const std::string& src, const std::string& dst, bool recording, Bytes* out,
                       std::string* error)
{
    if (check_path(src, kPackedPathsMax, error) != 0 || check_path(dst, kPackedPathsMax, error) != 0)
        return -1;
    if (src.size() + dst.size() + 3 > kPackedPathsMax)
        return refuse(error, "source and destination have " + std::to_string(src.size() + dst.size()) +
                                 " bytes together: the service takes at most " + std::to_string(kPackedPathsMax - 3));
    if (recording && check_recording(src, error) != 0)
        return -1;
    Request req(word);
    req.str(src).str(dst);
    req.parcel.writeBool(recording);
    return req.done(out, error);
}

int build_write_file(const std::string& path, const Bytes& data, Bytes* out, std::string* error)
{
    if (check_path(path, lumproto::kMaxPayload, error) != 0)
        return -1;
    return Request(STORAGE_WRITE_FILE).str(path).i32(data.size()).raw(data.data(), data.size()).done(out, error);
}

int build_exec(const std::string& command, bool capture, Bytes* out, std::string* error)
{
    if (command.find('\0') != std::string::npos || command.empty())
        return refuse(error, "the command is empty");
    if (capture)
        return Request(STORAGE_LUM_EXE_SYS_CMD_RET).str(command).done(out, error);
    if (command.size() >= kSysCommandMax)
        return refuse(error, "the command has " + std::to_string(command.size()) +
                                 " bytes: the service refuses commands of " + std::to_string(kSysCommandMax) +
                                 " bytes or more (put a long command into a script on the television and run that)");
    return Request(STORAGE_LUM_EXE_SYS_CMD).i32(command.size()).str(command).done(out, error);
}

int build_fd_write(int32_t fd, const Bytes& data, Bytes* out, std::string* error)
{
    return Request(STROAGE_LUM_WRITE).i32(fd).i32(data.size()).raw(data.data(), data.size()).done(out, error);
}

namespace {

struct FlagName {
    const char* name;
    int32_t value;
};

const FlagName kOpenFlags[] = {
    {"RDONLY", O_RDONLY},     {"WRONLY", O_WRONLY},   {"RDWR", O_RDWR},   {"CREAT", O_CREAT},
    {"EXCL", O_EXCL},         {"NOCTTY", O_NOCTTY},   {"TRUNC", O_TRUNC}, {"APPEND", O_APPEND},
    {"NONBLOCK", O_NONBLOCK}, {"DSYNC", O_DSYNC},     {"SYNC", O_SYNC},   {"DIRECTORY", O_DIRECTORY},
    {"NOFOLLOW", O_NOFOLLOW}, {"CLOEXEC", O_CLOEXEC},
};

bool parse_flag(const std::string& word, int32_t* out)
{
    long long number = 0;
    if (parse_number(word, 0, INT32_MAX, &number, 0)) {
        *out = static_cast<int32_t>(number);
        return true;
    }
    const char* bare = strncasecmp(word.c_str(), "O_", 2) == 0 ? word.c_str() + 2 : word.c_str();
    for (const FlagName& flag : kOpenFlags) {
        if (strcasecmp(bare, flag.name) == 0) {
            *out = flag.value;
            return true;
        }
    }
    return false;
}

}  // namespace

bool parse_open_flags(const std::string& text, int32_t* out)
{
    int32_t flags = 0;
    size_t start = 0;
    for (;;) {
        size_t bar = text.find('|', start);
        int32_t one = 0;
        if (!parse_flag(text.substr(start, bar == std::string::npos ? std::string::npos : bar - start), &one))
            return false;
        flags |= one;
        if (bar == std::string::npos)
            break;
        start = bar + 1;
    }
    *out = flags;
    return true;
}

bool parse_mode(const std::string& text, int32_t* out)
{
    long long mode = 0;
    if (!parse_number(text, 0, 07777, &mode, 8))
        return false;
    *out = static_cast<int32_t>(mode);
    return true;
}

}  // namespace lumctl
