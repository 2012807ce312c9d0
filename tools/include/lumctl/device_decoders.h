// Decoders of the device and PVR events: mount and unmount announcements,
// sizes, UUIDs, the volume list in both forms, device information, the PVR
// partition's path, the marking's verdict and the guide record. Each returns
// the bytes it decoded, or 0 when the payload is too short for its layout.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "lumctl/decoded.h"

namespace lumctl {

// Called with each element of a tagged list; false stops the walk before
// that element.
using ElementFn = std::function<bool(uint32_t tag, const uint8_t* value, size_t len)>;

// Walks the elements {u16 tag, u16 len, len bytes} (big-endian) in
// p[0..len) until fn returns false, an element runs past the end or fewer
// than 4 bytes are left. Returns the bytes of the elements fn took.
size_t walk_elements(const uint8_t* p, size_t len, const ElementFn& fn);

// One JSON object and its one-line text ("name=value ..."), built together.
struct Object {
    Json json = Json::object();
    std::string text;
    void str(const char* name, const std::string& value);
    void num(const char* name, long long value);
};

// The children of one element list into obj, the known tags by name (node,
// conn, mountPoint, label, fsType, vendor, model, serial, devId, sizeMB,
// usedMB), strings up to their NUL; false when an element runs past the end.
bool decode_elements(const uint8_t* p, size_t len, Object* obj);

size_t decode_hot_plug_info(const uint8_t* data, size_t len, Decoded* out);
size_t decode_mount_point(const uint8_t* data, size_t len, Decoded* out);
size_t decode_count(const uint8_t* data, size_t len, Decoded* out);
size_t decode_size_reply(const uint8_t* data, size_t len, Decoded* out);
size_t decode_free_mb(const uint8_t* data, size_t len, Decoded* out);
size_t decode_uuid(const uint8_t* data, size_t len, Decoded* out);
size_t decode_tagged_table(const uint8_t* data, size_t len, Decoded* out);
size_t decode_device_rows(const uint8_t* data, size_t len, Decoded* out);
size_t decode_dev_info(const uint8_t* data, size_t len, Decoded* out);

// The name of an EStoragePvrFlag ("capacity smaller than the limit"), or
// "unknown" for a number outside the enumeration.
const char* verdict_name(int32_t verdict);
size_t decode_path_text(const uint8_t* data, size_t len, Decoded* out);
size_t decode_mark_info(const uint8_t* data, size_t len, Decoded* out);
size_t decode_guide(const uint8_t* data, size_t len, Decoded* out);

}  // namespace lumctl
