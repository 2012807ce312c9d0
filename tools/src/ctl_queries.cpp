// size DEVICE, used DEVICE, free UUID, uuid PATH: one request, one answering
// event. Size answers name their device, so an answer for another device
// (another client's request) is skipped; the others carry no key and the
// first one counts.
#include <cstring>

#include <StorageEvents.h>

#include "ctl_device.h"
#include "lumctl/volume_table.h"

namespace lumctl {

namespace {

uint32_t be32(const uint8_t* p)
{
    return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 |
           static_cast<uint32_t>(p[2]) << 8 | p[3];
}

std::string without_dev(const std::string& name)
{
    return name.compare(0, 5, "/dev/") == 0 ? name.substr(5) : name;
}

// u32 big-endian megabytes, then the device name with its NUL; false when
// the payload is shorter.
bool size_answer(const std::vector<uint8_t>& data, uint32_t* mb, std::string* name)
{
    if (data.size() < 5 || memchr(data.data() + 4, 0, data.size() - 4) == nullptr)
        return false;
    *mb = be32(data.data());
    *name = reinterpret_cast<const char*>(data.data() + 4);
    return true;
}

std::string json_text(const std::string& text)
{
    return json_string(text.data(), text.size());
}

std::string mb_text(long long mb, const char* what)
{
    std::string human = mb >= 0 ? human_mb(static_cast<uint64_t>(mb)) + what + " " : "";
    return human + "(" + std::to_string(mb) + " MB)";
}

// Printers: the operand asked for, the answer's bytes.
int print_size_as(const CtlContext& ctx, const std::vector<uint8_t>& data, const char* key, const char* what)
{
    uint32_t mb = 0;
    std::string name;
    if (!size_answer(data, &mb, &name))
        return protocol_error(ctx, "malformed size answer");
    if (ctx.json)
        fprintf(ctx.out, "{\"device\":%s,\"%s\":%u}\n", json_text(name).c_str(), key, mb);
    else
        fprintf(ctx.out, "%s: %s\n", printable(name).c_str(), mb_text(mb, what).c_str());
    return kExitOk;
}

int print_size(const CtlContext& ctx, const std::string&, const std::vector<uint8_t>& data)
{
    return print_size_as(ctx, data, "sizeMB", "");
}

int print_used(const CtlContext& ctx, const std::string&, const std::vector<uint8_t>& data)
{
    return print_size_as(ctx, data, "usedMB", " used");
}

int print_free(const CtlContext& ctx, const std::string& uuid, const std::vector<uint8_t>& data)
{
    int32_t mb = 0;
    if (data.size() < sizeof(mb))
        return protocol_error(ctx, "malformed free-space answer");
    memcpy(&mb, data.data(), sizeof(mb));
    if (ctx.json)
        fprintf(ctx.out, "{\"uuid\":%s,\"freeMB\":%d}\n", json_text(uuid).c_str(), mb);
    else
        fprintf(ctx.out, "%s: %s\n", printable(uuid).c_str(), mb_text(mb, " free").c_str());
    return kExitOk;
}

int print_uuid(const CtlContext& ctx, const std::string& path, const std::vector<uint8_t>& data)
{
    std::string uuid(data.begin(), data.end());
    uuid.resize(strnlen(uuid.c_str(), uuid.size()));
    if (ctx.json)
        fprintf(ctx.out, "{\"path\":%s,\"uuid\":%s}\n", json_text(path).c_str(), json_text(uuid).c_str());
    else
        fprintf(ctx.out, "%s: %s\n", printable(path).c_str(), printable(uuid).c_str());
    return kExitOk;
}

// An answer of the size events is for operand when it names the same device,
// with or without /dev/.
bool names_operand(const std::vector<uint8_t>& data, const std::string& operand)
{
    uint32_t mb = 0;
    std::string name;
    return size_answer(data, &mb, &name) && without_dev(name) == without_dev(operand);
}

struct QueryKind {
    const char* sub;
    const char* command;
    const char* extra;    // a second request field, or null
    int32_t event_id;
    bool by_name;         // the answer names its device
    const char* missing;  // why the answer may never come
    int (*print)(const CtlContext& ctx, const std::string& operand, const std::vector<uint8_t>& data);
};

const QueryKind kQueries[] = {
    {"size", "STORAGE_GET_DEVICE_SIZE", "0", LUM_TV_EVT_STORAGE_HDD_GET_SIZE, true,
     "is it a device the service knows?", print_size},
    {"used", "STORAGE_GET_PARTITION_USE", "0", LUM_TV_EVT_STORAGE_HDD_GET_PARTITION_USE, true,
     "is it a device the service knows?", print_used},
    {"free", "STORAGE_GET_ALLOCATE_BYTES", nullptr, LUM_TV_EVT_STORAGE_GET_ALLOCATE_BYTES, false,
     "the service sends none for an unknown uuid", print_free},
    {"uuid", "STORAGE_GET_UUID_FOR_PATH", nullptr, LUM_TV_EVT_STORAGE_GET_UUID_FOR_PATH, false,
     "the service sends none for a path on no known volume", print_uuid},
};

const QueryKind& query_kind(const char* sub)
{
    for (const QueryKind& kind : kQueries) {
        if (strcmp(kind.sub, sub) == 0)
            return kind;
    }
    return kQueries[0];
}

int run_query(const CtlContext& ctx, const char* sub, const DeviceArgs& args)
{
    const QueryKind& kind = query_kind(sub);
    DeviceCall call{kind.sub, kind.command, {}};
    device_args(ctx, &call, args, kQueryTimeoutSeconds);
    const std::string operand = call.args.operands[0];
    std::vector<std::string> fields = {operand};
    if (kind.extra != nullptr)
        fields.push_back(kind.extra);
    std::vector<uint8_t> answer;
    auto take = [&answer, &kind, &operand](const CtlEvent& e) {
        if (kind.by_name && !names_operand(e.data, operand))
            return EventStep::kMore;
        answer = e.data;
        return EventStep::kDone;
    };
    EventQuery query;
    std::string error;
    if (device_query(call, fields, {kind.event_id}, take, &query, &error) != 0)
        return usage_error(ctx, error);
    int rc = device_run(ctx, call, query, [&kind] {
        return std::string("the answer (") + kind.missing + ")";
    });
    return rc != kExitOk ? rc : kind.print(device_context(ctx, call), operand, answer);
}

}  // namespace

int run_size(const CtlContext& ctx, const DeviceArgs& args) { return run_query(ctx, "size", args); }
int run_used(const CtlContext& ctx, const DeviceArgs& args) { return run_query(ctx, "used", args); }
int run_free(const CtlContext& ctx, const DeviceArgs& args) { return run_query(ctx, "free", args); }
int run_uuid(const CtlContext& ctx, const DeviceArgs& args) { return run_query(ctx, "uuid", args); }

}  // namespace lumctl
