// StorageManagerService::ExtractCover: names the cover picture of a media file
// by a link under "/tmp/share/" to the one fixed cover file.
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

#include "ServiceHandlers.h"
#include "ServiceLog.h"

#define COVER_DEST_FOLDER "/tmp/share/"
#define COVER_TMP_FILE "/tmp/share/cover-file"
#define COVER_EXT_LEN 4

int StorageManagerService::ExtractCover(const char* sourceFolder, const char* fileName)
{
    char ext[COVER_EXT_LEN] = {0};  // no picture is read, so no extension is known
    std::string sourceFile = std::string(sourceFolder) + fileName;  // for the log line only
    size_t sendBufLen = strlen(COVER_DEST_FOLDER) + strlen(fileName) + 8;
    auto* sendBuf = static_cast<unsigned char*>(calloc(1, sendBufLen));
    if (sendBuf == nullptr) {
        SLOGE("[%s, %d] ***E: no memory for the cover answer\n");
        return 0;
    }
    char* coverFile = reinterpret_cast<char*>(sendBuf + 3);
    snprintf(coverFile, sendBufLen - 3, "%s%s.%s", COVER_DEST_FOLDER, fileName, ext);
    // A name with a "/" would put the link outside the folder: the answer
    // still goes, but no link is made.
    if (strchr(fileName, '/') != nullptr)
        SLOGW("[%s, %d] ***W: cover name '%s' is no plain file name, no link made\n", fileName);
    else
        (void)!symlink(COVER_TMP_FILE, coverFile);
    sendBuf[2] = 0;
    SLOGI("[%s, %d] -- Successfully extracted cover: %s -> %s (ext=%s)\n", sourceFile.c_str(), coverFile, ext);
    NotifyToStorageManager(LUM_TV_EVT_STORAGE_EXTRACT_COVER, sendBuf + 2, static_cast<int>(sendBufLen - 2));
    free(sendBuf);
    return 0;
}

void handle_extract_cover(StorageManagerService& s, CNorvMsg*, StorageManagerAction_t* action)
{
    s.ExtractCover(reinterpret_cast<const char*>(action->buf1), reinterpret_cast<const char*>(action->buf2));
}
