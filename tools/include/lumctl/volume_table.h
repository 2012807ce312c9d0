// The volume list of LUM_TV_EVT_STORAGE_GET_STORAGE_VOLUMES as records, and
// its rendering as a table in the manner of lsblk.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "lumctl/decoded.h"

namespace lumctl {

struct VolumeEntry {
    std::string node;  // "/dev/sdb1", or an MTP device id
    int conn = 0;      // connection type; 0 on partitions
    std::string mount_point, label, fs_type, vendor, model, serial;
    uint32_t dev_id = 0;
    uint32_t size_mb = 0, used_mb = 0;
    bool has_size = false, has_used = false;
};

// The entry of a decoded element list (decode_elements: the children of one
// device entry, or the body of a GET_DEV_INFO event), vendor, model and
// serial without their padding blanks.
VolumeEntry volume_entry(const Json& elements);

// Parses the event payload through decode_tagged_table: a leading zero byte,
// then device-entry elements (tag 1) holding the children. False when it is
// malformed; the entries before the fault are kept.
bool parse_volume_table(const uint8_t* data, size_t len, std::vector<VolumeEntry>* out);

// "48M", "1.9G", "3.6T": megabytes (2^20 bytes) in the largest unit (M, G,
// T, P; steps of 1024) that keeps the number at 1 or above, rounded to one
// decimal, which is left out when it is 0 ("1G"). Megabytes are whole.
std::string human_mb(uint64_t mb);
// The same for kilobytes (2^10 bytes): "512K", "1.5M", "3G".
std::string human_kib(uint64_t kib);

// "disk", "part" or "mtp".
const char* volume_type(const VolumeEntry& entry);
// The name of a connection type ("USB Ext"); the number for unknown ones.
std::string conn_label(int conn);
// text without leading and trailing blanks (vendor and model are padded).
std::string trim_blanks(const std::string& text);

// text with control characters as '?', for a terminal; UTF-8 stays.
std::string printable(const std::string& text);

// The table: a header line, then one line per entry with partitions under
// their disk; "(no devices)" when entries is empty.
std::string render_volume_table(const std::vector<VolumeEntry>& entries);

}  // namespace lumctl
