// Direct volume queries. A missing path gets the failure answer of the row
// (an empty type, size 0) without being looked at.
#include "CmdCalls.h"
#include "StorageManagerService.h"

void cmd_partition_fs_type(const android::Parcel& request, android::Parcel* reply)
{
    const char* diskId = request.readCString();
    std::string type = diskId != nullptr ? theStorageManagerService.GetPartitionFsType(diskId) : std::string();
    reply->writeCString(type.c_str());
}

void cmd_partition_total_size(const android::Parcel& request, android::Parcel* reply)
{
    reply->writeInt64(static_cast<int64_t>(theStorageManagerService.GetPartitionTotalSize(request.readCString())));
}

void cmd_partition_used_size(const android::Parcel& request, android::Parcel* reply)
{
    reply->writeInt64(static_cast<int64_t>(theStorageManagerService.GetPartitionUsedSize(request.readCString())));
}
