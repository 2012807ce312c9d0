// Devices and volumes: volumes (the volume list as a table, or both event
// forms as JSON), devinfo DEVICE, mount and umount DEVICE (each volume as it
// is announced, then the count of the run's end event), and the queries
// size, used, free and uuid (one request, one answering event).
#include <StorageEvents.h>

#include "commands.h"

namespace lumctl {

namespace {

struct VolumeEvents {
    Bytes volumes;
    Bytes rows;
    bool have_volumes = false;
};

// The one field a list decoder gives, as JSON; whole: it took every byte.
Json list_json(size_t (*decode)(const uint8_t*, size_t, Decoded*), const Bytes& data, bool* whole = nullptr)
{
    Decoded d;
    const size_t used = decode(data.data(), data.size(), &d);
    if (whole != nullptr)
        *whole = used == data.size();
    return d.fields.empty() ? Json::array() : d.fields[0].json;
}

// The list carries labels as the volumes store them (GBK on FAT); the rows
// carry them converted to UTF-8, so the table shows those.
Json with_row_labels(Json devices, const Json& rows)
{
    for (const Json& row : rows) {
        for (Json& device : devices) {
            if (device.value("node", std::string()) == row["devName"] && row["label"] != "")
                device["label"] = row["label"];
        }
    }
    return devices;
}

int print_volumes(const CtlContext& ctx, const VolumeEvents& got)
{
    bool whole = false;
    const Json devices = list_json(decode_tagged_table, got.volumes, &whole);
    const Json rows = list_json(decode_device_rows, got.rows);
    if (ctx.json)
        print_json(ctx.out, Json{{"devices", devices}, {"rows", rows}});
    else
        fputs(render_volume_table(with_row_labels(devices, rows)).c_str(), ctx.out);
    if (whole)
        return kExitOk;
    long long shown = static_cast<long long>(devices.size());
    return protocol_error(ctx, "volumes: the volume list is malformed after " + count_of(shown, "device"));
}

int print_devinfo(const CtlContext& ctx, const std::string& name, const Bytes& data)
{
    if (data.empty())
        return protocol_error(ctx, "devinfo " + name + ": empty device information event");
    Decoded decoded;
    decode_dev_info(data.data(), data.size(), &decoded);
    if (ctx.json) {
        Json json = {{"name", name}};
        json.update(fields_json(decoded));
        print_json(ctx.out, json);
    }
    if (data[0] != 0) {
        fprintf(ctx.err, "lumstoragectl: no device information for %s (is it a device of lumstoragectl volumes?)\n",
                printable(name).c_str());
        return kExitNo;
    }
    // A status byte alone is an empty list; otherwise the list is "device".
    if (data.size() > 1 && decoded.fields.size() < 2)
        return protocol_error(ctx, "devinfo " + name + ": malformed device information");
    if (ctx.json)
        return kExitOk;
    const Json e = data.size() > 1 ? decoded.fields[1].json : Json::object();
    fprintf(ctx.out, "device: %s\nstatus: 0 (ok)\nvendor: %s\nmodel: %s\nserial: %s\ndevId: 0x%08X\n",
            printable(name).c_str(), device_text(e, "vendor").c_str(), device_text(e, "model").c_str(),
            device_text(e, "serial").c_str(), e.value("devId", 0u));
    return kExitOk;
}

struct RunKind {
    const char* sub;
    const char* command;
    int32_t item_id;  // one per volume
    int32_t end_id;   // int32 count, host order
    const char* verb;
    std::string (*item_text)(const CtlEvent& event);
};

const RunKind kRuns[] = {
    {"mount", "STORAGE_DEV_MOUNT", LUM_TV_EVT_STORAGE_DEV_MOUNT, LUM_TV_EVT_STORAGE_DEV_MOUNT_END, "mounted",
     mounted_text},
    {"umount", "STORAGE_DEV_UMOUNT", LUM_TV_EVT_STORAGE_DEV_UMOUNT, LUM_TV_EVT_STORAGE_DEV_UMOUNT_END,
     "unmounted", unmounted_text},
};

struct RunPrinter {
    const CtlContext& ctx;
    const RunKind& kind;
    const std::string& device;
    long long seen = 0;

