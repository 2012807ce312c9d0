// mount DEVICE / umount DEVICE: start a run, print each volume the service
// announces as it comes, then the count of the run's end event.
#include <cstring>

#include <StorageEvents.h>

#include "ctl_device.h"
#include "lumctl/event_decoders.h"
#include "lumctl/volume_table.h"

namespace lumctl {

namespace {

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

const RunKind& run_kind(const char* sub)
{
    for (const RunKind& kind : kRuns) {
        if (strcmp(kind.sub, sub) == 0)
            return kind;
    }
    return kRuns[0];
}

struct RunPrinter {
    const CtlContext& ctx;
    const RunKind& kind;
    const std::string& device;
    long long seen = 0;

    void item(const CtlEvent& event)
    {
        ++seen;
        if (ctx.json) {
            Decoded d = decode_event(event.id, event.data.data(), event.data.size());
            print_json(ctx.out, Json{{kind.verb, fields_json(d)}});
        } else {
            fprintf(ctx.out, "%s\n", kind.item_text(event).c_str());
        }
        fflush(ctx.out);
    }

    void end(const CtlEvent& event)
    {
        // A short end event counts the volumes seen.
        const Json fields = fields_json(decode_event(event.id, event.data.data(), event.data.size()));
        const int32_t count = fields.value("count", static_cast<int32_t>(seen));
        if (ctx.json)
            print_json(ctx.out, Json{{"device", device}, {kind.verb, count}});
        else
            fprintf(ctx.out, "%s: %s %s\n", printable(device).c_str(), count_of(count, "volume").c_str(),
                    kind.verb);
        fflush(ctx.out);
    }

    EventStep take(const CtlEvent& event)
    {
        if (event.id == kind.end_id) {
            end(event);
            return EventStep::kDone;
        }
        item(event);
        return EventStep::kMore;
    }
};

int run_device_run(const CtlContext& ctx, const char* sub, const DeviceArgs& args)
{
    const RunKind& kind = run_kind(sub);
    DeviceCall call{kind.sub, kind.command, {}};
    device_args(ctx, &call, args, kRunTimeoutSeconds);
    CtlContext local = device_context(ctx, call);
    RunPrinter printer{local, kind, call.args.operands[0]};
    EventQuery query;
    std::string error;
    if (device_query(call, call.args.operands, {kind.item_id, kind.end_id},
                     [&printer](const CtlEvent& e) { return printer.take(e); }, &query, &error) != 0)
        return usage_error(ctx, error);
    return device_run(ctx, call, query, [&printer, &kind] {
        return std::string("the end of the run (") + count_of(printer.seen, "volume") + " " + kind.verb +
               " so far)";
    });
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
    if (event.data.empty())
        return "unmounted (no mount point)";
    const char* text = reinterpret_cast<const char*>(event.data.data());
    return "unmounted " + printable(std::string(text, strnlen(text, event.data.size())));
}

int run_mount(const CtlContext& ctx, const DeviceArgs& args)
{
    return run_device_run(ctx, "mount", args);
}

int run_umount(const CtlContext& ctx, const DeviceArgs& args)
{
    return run_device_run(ctx, "umount", args);
}

}  // namespace lumctl
