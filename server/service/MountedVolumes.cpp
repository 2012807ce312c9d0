#include "MountedVolumes.h"

#include <cstring>
#include <mutex>
#include <sys/stat.h>

#include "ServiceLog.h"
#include "StrUtil.h"

#define MOUNTED_VOLUMES_MAX 64
#define MOUNTED_POINT_LEN 64
#define MOUNTED_TYPE_LEN 32

namespace {

struct SMountedVolume {
    char point[MOUNTED_POINT_LEN];  // empty: a free row
    char type[MOUNTED_TYPE_LEN];
    dev_t dev;  // the volume's device, to tell it from what lies there later
};

// Written by mount and unmount runs (service thread, format thread), read by
// listings on the service thread.
std::mutex g_mounted_lock;
SMountedVolume g_mounted[MOUNTED_VOLUMES_MAX];

// The row of point, or null. Called with g_mounted_lock held.
SMountedVolume* find_locked(const char* point)
{
    for (SMountedVolume& v : g_mounted) {
        if (v.point[0] != '\0' && strcmp(v.point, point) == 0)
            return &v;
    }
    return nullptr;
}

// True when v's volume still lies at its point.
bool still_there(const SMountedVolume& v)
{
    struct stat64 st;
    return stat64(v.point, &st) == 0 && st.st_dev == v.dev;
}

}  // namespace

void mounted_volume_add(const char* mountPoint, const char* fsType)
{
    struct stat64 st;
    if (mountPoint == nullptr || fsType == nullptr || fsType[0] == '\0' ||
        strlen(mountPoint) >= MOUNTED_POINT_LEN || stat64(mountPoint, &st) != 0)
        return;
    std::lock_guard<std::mutex> hold(g_mounted_lock);
    SMountedVolume* row = find_locked(mountPoint);
    // A full table gives up a row whose volume has gone.
    for (SMountedVolume& v : g_mounted) {
        if (row == nullptr && (v.point[0] == '\0' || !still_there(v)))
            row = &v;
    }
    if (row == nullptr) {
        SLOGW("[%s, %d] ***W: no row left for %s, its listings ask mount\n", mountPoint);
        return;
    }
    lum_strlcpy(row->point, mountPoint, sizeof(row->point));
    lum_strlcpy(row->type, fsType, sizeof(row->type));
    row->dev = st.st_dev;
}

void mounted_volume_remove(const char* mountPoint)
{
    if (mountPoint == nullptr)
        return;
    std::lock_guard<std::mutex> hold(g_mounted_lock);
    SMountedVolume* row = find_locked(mountPoint);
    if (row != nullptr)
        row->point[0] = '\0';
}

bool mounted_volume_type(const char* mountPoint, char* type, size_t size)
{
    if (mountPoint == nullptr || type == nullptr || size == 0)
        return false;
    std::lock_guard<std::mutex> hold(g_mounted_lock);
    SMountedVolume* row = find_locked(mountPoint);
    if (row == nullptr)
        return false;
    if (!still_there(*row)) {
        row->point[0] = '\0';
        return false;
    }
    return lum_strlcpy(type, row->type, size) < size;
}