    EventStep take(const CtlEvent& event)
    {
        if (event.id != kind.end_id) {
            ++seen;
            if (ctx.json)
                print_json(ctx.out, Json{{kind.verb, event_json(event)}});
            else
                fprintf(ctx.out, "%s\n", kind.item_text(event).c_str());
            fflush(ctx.out);
            return EventStep::kMore;
        }
        // A short end event counts the volumes seen.
        const int32_t count = event_json(event).value("count", static_cast<int32_t>(seen));
        if (ctx.json)
            print_json(ctx.out, Json{{"device", device}, {kind.verb, count}});
        else
            fprintf(ctx.out, "%s: %s %s\n", printable(device).c_str(), count_of(count, "volume").c_str(), kind.verb);
        fflush(ctx.out);
        return EventStep::kDone;
    }
};

std::string mb_text(long long mb, const char* what)
{
    std::string human = mb >= 0 ? human_mb(static_cast<uint64_t>(mb)) + what + " " : "";
    return human + "(" + std::to_string(mb) + " MB)";
}

// Size answers name their device, so an answer for another device (another
// client's request) is skipped; the others carry no key and the first counts.
struct QueryKind {
    const char* sub;
    const char* command;
    const char* extra;  // a second request field, or null
    int32_t event_id;
    bool by_name;         // the answer names its device
    const char* missing;  // why the answer may never come
    // A size in MB: the answer's key, the output's key, its word ("size" has
    // none) and the error of an answer without it; null for uuid.
    const char* size_key;
    const char* key;
    const char* what;
    const char* malformed;
};

const QueryKind kQueries[] = {
    {"size", "STORAGE_GET_DEVICE_SIZE", "0", LUM_TV_EVT_STORAGE_HDD_GET_SIZE, true,
     "is it a device the service knows?", "sizeMB", "sizeMB", "", "malformed size answer"},
    {"used", "STORAGE_GET_PARTITION_USE", "0", LUM_TV_EVT_STORAGE_HDD_GET_PARTITION_USE, true,
     "is it a device the service knows?", "sizeMB", "usedMB", " used", "malformed size answer"},
    {"free", "STORAGE_GET_ALLOCATE_BYTES", nullptr, LUM_TV_EVT_STORAGE_GET_ALLOCATE_BYTES, false,
     "the service sends none for an unknown uuid", "freeMB", "freeMB", " free", "malformed free-space answer"},
    {"uuid", "STORAGE_GET_UUID_FOR_PATH", nullptr, LUM_TV_EVT_STORAGE_GET_UUID_FOR_PATH, false,
     "the service sends none for a path on no known volume", nullptr, nullptr, nullptr, nullptr},
};

// A query's answer as the event decoder gives its fields (none when the
// payload is too short): a size names its device, the free space is the
// uuid's asked for, and a uuid is told for the path asked for.
int print_answer(const CtlContext& ctx, const QueryKind& kind, const std::string& operand, const Json& answer)
{
    if (kind.size_key == nullptr) {
        std::string uuid = answer.value("uuid", std::string());
        uuid.resize(strnlen(uuid.c_str(), uuid.size()));
        print_line(ctx, printable(operand) + ": " + printable(uuid), Json{{"path", operand}, {"uuid", uuid}});
        return kExitOk;
    }
    if (!answer.contains(kind.size_key))
        return protocol_error(ctx, kind.malformed);
    const long long mb = answer[kind.size_key];
    const std::string& name = kind.by_name ? answer["device"].get_ref<const std::string&>() : operand;
    print_line(ctx, printable(name) + ": " + mb_text(mb, kind.what),
               Json{{kind.by_name ? "device" : "uuid", name}, {kind.key, mb}});
    return kExitOk;
}

template <typename Row, size_t N>
const Row& row_of(const Row (&rows)[N], const std::string& sub)
{
    for (const Row& row : rows) {
        if (sub == row.sub)
            return row;
    }
    return rows[0];
}

}  // namespace

std::string mounted_text(const CtlEvent& event)
{
    const Json info = fields_json(decode_event(LUM_TV_EVT_STORAGE_DEV_MOUNT, event.data.data(), event.data.size()));
    if (info.empty())
        return "(short mount event of " + std::to_string(event.data.size()) + " bytes)";
    const std::string& label = info["label"].get_ref<const std::string&>();
    std::string detail = info["fsType"].get<std::string>() + (label.empty() ? "" : ", label " + label);
    return "mounted " + printable(info["mountPoint"]) + (detail.empty() ? "" : " (" + printable(detail) + ")");
}

std::string unmounted_text(const CtlEvent& event)
{
    return event.data.empty() ? "unmounted (no mount point)" : "unmounted " + path_text(event);
}

std::string path_text(const CtlEvent& event)
{
    const char* text = reinterpret_cast<const char*>(event.data.data());
    return event.data.empty() ? "" : printable(std::string(text, strnlen(text, event.data.size())));
}

int run_volumes(const CtlContext& ctx, const DeviceArgs& args)
{
    DeviceCall call(ctx, "volumes", "STORAGE_GET_STORAGE_VOLUMES", args, kQueryTimeoutSeconds);
    VolumeEvents got;
    // The list event, then the device-table event that follows it (a table
    // before the list was sent for an earlier request).
    auto take = [&got](const CtlEvent& e) {
        if (e.id == LUM_TV_EVT_STORAGE_GET_STORAGE_VOLUMES) {
            got.volumes = e.data;
            got.have_volumes = true;
            return EventStep::kMore;
        }
        got.rows = e.data;
        return got.have_volumes ? EventStep::kDone : EventStep::kMore;
    };
    int rc = device_ask(ctx, call, {}, {LUM_TV_EVT_STORAGE_GET_STORAGE_VOLUMES, LUM_TV_EVT_STORAGE_GET_DEV_TABLE}, take,
                        [] { return std::string("the volume list and the device table"); });
    return rc != kExitOk ? rc : print_volumes(call.local, got);
}

int run_devinfo(const CtlContext& ctx, const DeviceArgs& args)
{
    DeviceCall call(ctx, "devinfo", "STORAGE_GET_STORAGE_VOLUME", args, kQueryTimeoutSeconds);
    Bytes data;
    auto take = [&data](const CtlEvent& e) {
        data = e.data;
        return EventStep::kDone;
    };
    int rc = device_ask(ctx, call, call.args.operands, {LUM_TV_EVT_STORAGE_GET_DEV_INFO}, take,
                        [] { return std::string("the device information"); });
    return rc != kExitOk ? rc : print_devinfo(call.local, call.args.operands[0], data);
}

int run_device_run(const CtlContext& ctx, const DeviceArgs& args)
{
    const RunKind& kind = row_of(kRuns, args.sub);
    DeviceCall call(ctx, kind.sub, kind.command, args, kRunTimeoutSeconds);
    RunPrinter printer{call.local, kind, call.args.operands[0]};
    return device_ask(ctx, call, call.args.operands, {kind.item_id, kind.end_id},
                      [&printer](const CtlEvent& e) { return printer.take(e); },
                      [&printer, &kind] {
                          return std::string("the end of the run (") + count_of(printer.seen, "volume") + " " +
                                 kind.verb + " so far)";
                      });
}

int run_query(const CtlContext& ctx, const DeviceArgs& args)
{
    const QueryKind& kind = row_of(kQueries, args.sub);
    DeviceCall call(ctx, kind.sub, kind.command, args, kQueryTimeoutSeconds);
    const std::string operand = call.args.operands[0];
    std::vector<std::string> fields = {operand};
    if (kind.extra != nullptr)
        fields.push_back(kind.extra);
    Json answer;
    auto take = [&answer, &kind, &operand](const CtlEvent& e) {
        Json fields = event_json(e);
        if (kind.by_name && without_dev(fields.value("device", std::string())) != without_dev(operand))
            return EventStep::kMore;
        answer = std::move(fields);
        return EventStep::kDone;
    };
    int rc = device_ask(ctx, call, fields, {kind.event_id}, take,
                        [&kind] { return std::string("the answer (") + kind.missing + ")"; });
    return rc != kExitOk ? rc : print_answer(call.local, kind, operand, answer);
}

}  // namespace lumctl
