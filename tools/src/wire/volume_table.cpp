// Volume records from the tagged list, and the lsblk-like table.
#include "lumctl/volume_table.h"

#include <cstring>

#include "lumctl/device_decoders.h"

namespace lumctl {

namespace {

// By connection type value; 7 is an MTP/PTP device.
const char* const kConnLabels[] = {"-",       "HDDEdwa", "HDDAsdd", "USBAsdd",
                                   "HDD Int", "USB Int", "USB Ext", "PTP"};
constexpr int kConnPtp = 7;

}  // namespace

VolumeEntry volume_entry(const Json& elements)
{
    VolumeEntry e;
    auto text = [&elements](const char* name) { return elements.value(name, std::string()); };
    e.node = text("node");
    e.conn = elements.value("conn", 0);
    e.mount_point = text("mountPoint");
    e.label = text("label");
    e.fs_type = text("fsType");
    e.vendor = trim_blanks(text("vendor"));
    e.model = trim_blanks(text("model"));
    e.serial = trim_blanks(text("serial"));
    e.dev_id = elements.value("devId", 0u);
    e.has_size = elements.contains("sizeMB");
    e.size_mb = elements.value("sizeMB", 0u);
    e.has_used = elements.contains("usedMB");
    e.used_mb = elements.value("usedMB", 0u);
    return e;
}

bool parse_volume_table(const uint8_t* data, size_t len, std::vector<VolumeEntry>* out)
{
    Decoded decoded;
    size_t used = decode_tagged_table(data, len, &decoded);
    for (const Json& elements : decoded.fields.front().json)
        out->push_back(volume_entry(elements));
    return used == len;
}

namespace {

// value in the largest of units (steps of 1024) that keeps it at 1 or above,
// with one decimal unless it is 0.
std::string human_units(uint64_t value, const char* units)
{
    const size_t count = strlen(units);
    size_t unit = 0;
    uint64_t scale = 1;
    while (unit + 1 < count && value >= scale * 1024) {
        scale *= 1024;
        ++unit;
    }
    if (unit == 0)
        return std::to_string(value) + units[0];
    uint64_t tenths = (value * 10 + scale / 2) / scale;
    if (tenths >= 10240 && unit + 1 < count) {
        // Rounding reached 1024 of this unit: 1 of the next.
        tenths = (value * 10 + scale * 512) / (scale * 1024);
        ++unit;
    }
    std::string out = std::to_string(tenths / 10);
    if (tenths % 10 != 0)
        out += "." + std::to_string(tenths % 10);
    return out + units[unit];
}

}  // namespace

std::string human_mb(uint64_t mb)
{
    return human_units(mb, "MGTP");
}

std::string human_kib(uint64_t kib)
{
    return human_units(kib, "KMGTP");
}

const char* volume_type(const VolumeEntry& entry)
{
    if (entry.conn == kConnPtp || entry.node.compare(0, 3, "VEN") == 0)
        return "mtp";
    const char* name = entry.node.c_str();
    bool disk = strncmp(name, "/dev/", 5) == 0 && strlen(name + 5) == 3;
    for (size_t i = 5; disk && i < 8; ++i)
        disk = (name[i] >= 'a' && name[i] <= 'z') || (name[i] >= 'A' && name[i] <= 'Z');
    return disk ? "disk" : "part";
}

std::string conn_label(int conn)
{
    int count = static_cast<int>(sizeof(kConnLabels) / sizeof(kConnLabels[0]));
    return conn >= 0 && conn < count ? kConnLabels[conn] : std::to_string(conn);
}

std::string trim_blanks(const std::string& text)
{
    size_t begin = text.find_first_not_of(" \t");
    if (begin == std::string::npos)
        return "";
    return text.substr(begin, text.find_last_not_of(" \t") - begin + 1);
}

}  // namespace lumctl
