// size DEVICE, used DEVICE, free UUID, uuid PATH: one request, one answering
// event. Size answers name their device, so an answer for another device
// (another client's request) is skipped; the others carry no key and the
// first one counts.
#include <cstring>

#include <StorageEvents.h>

#include "ctl_device.h"
#include "lumctl/event_decoders.h"
#include "lumctl/volume_table.h"

namespace lumctl {

namespace {

std::string without_dev(const std::string& name)
{
    return name.compare(0, 5, "/dev/") == 0 ? name.substr(5) : name;
}

std::string mb_text(long long mb, const char* what)
{
    std::string human = mb >= 0 ? human_mb(static_cast<uint64_t>(mb)) + what + " " : "";
    return human + "(" + std::to_string(mb) + " MB)";
}

// Printers: the operand asked for, the answer's fields as the event decoder
// gives them (none when the payload is too short).
int print_size_as(const CtlContext& ctx, const Json& answer, const char* key, const char* what)
{
    if (!answer.contains("sizeMB"))
        return protocol_error(ctx, "malformed size answer");
    const uint32_t mb = answer["sizeMB"];
    const std::string& name = answer["device"].get_ref<const std::string&>();
    print_line(ctx, printable(name) + ": " + mb_text(mb, what), Json{{"device", name}, {key, mb}});
    return kExitOk;
}

int print_size(const CtlContext& ctx, const std::string&, const Json& answer)
{
    return print_size_as(ctx, answer, "sizeMB", "");
}

int print_used(const CtlContext& ctx, const std::string&, const Json& answer)
{
    return print_size_as(ctx, answer, "usedMB", " used");
}

int print_free(const CtlContext& ctx, const std::string& uuid, const Json& answer)
{
    if (!answer.contains("freeMB"))
        return protocol_error(ctx, "malformed free-space answer");
    const int32_t mb = answer["freeMB"];
    print_line(ctx, printable(uuid) + ": " + mb_text(mb, " free"), Json{{"uuid", uuid}, {"freeMB", mb}});
    return kExitOk;
}

int print_uuid(const CtlContext& ctx, const std::string& path, const Json& answer)
{
    std::string uuid = answer.value("uuid", std::string());
    uuid.resize(strnlen(uuid.c_str(), uuid.size()));
    print_line(ctx, printable(path) + ": " + printable(uuid), Json{{"path", path}, {"uuid", uuid}});
    return kExitOk;
}

struct QueryKind {
    const char* sub;
    const char* command;
    const char* extra;    // a second request field, or null
    int32_t event_id;
    bool by_name;         // the answer names its device
    const char* missing;  // why the answer may never come
    int (*print)(const CtlContext& ctx, const std::string& operand, const Json& answer);
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
    Json answer;
    auto take = [&answer, &kind, &operand](const CtlEvent& e) {
        Json fields = fields_json(decode_event(e.id, e.data.data(), e.data.size()));
        if (kind.by_name && without_dev(fields.value("device", std::string())) != without_dev(operand))
            return EventStep::kMore;
        answer = std::move(fields);
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
