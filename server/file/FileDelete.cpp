// StorageManagerService::DeleteFile and DeleteDir: a file or a whole
// recording, an empty directory or a tree, removed by rm and rmdir.
#include <cerrno>
#include <cstring>

#include "ClientPath.h"
#include "FileProtect.h"
#include "FileResult.h"
#include "ServiceLog.h"
#include "ShellProbe.h"

namespace {

// The erase modes of DeleteDir and their commands. rmdir keeps the leading
// blank of the line it was built from ("%s rmdir" with an empty first word).
struct SEraseMode {
    int mode;
    const char* command;
};

const SEraseMode kEraseModes[] = {
    {1, " rmdir"},   // an empty directory only
    {2, "rm -rf"},  // the whole tree
};

const char* erase_command(int mode)
{
    for (const SEraseMode& row : kEraseModes) {
        if (row.mode == mode)
            return row.command;
    }
    return nullptr;
}

}  // namespace

// pPath may carry the recording flag in the byte behind its terminator; len
// says how far the buffer reaches, so the byte counts only inside it. The
// companions go only once the main file is gone, and their results do not
// count: a recording may lack some of them.
bool StorageManagerService::DeleteFile(const char* pPath, int len)
{
    unsigned char result = 0;
    char quoted[SHELL_LINE_MAX];
    if (pPath == nullptr || len < 1) {
        SLOGE("[%s, %d] ***E: not enought input data\n");
        result = 1;
    } else if (!client_path_ok(pPath)) {
        result = 3;
    } else if (is_protected(pPath)) {
        SLOGE("[%s, %d] ***E: the file is protected\n");
        result = 2;
    } else {
        size_t at = strlen(pPath) + 1;
        // Unsigned, as char is on the television's ARM: any non-zero byte marks a recording.
        unsigned char flag = at < static_cast<size_t>(len) ? static_cast<unsigned char>(pPath[at]) : 0;
        int rc = quote_client_path(pPath, quoted, sizeof(quoted)) ? call_system("rm \"%s\"", quoted) : -1;
        if (rc != 0) {
            SLOGE("[%s, %d] ***E: rc=%d: %s(%d)\n", rc, strerror(errno), errno);
            result = 3;
        } else if (flag > 0) {
            for (const char* const* suffix = kDeleteCompanions; *suffix != nullptr; ++suffix)
                call_system("rm \"%s%s\"", quoted, *suffix);
        }
    }
    return send_file_result(*this, LUM_TV_EVT_STORAGE_DELETE_FILE, result);
}

bool StorageManagerService::DeleteDir(const char* pPath, int cMode, int len)
{
    unsigned char result = 0;
    const char* command = erase_command(cMode);
    char quoted[SHELL_LINE_MAX];
    if (pPath == nullptr || len < 2) {
        SLOGE("[%s, %d] -- not enough input data\n");
        result = 1;
    } else if (command == nullptr) {
        SLOGE("[%s, %d] -- invalid erase mode\n");
        result = 1;
    } else {
        int rc = quote_client_path(pPath, quoted, sizeof(quoted)) ? call_system("%s \"%s\"", command, quoted) : -1;
        if (rc != 0) {
            SLOGE("[%s, %d] -- rc=%d: %s(%d)\n", rc, strerror(errno), errno);
            result = 2;
        }
    }
    return send_file_result(*this, LUM_TV_EVT_STORAGE_DELETE_DIR, result);
}
