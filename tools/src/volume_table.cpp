// Volume records from the tagged list, and the lsblk-like table.
#include "lumctl/volume_table.h"

#include <cstring>

#include "lumctl/device_decoders.h"

namespace lumctl {

namespace {

uint32_t be32(const uint8_t* p)
{
    return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 |
           static_cast<uint32_t>(p[2]) << 8 | p[3];
}

// Strings count their NUL in the element's length; a missing NUL is fine.
std::string text_of(const uint8_t* v, size_t len)
{
    const char* s = reinterpret_cast<const char*>(v);
    return std::string(s, strnlen(s, len));
}

void set_node(VolumeEntry* e, const uint8_t* v, size_t n) { e->node = text_of(v, n); }
void set_conn(VolumeEntry* e, const uint8_t* v, size_t n) { e->conn = n >= 1 ? v[0] : 0; }
void set_mount(VolumeEntry* e, const uint8_t* v, size_t n) { e->mount_point = text_of(v, n); }
void set_label(VolumeEntry* e, const uint8_t* v, size_t n) { e->label = text_of(v, n); }
void set_fs(VolumeEntry* e, const uint8_t* v, size_t n) { e->fs_type = text_of(v, n); }
void set_vendor(VolumeEntry* e, const uint8_t* v, size_t n) { e->vendor = trim_blanks(text_of(v, n)); }
void set_model(VolumeEntry* e, const uint8_t* v, size_t n) { e->model = trim_blanks(text_of(v, n)); }
void set_serial(VolumeEntry* e, const uint8_t* v, size_t n) { e->serial = trim_blanks(text_of(v, n)); }
void set_id(VolumeEntry* e, const uint8_t* v, size_t n) { e->dev_id = n == 4 ? be32(v) : 0; }

void set_size(VolumeEntry* e, const uint8_t* v, size_t n)
{
    e->has_size = n == 4;
    e->size_mb = n == 4 ? be32(v) : 0;
}

void set_used(VolumeEntry* e, const uint8_t* v, size_t n)
{
    e->has_used = n == 4;
    e->used_mb = n == 4 ? be32(v) : 0;
}

struct TagRow {
    uint32_t tag;
    void (*set)(VolumeEntry* entry, const uint8_t* value, size_t len);
};

const TagRow kTags[] = {
    {2, set_node},   {3, set_conn},   {4, set_mount},   {5, set_label}, {6, set_fs},    {8, set_vendor},
    {9, set_model},  {10, set_serial}, {11, set_id},    {12, set_size}, {13, set_used},
};

// By connection type value; 7 is an MTP/PTP device.
const char* const kConnLabels[] = {"-",       "HDDEdwa", "HDDAsdd", "USBAsdd",
                                   "HDD Int", "USB Int", "USB Ext", "PTP"};
constexpr int kConnPtp = 7;

}  // namespace

bool parse_volume_elements(const uint8_t* p, size_t len, VolumeEntry* entry)
{
    auto one = [entry](uint32_t tag, const uint8_t* v, size_t n) {
        for (const TagRow& row : kTags) {
            if (row.tag == tag)
                row.set(entry, v, n);
        }
        return true;
    };
    return walk_elements(p, len, one) == len;
}

bool parse_volume_table(const uint8_t* data, size_t len, std::vector<VolumeEntry>* out)
{
    if (len == 0)
        return true;
    auto one = [out](uint32_t tag, const uint8_t* v, size_t n) {
        VolumeEntry entry;
        if (tag == 1 && !parse_volume_elements(v, n, &entry))
            return false;
        if (tag == 1)
            out->push_back(entry);
        return true;
    };
    return 1 + walk_elements(data + 1, len - 1, one) == len;
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
