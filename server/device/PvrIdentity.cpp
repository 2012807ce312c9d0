#include "PvrIdentity.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <cutils/properties.h>
#include <norvfw/FileUtils.h>
#include <norvfw/RTC.h>

#include "MountTree.h"
#include "ServiceLog.h"
#include "ShellProbe.h"
#include "StorageManagerService.h"

int create_identity_filename(char* filename, int len)
{
    if (filename == nullptr || len < PVR_IDENTITY_NAME_LENGTH + 1)
        return -1;
    N_DateTime now;
    memset(&now, 0, sizeof(now));
    theRTC.GetCurrentDateTimeLocal(&now);
    int number = rand() % 10000;
    int written = snprintf(filename, PVR_IDENTITY_NAME_LENGTH + 1, "%c%04d%02d%02d%04d%s", '.', now.Year,
                           now.Month, now.Day, number, PVR_IDENTITY_FILE_SUFFIX);
    if (written != PVR_IDENTITY_NAME_LENGTH)
        SLOGW("[%s, %d] ***W: the clock gives no usable date; identity cut to %s\n", filename);
    SLOGD("[%s, %d] Create %04d-%02d-%02d-%04d identity file name: %s!\n", now.Year, now.Month, now.Day, number,
          filename);
    return 0;
}

int find_pvr_identity_callback(void* context, char* line)
{
    const char* suffix = strstr(line, PVR_IDENTITY_FILE_SUFFIX);
    if (suffix == nullptr) {
        SLOGD("[%s, %d] line is not exists pvr identity!\n");
        return -1;
    }
    // Only the suffix's place counts: the name is the 13 characters before it
    // and the suffix itself, which must end the line.
    const char* start = suffix - (PVR_IDENTITY_NAME_LENGTH - 4);
    if (suffix - line < PVR_IDENTITY_NAME_LENGTH - 4 || strlen(start) != PVR_IDENTITY_NAME_LENGTH) {
        SLOGD("[%s, %d] %s is not pvr identity!\n", line);
        return -1;
    }
    memcpy(context, start, PVR_IDENTITY_NAME_LENGTH + 1);
    SLOGD("[%s, %d] Get PvrIdentity: %s\n", static_cast<char*>(context));
    return 0;
}

bool StorageManagerService::FindPvrIdentityFromStorage(const char* path, char* pvrIdentity, int pvrIdentityLen)
{
    char found[256] = {0};
    if (path == nullptr || pvrIdentity == nullptr || pvrIdentityLen < PVR_IDENTITY_NAME_LENGTH) {
        SLOGE("[%s, %d] params is null!\n");
        return false;
    }
    // The path goes into the listing's command line unquoted.
    if (is_plain_word(path))
        parse_output_lines(find_pvr_identity_callback, found, "ls -al %s | grep \"%s\"", path,
                           PVR_IDENTITY_FILE_SUFFIX);
    if (strstr(found, PVR_IDENTITY_FILE_SUFFIX) != nullptr && strlen(found) == PVR_IDENTITY_NAME_LENGTH) {
        memcpy(pvrIdentity, found, PVR_IDENTITY_NAME_LENGTH);
        pvrIdentity[PVR_IDENTITY_NAME_LENGTH] = '\0';
        SLOGD("[%s, %d] Pvr identity %s found in %s\n", pvrIdentity, path);
        return true;
    }
    SLOGW("[%s, %d] Get Pvr identity failed! path:%s tempbuf: %s\n", path, found);
    return false;
}

bool StorageManagerService::CreatePvrIdentity(const char* path)
{
    char identity[30] = {0};
    char fullPath[100] = {0};
    // A partition keeps its identity for life: one found is reused.
    if (!FindPvrIdentityFromStorage(path, identity, sizeof(identity))) {
        memset(identity, 0, sizeof(identity));
        if (create_identity_filename(identity, sizeof(identity)) != 0) {
            SLOGE("[%s, %d] create_identity_filename failed!\n");
            return false;
        }
        SLOGD("[%s, %d] create_identity_filename [%s] success.!\n", identity);
    }
    if (path == nullptr || snprintf(fullPath, sizeof(fullPath), "%s/%s", path, identity) >= (int)sizeof(fullPath) ||
        !utils::file::createFile(fullPath)) {
        SLOGE("[%s, %d] Create %s failed!\n", fullPath);
        return false;
    }
    SLOGD("[%s, %d] Create %s success!\n", fullPath);
    if (property_set(PVR_IDENTITY_PROPERTY, identity) != 0) {
        SLOGE("[%s, %d] Save %s to property failed!\n", identity);
        return false;
    }
    return true;
}
