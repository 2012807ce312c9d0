// StorageManagerService::CreateDir and GetDirSize: the directory operations
// besides deletion.
#include <cerrno>
#include <cstring>
#include <sys/stat.h>

#include <norvfw/RTC.h>

#include "ClientPath.h"
#include "FileResult.h"
#include "ServiceHandlers.h"
#include "ServiceLog.h"
#include "ShellProbe.h"

// Creates the directory and its missing parents, open to everybody, and dates
// it by the television's clock. A name that exists already, of any kind, is
// left alone. The result is touch's when the clock is known.
bool StorageManagerService::CreateDir(const char* buf, int len)
{
    unsigned char result = 0;
    char quoted[SHELL_LINE_MAX];
    struct stat st;
    N_DateTime dateTime;
    if (buf == nullptr || len < 1) {
        SLOGE("[%s, %d] -- not enought input data\n");
        result = 1;
    } else if (!client_path_ok(buf)) {
        result = 2;
    } else if (stat(buf, &st) == 0) {
        SLOGD("[%s, %d] -- dir(%s) does already exist --> nothing to do\n", buf);
    } else {
        int rc = quote_client_path(buf, quoted, sizeof(quoted)) ? call_system("mkdir -m 0777 -p \"%s\"", quoted) : -1;
        if (rc != 0) {
            SLOGE("[%s, %d] -- rc=%d: %s(%d)\n", rc, strerror(errno), errno);
            result = 2;
        } else if (theRTC.GetCurrentDateTimeLocal(&dateTime) == 0) {
            // -t takes [[CC]YY]MMDDhhmm in every touch; the busybox-only
            // "-d YYYYMMDDhhmm" is refused by GNU touch.
            rc = call_system("touch -t %.4d%.2d%.2d%.2d%.2d \"%s\"", dateTime.Year, dateTime.Month,
                             dateTime.Day, dateTime.Hours, dateTime.Minutes, quoted);
            result = static_cast<unsigned char>(rc);
        }
    }
    return send_file_result(*this, LUM_TV_EVT_STORAGE_CREATE_DIR, result);
}

// Directory sizes are not measured: the request is taken and nothing is sent.
bool StorageManagerService::GetDirSize(std::string path)
{
    (void)path;
    return true;
}

void handle_get_dir_size(StorageManagerService& s, CNorvMsg*, StorageManagerAction_t* action)
{
    s.GetDirSize(reinterpret_cast<const char*>(action->buf1));
}
