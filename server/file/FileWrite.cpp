// StorageManagerService::WriteFile: stores a client's bytes in a file.
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "ClientPath.h"
#include "FileProtect.h"
#include "FileResult.h"
#include "ServiceLog.h"
#include "ShellProbe.h"

namespace {

// Lifts a file's protection; false when the chmod line cannot be built or fails.
bool make_writable(const char* path)
{
    char quoted[SHELL_LINE_MAX];
    return quote_client_path(path, quoted, sizeof(quoted)) && call_system("chmod a+w \"%s\"", quoted) == 0;
}

}  // namespace

// buf holds the path, its terminator and the file's bytes, len counting all
// three. A protected file is made writable and overwritten; it stays
// writable. The reply is always true: the event tells the outcome.
bool StorageManagerService::WriteFile(const unsigned char* buf, int len)
{
    unsigned char retVal = 0;
    const char* src = reinterpret_cast<const char*>(buf);
    size_t lenFilePath = (buf != nullptr && len > 0) ? strnlen(src, static_cast<size_t>(len)) + 1 : 0;
    if (lenFilePath == 0 || static_cast<size_t>(len) <= lenFilePath) {
        SLOGE("[%s, %d] ***E: not enough input data\n");
        retVal = 1;
    } else if (!client_path_ok(src)) {
        retVal = 3;
    } else if (is_protected(src) && !make_writable(src)) {
        SLOGE("[%s, %d] ***E: the file is protected\n");
        retVal = 2;
    } else {
        size_t lenFileBuf = static_cast<size_t>(len) - lenFilePath;
        FILE* file = fopen(src, "wb");
        if (file == nullptr) {
            SLOGE("[%s, %d] ***E: open failed: %s(%d)\n", strerror(errno), errno);
            retVal = 3;
        } else {
            size_t written = fwrite(buf + lenFilePath, 1, lenFileBuf, file);
            // Buffered bytes meet a full disk only when the stream closes.
            bool closed = fclose(file) == 0;
            if (written < lenFileBuf || !closed) {
                SLOGE("[%s, %d] ***E: write failed: %s(%d)\n", strerror(errno), errno);
                retVal = 3;
            } else {
                SLOGD("[%s, %d] <FS>:  Write file was successful (fileSize=%d): %s\n",
                      static_cast<int>(lenFileBuf), src);
            }
        }
    }
    send_file_result(*this, LUM_TV_EVT_STORAGE_WRITE_FILE, retVal);
    return true;
}
