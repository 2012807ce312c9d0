// StorageManagerService::RenameFile: a new name for a file or a recording,
// by rm and mv.
#include <cerrno>
#include <cstring>
#include <sys/stat.h>

#include "ClientPath.h"
#include "FileProtect.h"
#include "FileResult.h"
#include "PathPair.h"
#include "ServiceLog.h"
#include "ShellProbe.h"

namespace {

// Two names of one file ("/a/b" and "/a//b"): removing the destination
// first would remove the source.
bool same_file(const char* a, const char* b)
{
    struct stat sa, sb;
    return lstat(a, &sa) == 0 && lstat(b, &sb) == 0 && sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

// The mv lines of the rename, the companions' too for a recording: all of
// them must fit before the destination is removed, or a name too long for
// mv would cost the file that stood there (or split a recording).
bool rename_lines_fit(const char* qSrc, const char* qDst, bool bIsPvrRec)
{
    if (!shell_line_fits("mv -f \"%s\" \"%s\"", qSrc, qDst))
        return false;
    for (const char* const* suffix = kRenameCompanions; bIsPvrRec && *suffix != nullptr; ++suffix) {
        if (!shell_line_fits("mv -f \"%s%s\" \"%s%s\"", qSrc, *suffix, qDst, *suffix))
            return false;
    }
    return true;
}

}  // namespace

// Only the destination's protection counts: a protected file may take a new
// name. An existing destination goes before the move, so a failed mv leaves
// it gone; names too long for any of the mv lines change nothing. Companions
// follow only the main file's success, and their results do not count.
bool StorageManagerService::RenameFile(const unsigned char* buf, int len)
{
    unsigned char result = 0;
    const char* src = nullptr;
    const char* dst = nullptr;
    char qSrc[SHELL_LINE_MAX];
    char qDst[SHELL_LINE_MAX];
    if (!unpack_path_pair(buf, len, &src, &dst)) {
        SLOGE("[%s, %d] ***E: the request holds no source and destination\n");
        return send_file_result(*this, LUM_TV_EVT_STORAGE_RENAME_FILE, 3);
    }
    bool bIsPvrRec = buf[0] != 0;
    SLOGD("[%s, %d] ---: '%s' -> '%s'\n", src, dst);
    int rc = 0;
    if (!client_path_ok(src) || !client_path_ok(dst)) {
        result = 3;
    } else if (is_protected(dst)) {
        SLOGE("[%s, %d] ***E: the file is protected\n");
        result = 2;
    } else if (!quote_client_path(src, qSrc, sizeof(qSrc)) || !quote_client_path(dst, qDst, sizeof(qDst))) {
        result = 3;
    } else if (!rename_lines_fit(qSrc, qDst, bIsPvrRec)) {
        SLOGE("[%s, %d] ***E: the names do not fit a command line, nothing renamed\n");
        result = 3;
    } else if (strcmp(src, dst) != 0 && !same_file(src, dst) && (rc = call_system("rm -f \"%s\"", qDst)) != 0) {
        SLOGE("[%s, %d] ***E: rc=%d: %s(%d)\n", rc, strerror(errno), errno);
        result = 3;
    } else if ((rc = call_system("mv -f \"%s\" \"%s\"", qSrc, qDst)) != 0) {
        SLOGE("[%s, %d] ***E: rc=%d: %s(%d)\n", rc, strerror(errno), errno);
        result = 3;
    } else if (bIsPvrRec) {
        for (const char* const* suffix = kRenameCompanions; *suffix != nullptr; ++suffix)
            call_system("mv -f \"%s%s\" \"%s%s\"", qSrc, *suffix, qDst, *suffix);
    }
    return send_file_result(*this, LUM_TV_EVT_STORAGE_RENAME_FILE, result);
}
