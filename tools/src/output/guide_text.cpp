// The guide record in words, from its decoded fields (as watch shows the
// guide events): what it asks of the user interface, the partitions in rows
// of their own and the count of connected devices.
#include <StoragePvr.h>

#include "lumctl/output.h"

namespace lumctl {

namespace {

// What the record asks of the user interface: text, then the partitions in
// question (the first, or all) or none when none are listed.
struct RequestRow {
    int32_t event;
    const char* text;
    const char* none;  // null: the text says it all
    bool all;
};

const RequestRow kRequests[] = {
    {PLUGIN_EVENT_SPACE_NOT_ENOUGH_FOR_TSH, "not enough space for timeshift", nullptr, false},
    {PLUGIN_EVENT_REQUEST_FORMAT_PARTITION, "offer to format ", "offer to format a partition (none listed)", false},
    {PLUGIN_EVENT_REQUEST_SELECT_PARTITION, "let the user choose among ",
     "let the user choose a partition (none listed)", true},
    {PLUGIN_EVENT_SPACE_NOT_ENOUGH_FOR_RECORD, "not enough space for recording", nullptr, false},
    {PLUGIN_EVENT_BUTT, "nothing to do", nullptr, false},
};

// "sdb1" for "/dev/sdb1".
std::string short_name(const Json& row)
{
    return printable(without_dev(row["devName"]));
}

// "  sdb1: vfat, 29.1G (29773 MB), on /mnt/pvr/shared/sdb1, label PVRDISK"
std::string partition_line(const Json& row)
{
    const std::string fs = row["fsType"], mount = row["mountPoint"], label = row["label"];
    const uint64_t mb = row["sizeMB"];
    std::string line = "  " + short_name(row) + ": " + (fs.empty() ? "no file system" : printable(fs)) + ", " +
                       human_mb(mb) + " (" + std::to_string(mb) + " MB)";
    if (!mount.empty())
        line += ", on " + printable(mount);
    if (!label.empty())
        line += ", label " + printable(label);
    return line + "\n";
}

}  // namespace

std::string guide_asks(const Json& guide)
{
    const Json& rows = guide["partitions"];
    for (const RequestRow& row : kRequests) {
        if (row.event != guide["event"])
            continue;
        if (row.none == nullptr || rows.empty())
            return row.none == nullptr ? row.text : row.none;
        std::string out = row.text;
        for (size_t i = 0; i < (row.all ? rows.size() : 1); ++i)
            out += (i > 0 ? ", " : "") + short_name(rows[i]);
        return out;
    }
    return "unknown request " + guide["event"].dump();
}

std::string guide_text(const Json& guide)
{
    const Json& rows = guide["partitions"];
    const int count = guide["partitionNum"];
    std::string out = std::string("show: ") + (guide["show"] ? "yes" : "no") + "\n";
    out += "asks: " + guide_asks(guide) + "\n";
    out += "partitions: " + std::to_string(count);
    if (static_cast<size_t>(count) != rows.size())
        out += " (" + std::to_string(rows.size()) + " in the record)";
    out += "\n";
    for (const Json& row : rows)
        out += partition_line(row);
    return out + "connected devices: " + guide["connectedDevNum"].dump() + "\n";
}

}  // namespace lumctl
