// Decoders of the PVR events: the chosen partition's path, the marking's
// verdict and the guide record.
#include <cstring>
#include <string>

#include <StoragePvr.h>

#include "lumctl/device_decoders.h"

namespace lumctl {

namespace {

const char* const kVerdicts[] = {"success", "capacity smaller than the limit", "format unusable",
                                 "no mount path", "identity failed", "bad parameters"};
const char* const kGuideEvents[] = {"space not enough for timeshift", "request format partition",
                                    "request select partition", "space not enough for record", "nothing"};

template <size_t N>
const char* name_of(const char* const (&names)[N], int32_t value)
{
    return value >= 0 && static_cast<size_t>(value) < N ? names[value] : "?";
}

// The rows of one guide table as a field, through the device rows decoder.
void add_rows(Decoded* out, const char* name, const SConnectedDevice* rows, int32_t count)
{
    if (count < 0)
        count = 0;
    if (count > STORAGE_GUIDE_ROWS)
        count = STORAGE_GUIDE_ROWS;
    Decoded rowsOut;
    decode_device_rows(reinterpret_cast<const uint8_t*>(rows), sizeof(SConnectedDevice) * static_cast<size_t>(count),
                       &rowsOut);
    Field f = rowsOut.fields.front();
    f.name = name;
    out->fields.push_back(f);
}

}  // namespace

const char* verdict_name(int32_t verdict)
{
    const size_t count = sizeof(kVerdicts) / sizeof(kVerdicts[0]);
    return verdict >= 0 && static_cast<size_t>(verdict) < count ? kVerdicts[verdict] : "unknown";
}

size_t decode_path_text(const uint8_t* data, size_t len, Decoded* out)
{
    add_string(out, "mountPoint", reinterpret_cast<const char*>(data), len);
    return len;
}

size_t decode_mark_info(const uint8_t* data, size_t len, Decoded* out)
{
    SStorageMarkPvrInfo info;
    if (!read_record(data, len, &info))
        return 0;
    add_bool(out, "isPvrPartition", info.is_pvr_partition);
    add_int(out, "pvrFlag", info.pvr_flag);
    out->fields.back().text += std::string(" (") + name_of(kVerdicts, info.pvr_flag) + ")";
    add_chars(out, "partitionId", info.partition_id);
    return sizeof(info);
}

size_t decode_guide(const uint8_t* data, size_t len, Decoded* out)
{
    if (len < sizeof(SStoragePvrDevGuideInfo))
        return 0;
    // 63000 bytes: copied to the heap, not the stack of the caller.
    std::string copy(reinterpret_cast<const char*>(data), sizeof(SStoragePvrDevGuideInfo));
    const auto* g = reinterpret_cast<const SStoragePvrDevGuideInfo*>(copy.data());
    add_bool(out, "show", g->bShow);
    add_int(out, "event", g->enEvt);
    out->fields.back().text += std::string(" (") + name_of(kGuideEvents, g->enEvt) + ")";
    add_int(out, "partitionNum", g->s32PartitionNum);
    add_rows(out, "partitions", g->astPartition, g->s32PartitionNum);
    add_int(out, "connectedDevNum", g->s32ConnectedDevNum);
    add_rows(out, "connected", g->astConnectedDev, g->s32ConnectedDevNum);
    return sizeof(SStoragePvrDevGuideInfo);
}

}  // namespace lumctl
