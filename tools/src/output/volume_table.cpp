// The volume list as records, and its table in the manner of lsblk: one
// line per device, partitions indented under their disk, columns as wide as
// their widest cell.
#include <algorithm>
#include <cctype>

#include "lumctl/output.h"

namespace lumctl {

namespace {

// By connection type value; 7 is an MTP/PTP device.
const char* const kConnLabels[] = {"-",       "HDDEdwa", "HDDAsdd", "USBAsdd",
                                   "HDD Int", "USB Int", "USB Ext", "PTP"};
constexpr int kConnPtp = 7;

std::string text_of(const Json& e, const char* key)
{
    return e.value(key, std::string());
}

const char* volume_type(const Json& e)
{
    const std::string node = text_of(e, "node");
    if (e.value("conn", 0) == kConnPtp || node.compare(0, 3, "VEN") == 0)
        return "mtp";
    bool disk = node.compare(0, 5, "/dev/") == 0 && node.size() == 8;
    for (size_t i = 5; disk && i < 8; ++i)
        disk = isalpha(static_cast<unsigned char>(node[i])) != 0;  // the client keeps the C locale
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

}  // namespace

std::string device_text(const Json& element, const char* key)
{
    return printable(trim_blanks(text_of(element, key)));
}

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

std::string human_mb(uint64_t mb)
{
    return human_units(mb, "MGTP");
}

std::string human_kib(uint64_t kib)
{
    return human_units(kib, "KMGTP");
}

namespace {

// Code points that a terminal shows two columns wide: Hangul Jamo, CJK
// (radicals to Yi), Hangul syllables, CJK compatibility ideographs and forms,
// full-width forms, and the ideographs of the supplementary planes.
const uint32_t kWide[][2] = {
    {0x1100, 0x115f}, {0x2e80, 0xa4cf}, {0xac00, 0xd7a3}, {0xf900, 0xfaff},
    {0xfe30, 0xfe4f}, {0xff00, 0xff60}, {0xffe0, 0xffe6}, {0x20000, 0x3fffd},
};

bool is_wide(uint32_t cp)
{
    for (const auto& range : kWide) {
        if (cp >= range[0] && cp <= range[1])
            return true;
    }
    return false;
}

// Columns on screen: one per character, two for a wide one, one for each
// byte that is not part of a well-formed UTF-8 sequence.
size_t display_width(const std::string& text)
{
    const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
    size_t width = 0;
    for (size_t i = 0; i < text.size();) {
        uint32_t cp = 0;
        const size_t n = bytes[i] >= 0x80 ? utf8_sequence(bytes, i, text.size(), &cp) : 0;
        width += n > 0 && is_wide(cp) ? 2 : 1;
        i += n > 0 ? n : 1;
    }
    return width;
}

bool all_digits(const std::string& text)
{
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

// A partition belongs to the disk whose node is its node without the
// trailing number ("/dev/sdb1" under "/dev/sdb").
bool is_child(const Json& part, const Json& disk)
{
    const std::string node = text_of(part, "node"), disk_node = text_of(disk, "node");
    return strcmp(volume_type(part), "part") == 0 && strcmp(volume_type(disk), "disk") == 0 &&
           node.compare(0, disk_node.size(), disk_node) == 0 && all_digits(node.substr(disk_node.size()));
}

bool has_parent(const Json& part, const Json& entries)
{
    for (const Json& e : entries) {
        if (is_child(part, e))
            return true;
    }
    return false;
}

struct Line {
    std::string name;
    const Json* entry;
};

// Entries in their order, each disk followed by its partitions; partitions
// whose disk is not listed stand on their own.
std::vector<Line> tree_lines(const Json& entries)
{
    std::vector<Line> lines;
    for (const Json& e : entries) {
        if (has_parent(e, entries))
            continue;
        lines.push_back(Line{printable(without_dev(text_of(e, "node"))), &e});
        std::vector<const Json*> children;
        for (const Json& c : entries) {
            if (is_child(c, e))
                children.push_back(&c);
        }
        for (size_t k = 0; k < children.size(); ++k) {
            const char* branch = k + 1 < children.size() ? "\u251c\u2500" : "\u2514\u2500";
            lines.push_back(Line{branch + printable(without_dev(text_of(*children[k], "node"))), children[k]});
        }
    }
    return lines;
}

struct Column {
    const char* title;
    bool right;  // sizes line up on their right edge
    std::string (*cell)(const Json& e);
};

using Cell = const Json&;

// A size element in MB, "" when the device has none.
std::string size_cell(const Json& e, const char* key)
{
    return e.contains(key) ? human_mb(e[key].get<uint64_t>()) : "";
}

// NAME comes first, from the tree.
const Column kColumns[] = {
    {"TYPE", false, [](Cell e) -> std::string { return volume_type(e); }},
    {"CONN", false, [](Cell e) { return conn_label(e.value("conn", 0)); }},
    {"FSTYPE", false, [](Cell e) { return printable(text_of(e, "fsType")); }},
    {"LABEL", false, [](Cell e) { return printable(text_of(e, "label")); }},
    {"SIZE", true, [](Cell e) { return size_cell(e, "sizeMB"); }},
    {"USED", true, [](Cell e) { return size_cell(e, "usedMB"); }},
    {"MOUNTPOINT", false, [](Cell e) { return printable(text_of(e, "mountPoint")); }},
    {"VENDOR", false, [](Cell e) { return device_text(e, "vendor"); }},
    {"MODEL", false, [](Cell e) { return device_text(e, "model"); }},
};

}  // namespace

std::string printable(const std::string& text)
{
    std::string out = text;
    for (char& ch : out) {
        unsigned char u = static_cast<unsigned char>(ch);
        if (u < 0x20 || u == 0x7f)
            ch = '?';
    }
    return out;
}

std::string without_dev(const std::string& name)
{
    return name.compare(0, 5, "/dev/") == 0 ? name.substr(5) : name;
}

std::string render_volume_table(const Json& entries)
{
    std::vector<std::vector<std::string>> rows{{"NAME"}};
    for (const Column& c : kColumns)
        rows[0].push_back(c.title);
    for (const Line& line : tree_lines(entries)) {
        rows.push_back({line.name});
        for (const Column& c : kColumns)
            rows.back().push_back(c.cell(*line.entry));
    }
    std::vector<size_t> widths(rows[0].size(), 0);
    for (const auto& row : rows) {
        for (size_t col = 0; col < row.size(); ++col)
            widths[col] = std::max(widths[col], display_width(row[col]));
    }
    std::string out;
    for (const auto& row : rows) {
        std::string line;
        for (size_t col = 0; col < row.size(); ++col) {
            std::string pad(widths[col] - display_width(row[col]), ' ');
            line += (col > 0 ? " " : "") + (col > 0 && kColumns[col - 1].right ? pad + row[col] : row[col] + pad);
        }
        out += line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
    }
    return entries.empty() ? out + "(no devices)\n" : out;
}

}  // namespace lumctl
