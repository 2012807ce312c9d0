// volumes: the volume list as a table (or both event forms as JSON);
// devinfo DEVICE: vendor, model, serial and id of one device.
#include <cstring>

#include <StorageDevice.h>
#include <StorageEvents.h>

#include "ctl_device.h"
#include "lumctl/device_decoders.h"
#include "lumctl/volume_table.h"

namespace lumctl {

namespace {

struct VolumeEvents {
    std::vector<uint8_t> volumes;
    std::vector<uint8_t> rows;
    bool have_volumes = false;
};

// The list event, then the device-table event that follows it.
EventStep take_volumes(VolumeEvents* got, const CtlEvent& event)
{
    if (event.id == LUM_TV_EVT_STORAGE_GET_STORAGE_VOLUMES) {
        got->volumes = event.data;
        got->have_volumes = true;
        return EventStep::kMore;
    }
    if (!got->have_volumes)
        return EventStep::kMore;  // a table sent for an earlier request
    got->rows = event.data;
    return EventStep::kDone;
}

using DecodeFn = size_t (*)(const uint8_t* data, size_t len, Decoded* out);

// The one field a list decoder gives, as JSON.
Json decoded_json(DecodeFn decode, const std::vector<uint8_t>& data)
{
    Decoded d;
    decode(data.data(), data.size(), &d);
    return d.fields.empty() ? Json::array() : d.fields[0].json;
}

// The list carries labels as the volumes store them (GBK on FAT); the rows
// carry them converted to UTF-8, so the table shows those.
void apply_row_labels(const std::vector<uint8_t>& rows, std::vector<VolumeEntry>* entries)
{
    for (size_t at = 0; at + sizeof(SConnectedDevice) <= rows.size(); at += sizeof(SConnectedDevice)) {
        SConnectedDevice row;
        memcpy(&row, rows.data() + at, sizeof(row));
        std::string name(row.devName, strnlen(row.devName, sizeof(row.devName)));
        std::string label(row.volumeName, strnlen(row.volumeName, sizeof(row.volumeName)));
        for (VolumeEntry& e : *entries) {
            if (e.node == name && !label.empty())
                e.label = label;
        }
    }
}

int print_volumes(const CtlContext& ctx, const VolumeEvents& got)
{
    std::vector<VolumeEntry> entries;
    bool whole = parse_volume_table(got.volumes.data(), got.volumes.size(), &entries);
    apply_row_labels(got.rows, &entries);
    if (ctx.json)
        print_json(ctx.out, Json{{"devices", decoded_json(decode_tagged_table, got.volumes)},
                                 {"rows", decoded_json(decode_device_rows, got.rows)}});
    else
        fputs(render_volume_table(entries).c_str(), ctx.out);
    if (whole)
        return kExitOk;
    long long shown = static_cast<long long>(entries.size());
    return protocol_error(ctx, "volumes: the volume list is malformed after " + count_of(shown, "device"));
}

int print_devinfo_text(const CtlContext& ctx, const std::string& name, const VolumeEntry& e)
{
    fprintf(ctx.out, "device: %s\nstatus: 0 (ok)\nvendor: %s\nmodel: %s\nserial: %s\ndevId: 0x%08X\n",
            printable(name).c_str(), printable(e.vendor).c_str(), printable(e.model).c_str(),
            printable(e.serial).c_str(), e.dev_id);
    return kExitOk;
}

int print_devinfo(const CtlContext& ctx, const std::string& name, const std::vector<uint8_t>& data)
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
    VolumeEntry entry = volume_entry(data.size() > 1 ? decoded.fields[1].json : Json::object());
    return ctx.json ? kExitOk : print_devinfo_text(ctx, name, entry);
}

}  // namespace

int run_volumes(const CtlContext& ctx, const DeviceArgs& args)
{
    DeviceCall call{"volumes", "STORAGE_GET_STORAGE_VOLUMES", {}};
    device_args(ctx, &call, args, kQueryTimeoutSeconds);
    VolumeEvents got;
    EventQuery query;
    std::string error;
    auto take = [&got](const CtlEvent& e) { return take_volumes(&got, e); };
    if (device_query(call, {}, {LUM_TV_EVT_STORAGE_GET_STORAGE_VOLUMES, LUM_TV_EVT_STORAGE_GET_DEV_TABLE}, take,
                     &query, &error) != 0)
        return usage_error(ctx, error);
    int rc = device_run(ctx, call, query, [] { return std::string("the volume list and the device table"); });
    return rc != kExitOk ? rc : print_volumes(device_context(ctx, call), got);
}

int run_devinfo(const CtlContext& ctx, const DeviceArgs& args)
{
    DeviceCall call{"devinfo", "STORAGE_GET_STORAGE_VOLUME", {}};
    device_args(ctx, &call, args, kQueryTimeoutSeconds);
    std::vector<uint8_t> data;
    auto take = [&data](const CtlEvent& e) {
        data = e.data;
        return EventStep::kDone;
    };
    EventQuery query;
    std::string error;
    if (device_query(call, call.args.operands, {LUM_TV_EVT_STORAGE_GET_DEV_INFO}, take, &query, &error) != 0)
        return usage_error(ctx, error);
    int rc = device_run(ctx, call, query, [] { return std::string("the device information"); });
    return rc != kExitOk ? rc : print_devinfo(device_context(ctx, call), call.args.operands[0], data);
}

}  // namespace lumctl
