#include "StorageModuleHub.h"

#include <cstdlib>
#include <cstring>

#include "ServiceLog.h"
#include "StorageCmdTable.h"
#include "StorageManagerService.h"

#define HLOGD(fmt, ...) SLOG_TAG(ANDROID_LOG_DEBUG, STORAGE_TAG_HUB, fmt, ##__VA_ARGS__)
#define HLOGW(fmt, ...) SLOG_TAG(ANDROID_LOG_WARN, STORAGE_TAG_HUB, fmt, ##__VA_ARGS__)
#define HLOGE(fmt, ...) SLOG_TAG(ANDROID_LOG_ERROR, STORAGE_TAG_HUB, fmt, ##__VA_ARGS__)

namespace {

// The handler of the storage group. Every command gets a fresh record; the
// row decides whether it travels with a signal or goes back here.
int InvokeVold(const android::Parcel& request, android::Parcel* reply)
{
    int cmd = request.readInt32();
    auto* pCmd = static_cast<StorageManagerAction_t*>(malloc(sizeof(StorageManagerAction_t)));
    bool bFree = true;
    HLOGD("[%s, %d] cmd : %#x, pCmd : %p", cmd, static_cast<void*>(pCmd));
    if (pCmd != nullptr)
        memset(pCmd, 0, sizeof(*pCmd));

    const SCmdRow* row = find_cmd_row(cmd);
    if (row == nullptr) {
        HLOGW("[%s, %d] No this option [%d]!\n", cmd);
    } else if (row->road == CMD_ROAD_POST) {
        bool ret = post_cmd_row(*row, request, pCmd, &bFree, theStorageManagerService);
        reply->writeBool(ret);
    } else {
        row->call(request, reply);
    }

    if (bFree)
        free(pCmd);
    return 0;
}

}  // namespace

StorageModuleHub* StorageModuleHub::self()
{
    static StorageModuleHub hub;
    return &hub;
}

StorageModuleHub::StorageModuleHub()
{
    mHubMap[STORAGE_MODULE_FS] = InvokeVold;
}

StorageModuleHub::~StorageModuleHub() = default;

int StorageModuleHub::invoke(const android::Parcel& request, android::Parcel* reply)
{
    size_t start = request.dataPosition();
    unsigned int group = static_cast<unsigned int>(request.readInt32()) & STORAGE_MODULE_MASK;
    auto it = mHubMap.find(group);
    if (it == mHubMap.end() || reply == nullptr) {
        HLOGE("[%s, %d] failed");
        return -1;
    }
    // The handler reads the command word again.
    request.setDataPosition(start);
    return it->second(request, reply);
}
