// The guide record in words. Strings are read only up to their field's
// size; the partition count is bounded by the record's rows.
#include "lumctl/output.h"

namespace lumctl {

namespace {

std::string cut(const char* text, size_t size) { return std::string(text, strnlen(text, size)); }

int row_count(const SStoragePvrDevGuideInfo& g)
{
    int n = g.s32PartitionNum;
    return n < 0 ? 0 : n > STORAGE_GUIDE_ROWS ? STORAGE_GUIDE_ROWS : n;
}

// "sdb1" for "/dev/sdb1".
std::string short_name(const SConnectedDevice& row)
{
    return printable(without_dev(cut(row.devName, sizeof(row.devName))));
}

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

// "  sdb1: vfat, 29.1G (29773 MB), on /mnt/pvr/shared/sdb1, label PVRDISK"
std::string partition_line(const SConnectedDevice& row)
{
    std::string fs = cut(row.fsType, sizeof(row.fsType));
    std::string mount = cut(row.mountPoint, sizeof(row.mountPoint));
    std::string label = cut(row.volumeName, sizeof(row.volumeName));
    std::string line = "  " + short_name(row) + ": " + (fs.empty() ? "no file system" : printable(fs)) + ", " +
                       human_mb(row.devSize) + " (" + std::to_string(row.devSize) + " MB)";
    if (!mount.empty())
        line += ", on " + printable(mount);
    if (!label.empty())
        line += ", label " + printable(label);
    return line + "\n";
}

Json partition_json(const SConnectedDevice& row)
{
    std::string dev = cut(row.devName, sizeof(row.devName));
    return {{"name", without_dev(dev)},
            {"devName", dev},
            {"fsType", cut(row.fsType, sizeof(row.fsType))},
            {"sizeMB", row.devSize},
            {"usedMB", row.devUsedSize},
            {"mountPoint", cut(row.mountPoint, sizeof(row.mountPoint))},
            {"label", cut(row.volumeName, sizeof(row.volumeName))}};
}

std::string guide_request(const SStoragePvrDevGuideInfo& g)
{
    for (const RequestRow& row : kRequests) {
        if (row.event != g.enEvt)
            continue;
        if (row.none == nullptr || row_count(g) == 0)
            return row.none == nullptr ? row.text : row.none;
        std::string out = row.text;
        for (int i = 0; i < (row.all ? row_count(g) : 1); ++i)
            out += (i > 0 ? ", " : "") + short_name(g.astPartition[i]);
        return out;
    }
    return "unknown request " + std::to_string(static_cast<int>(g.enEvt));
}

}  // namespace

std::string guide_text(const SStoragePvrDevGuideInfo& guide)
{
    std::string out = std::string("show: ") + (guide.bShow != 0 ? "yes" : "no") + "\n";
    out += "asks: " + guide_request(guide) + "\n";
    out += "partitions: " + std::to_string(guide.s32PartitionNum);
    if (guide.s32PartitionNum != row_count(guide))
        out += " (" + std::to_string(row_count(guide)) + " in the record)";
    out += "\n";
    for (int i = 0; i < row_count(guide); ++i)
        out += partition_line(guide.astPartition[i]);
    return out + "connected devices: " + std::to_string(guide.s32ConnectedDevNum) + "\n";
}

Json guide_json(const SStoragePvrDevGuideInfo& guide)
{
    Json rows = Json::array();
    for (int i = 0; i < row_count(guide); ++i)
        rows.push_back(partition_json(guide.astPartition[i]));
    return {{"show", guide.bShow != 0},
            {"event", guide.enEvt},
            {"asks", guide_request(guide)},
            {"partitionNum", guide.s32PartitionNum},
            {"partitions", rows},
            {"connectedDevNum", guide.s32ConnectedDevNum}};
}

}  // namespace lumctl
