// StorageManagerService::SetProtected: sets or lifts the write protection of a
// file on the service thread.
#include <cerrno>
#include <cstring>

#include "ClientPath.h"
#include "FileResult.h"
#include "ServiceHandlers.h"
#include "ServiceLog.h"
#include "ShellProbe.h"

namespace {

// The first byte of the request: what chmod does to the write bits.
struct SProtectMode {
    unsigned char mode;
    char cflag;
};

const SProtectMode kProtectModes[] = {
    {1, '+'},  // lifts the protection
    {2, '-'},  // sets it
};

char protect_flag(unsigned char mode)
{
    for (const SProtectMode& row : kProtectModes) {
        if (row.mode == mode)
            return row.cflag;
    }
    return '\0';
}

}  // namespace

// buf: the mode byte, then the path up to its terminator. len is not read.
void StorageManagerService::SetProtected(const unsigned char* buf, int len)
{
    (void)len;
    unsigned char result = 0;
    char cflag = buf != nullptr ? protect_flag(buf[0]) : '\0';
    const char* path = cflag != '\0' ? reinterpret_cast<const char*>(buf + 1) : nullptr;
    char quoted[SHELL_LINE_MAX];
    if (cflag == '\0') {
        result = 1;
    } else {
        int rc = quote_client_path(path, quoted, sizeof(quoted)) ? call_system("chmod a%cw \"%s\"", cflag, quoted) : -1;
        if (rc != 0) {
            SLOGE("[%s, %d] -- rc=%d: %s(%d)\n", rc, strerror(errno), errno);
            result = 2;
        }
    }
    send_file_result(*this, LUM_TV_EVT_STORAGE_SET_PROTECTED, result);
}

void handle_set_protected(StorageManagerService& s, CNorvMsg*, StorageManagerAction_t* action)
{
    SLOGD("[%s, %d] Set proctected!\n");
    s.SetProtected(action->buf1, static_cast<int>(strlen(reinterpret_cast<const char*>(action->buf1))));
}
