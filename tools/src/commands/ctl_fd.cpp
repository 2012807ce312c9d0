// fd WORD ...: descriptors in the daemon's process (open, close, read,
// write, sync) and chmod PATH MODE. A descriptor stays open in the daemon
// after lumstoragectl ends, until fd close. Each answers by its reply: the
// result, and errno behind a negative one.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>

#include "ctl_pvr.h"
#include "lumctl/decoded.h"
#include "lumctl/file_requests.h"
#include "lumctl/volume_table.h"
#include "lumproto/frame.h"

namespace lumctl {

namespace {

// The reply of a read holds the count twice and the bytes padded to 4.
constexpr long long kReadMax = lumproto::kMaxPayload - 16;

bool parse_count(const std::string& text, long long high, long long* out)
{
    char* end = nullptr;
    errno = 0;
    long long value = strtoll(text.c_str(), &end, 10);
    if (text.empty() || errno != 0 || *end != '\0' || value < 0 || value > high)
        return false;
    *out = value;
    return true;
}

// The words of an fd subcommand and its descriptor (the first operand).
int fd_args(const CtlContext& ctx, DeviceCall* call, const DeviceArgs& args, int32_t* fd)
{
    device_args(ctx, call, args, kQueryTimeoutSeconds);
    long long value = 0;
    if (!parse_count(call->args.operands[0], INT32_MAX, &value))
        return usage_error(
            ctx, std::string(call->sub) + ": FD is a number 0..2147483647, not '" + call->args.operands[0] + "'");
    *fd = static_cast<int32_t>(value);
    return kExitOk;
}

// Sends the request and reads the int32 result and, for a negative one, the
// errno behind it. A negative result is reported (with json, when JSON is
// asked for) and returns kExitFailed.
int errno_call(const CtlContext& ctx, const DeviceCall& call, const Bytes& request, Json json, int32_t* value,
               CtlReply* reply)
{
    int rc = direct_request(ctx, call, request, reply);
    if (rc != kExitOk)
        return rc;
    ReplyParcel in(*reply);
    int32_t err = 0;
    if (in.parcel.readInt32(value) != android::OK || (*value < 0 && in.parcel.readInt32(&err) != android::OK))
        return protocol_error(ctx, subject(call) + ": the reply ends early");
    if (*value >= 0)
        return kExitOk;
    if (device_context(ctx, call).json) {
        json["result"] = *value;
        json["errno"] = err;
        print_json(ctx.out, json);
    }
    return protocol_error(ctx, subject(call) + ": " + strerror(err) + " (errno " + std::to_string(err) + ")");
}

// Requests made of fields by the command's row ("i" fd, "ii" fd and count).
int field_request(const CtlContext& ctx, const DeviceCall& call, const std::vector<std::string>& fields, Bytes* out)
{
    EventQuery query;
    std::string error;
    if (device_query(call, fields, {}, nullptr, &query, &error) != 0)
        return usage_error(ctx, error);
    *out = query.request;
    return kExitOk;
}

// errno_call, then on success json with key = the result, or the text of
// the result.
int errno_run(const CtlContext& ctx, const DeviceCall& call, const Bytes& request, Json json, const char* key,
              const std::function<std::string(int32_t)>& text)
{
    int32_t value = 0;
    CtlReply reply;
    int rc = errno_call(ctx, call, request, json, &value, &reply);
    if (rc != kExitOk)
        return rc;
    json[key] = value;
    fprintf(ctx.out, "%s\n", device_context(ctx, call).json ? json_line(json).c_str() : text(value).c_str());
    return kExitOk;
}

int fd_open(const CtlContext& ctx, const DeviceArgs& args)
{
    DeviceCall call{"fd open", "STROAGE_LUM_OPEN", {}};
    device_args(ctx, &call, args, kQueryTimeoutSeconds);
    const std::vector<std::string>& ops = call.args.operands;
    int32_t flags = 0, mode = 0;
    if (!parse_open_flags(ops[1], &flags))
        return usage_error(ctx, "fd open: FLAGS are names like O_RDWR|O_CREAT or a number, not '" + ops[1] + "'");
    if (!parse_mode(ops[2], &mode))
        return usage_error(ctx, "fd open: MODE is octal 0 to 7777, not '" + ops[2] + "'");
    Bytes request;
    int rc = field_request(ctx, call, {ops[0], std::to_string(flags), std::to_string(mode)}, &request);
    if (rc != kExitOk)
        return rc;
    Json json = {{"path", ops[0]}, {"flags", flags}, {"mode", mode}};
    return errno_run(ctx, call, request, json, "fd", [](int32_t fd) {
        return "fd " + std::to_string(fd) + " (it stays open in the daemon until fd close " + std::to_string(fd) + ")";
    });
}

int fd_close(const CtlContext& ctx, const DeviceArgs& args)
{
    DeviceCall call{"fd close", "STROAGE_LUM_CLOSE", {}};
    int32_t fd = 0;
    int rc = fd_args(ctx, &call, args, &fd);
    Bytes request;
    if (rc != kExitOk || (rc = field_request(ctx, call, {std::to_string(fd)}, &request)) != kExitOk)
        return rc;
    Json json = {{"fd", fd}};
    return errno_run(ctx, call, request, json, "result", [fd](int32_t) { return "closed fd " + std::to_string(fd); });
}

// The bytes go to standard output as they are; with --json as hex.
int fd_read(const CtlContext& ctx, const DeviceArgs& args)
{
    DeviceCall call{"fd read", "STROAGE_LUM_READ", {}};
    int32_t fd = 0;
    long long bytes = 0;
    int rc = fd_args(ctx, &call, args, &fd);
    if (rc != kExitOk)
        return rc;
    if (!parse_count(call.args.operands[1], kReadMax, &bytes))
        return usage_error(
            ctx, "fd read: BYTES is a number 0.." + std::to_string(kReadMax) + ", not '" + call.args.operands[1] + "'");
    Bytes request;
    if ((rc = field_request(ctx, call, {std::to_string(fd), std::to_string(bytes)}, &request)) != kExitOk)
        return rc;
    Json json = {{"fd", fd}};
    int32_t count = 0, length = 0;
    CtlReply reply;
    if ((rc = errno_call(ctx, call, request, json, &count, &reply)) != kExitOk)
        return rc;
    ReplyParcel in(reply);
    in.parcel.setDataPosition(4);
    const void* data = nullptr;
    if (in.parcel.readInt32(&length) != android::OK || length != count ||
        (count > 0 && (data = in.parcel.readInplace(static_cast<size_t>(count))) == nullptr))
        return protocol_error(ctx, "fd read: the reply ends early or its counts differ");
    const uint8_t* p = static_cast<const uint8_t*>(data);
    if (device_context(ctx, call).json) {
        json["count"] = count;
        json["hex"] = hex_compact(p, static_cast<size_t>(count));
        print_json(ctx.out, json);
    } else if (count > 0)
        fwrite(p, 1, static_cast<size_t>(count), ctx.out);
    return kExitOk;
}

int fd_write(const CtlContext& ctx, const DeviceArgs& args)
{
    DeviceCall call{"fd write", "STROAGE_LUM_WRITE", {}};
    int32_t fd = 0;
    int rc = fd_args(ctx, &call, args, &fd);
    if (rc != kExitOk)
        return rc;
    Bytes data, request;
    std::string error;
    const std::string source = call.args.operands.size() > 1 ? call.args.operands[1] : "-";
    if (read_data(source, ctx.in, &data, &error) != 0 || build_fd_write(fd, data, &request, &error) != 0)
        return usage_error(ctx, "fd write: " + error);
    Json json = {{"fd", fd}, {"bytes", data.size()}};
    const size_t size = data.size();
    return errno_run(ctx, call, request, json, "result", [fd, size](int32_t written) {
        return "wrote " + std::to_string(written) + " of " + std::to_string(size) + " bytes to fd " +
               std::to_string(fd);
    });
}

int fd_sync(const CtlContext& ctx, const DeviceArgs& args)
{
    DeviceCall call{"fd sync", "STORAGE_LUM_SYNC", {}};
    int32_t fd = 0;
    int rc = fd_args(ctx, &call, args, &fd);
    CtlReply reply;
    if (rc != kExitOk || (rc = direct_run(ctx, call, {std::to_string(fd)}, &reply)) != kExitOk)
        return rc;
    int32_t ok = 0;
    if (ReplyParcel(reply).parcel.readInt32(&ok) != android::OK)
        return protocol_error(ctx, "fd sync: the reply holds no bool");
    const std::string text = (ok != 0 ? "synced the file system of fd " : "sync failed for fd ") + std::to_string(fd);
    const Json json = {{"fd", fd}, {"ok", ok != 0}};
    fprintf(ctx.out, "%s\n", device_context(ctx, call).json ? json_line(json).c_str() : text.c_str());
    return ok != 0 ? kExitOk : kExitFailed;
}

const WordRow kFdWords[] = {
    {"open", fd_open}, {"close", fd_close}, {"read", fd_read}, {"write", fd_write}, {"sync", fd_sync},
};

}  // namespace

int run_fd(const CtlContext& ctx, const DeviceArgs& args)
{
    return run_word(ctx, kFdWords, sizeof(kFdWords) / sizeof(kFdWords[0]), args);
}

int run_chmod(const CtlContext& ctx, const DeviceArgs& args)
{
    DeviceCall call{"chmod", "STORAGE_LUM_CHMOD", {}};
    device_args(ctx, &call, args, kQueryTimeoutSeconds);
    int32_t mode = 0;
    const std::string path = call.args.operands[0];
    if (!parse_mode(call.args.operands[1], &mode))
        return usage_error(ctx, "chmod: MODE is octal 0 to 7777, not '" + call.args.operands[1] + "'");
    Bytes request;
    int rc = field_request(ctx, call, {path, std::to_string(mode)}, &request);
    if (rc != kExitOk)
        return rc;
    char octal[8];
    snprintf(octal, sizeof(octal), "%04o", static_cast<unsigned>(mode));
    Json json = {{"path", path}, {"mode", octal}};
    return errno_run(ctx, call, request, json, "result", [&octal, &path](int32_t) {
        return "chmod " + std::string(octal) + " " + printable(path) + ": done";
    });
}

}  // namespace lumctl
