// Move: a rename where the file system allows it, else a copy followed by
// the removal of the source. The copy way never removes what it did not
// make: a destination that was there before stays, and a source (or a
// companion of it) leaves only once its copy is complete.
#include "FileMove.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

#include "ClientPath.h"
#include "CmdCalls.h"
#include "CopyEngine.h"
#include "FileProtect.h"
#include "ServiceLog.h"
#include "ShellProbe.h"
#include "ShellQuote.h"
#include "StorageManagerService.h"

#define MOVE_RESULT_FAILED 3

namespace {

bool exists(const char* path)
{
    struct stat64 st;
    return lstat64(path, &st) == 0;
}

// A failure's code for the log: the copy's own result, or for CopyDir's -1
// the errno of the step that refused. Never 0.
int failure_code(int err, int rc)
{
    int code = (rc == -1 ? err : rc) & 0xff;
    return code != 0 ? code : MOVE_RESULT_FAILED;
}

// The half-finished tree copy of this move, removed with "rm -rf".
void remove_own_tree(const char* path)
{
    char quoted[SHELL_LINE_MAX];
    if (!quote_client_path(path, quoted, sizeof(quoted)) || call_system("rm -rf \"%s\"", quoted) != 0)
        SLOGW("[%s, %d] ***W: '%s' could not be removed after the failed copy\n", path);
}

// Builds the names of one companion in tmpSrc and tmpDst (512 bytes each).
bool companion_names(const char* src, const char* dst, const char* suffix, char* tmpSrc, char* tmpDst)
{
    int a = snprintf(tmpSrc, PATH_PAIR_BUF_LEN, "%s%s", src, suffix);
    int b = snprintf(tmpDst, PATH_PAIR_BUF_LEN, "%s%s", dst, suffix);
    if (a < 0 || b < 0 || a >= PATH_PAIR_BUF_LEN || b >= PATH_PAIR_BUF_LEN) {
        SLOGW("[%s, %d] ***W: no room for the names of '%s%s', the companion stays\n", src, suffix);
        return false;
    }
    return true;
}

void rename_companions(const char* src, const char* dst)
{
    char tmpSrc[PATH_PAIR_BUF_LEN];
    char tmpDst[PATH_PAIR_BUF_LEN];
    for (const char* const* suffix = kMoveCompanions; *suffix != nullptr; ++suffix) {
        if (companion_names(src, dst, *suffix, tmpSrc, tmpDst))
            rename(tmpSrc, tmpDst);  // a missing companion is no failure
    }
}

// Renames an existing regular file dst to a free name beside it (aside), so
// that a copy onto dst that fails can give it back. cp would truncate it
// first, and a full disk or a pulled source would leave neither file whole.
bool set_aside(const char* dst, char* aside, size_t size)
{
    for (int i = 0; i < 100; ++i) {
        int n = snprintf(aside, size, "%s.moving-%d", dst, i);
        if (n < 0 || static_cast<size_t>(n) >= size)
            return false;
        if (!exists(aside))
            return rename(dst, aside) == 0;
    }
    return false;
}

// Copies one file for a move. On failure nothing that was there before is
// lost: a destination that this copy made is removed, a protected one was
// never touched, and any other existing file is copied over only while it
// is set aside, and comes back. Returns CopyFile's result.
int copy_for_move(const char* src, const char* dst)
{
    struct stat64 st;
    bool existed = lstat64(dst, &st) == 0;
    char aside[PATH_MAX];
    bool replaced = existed && S_ISREG(st.st_mode) && !is_protected(dst);
    bool moved = replaced && set_aside(dst, aside, sizeof(aside));
    if (replaced && !moved) {
        SLOGE("[%s, %d] ***E: '%s' cannot be set aside, nothing copied over it\n", dst);
        return EEXIST;
    }
    int rc = CopyFile(src, dst);
    if (rc != 0 && (!existed || moved))
        unlink(dst);
    if (moved && rc != 0 && rename(aside, dst) != 0)
        SLOGE("[%s, %d] ***E: '%s' stays as '%s': %s\n", dst, aside, strerror(errno));
    else if (moved && rc == 0)
        unlink(aside);
    return rc;
}

// A companion leaves its old place only once its copy is complete.
void copy_companions(const char* src, const char* dst)
{
    char tmpSrc[PATH_PAIR_BUF_LEN];
    char tmpDst[PATH_PAIR_BUF_LEN];
    for (const char* const* suffix = kMoveCompanions; *suffix != nullptr; ++suffix) {
        if (!companion_names(src, dst, *suffix, tmpSrc, tmpDst) || !exists(tmpSrc))
            continue;
        int rc = copy_for_move(tmpSrc, tmpDst);
        if (rc == 0)
            unlink(tmpSrc);
        else
            SLOGW("[%s, %d] ***W: copy of '%s' failed (%d), it stays\n", tmpSrc, rc);
    }
}

int move_file(const char* src, const char* dst, bool isPvrRec)
{
    if (rename(src, dst) == 0) {
        if (isPvrRec)
            rename_companions(src, dst);
        return 0;
    }
    int rc = copy_for_move(src, dst);
    if (rc != 0)
        return failure_code(errno, rc);
    if (unlink(src) != 0)
        SLOGW("[%s, %d] ***W: '%s' is copied but stays: %s\n", src, strerror(errno));
    if (isPvrRec)
        copy_companions(src, dst);
    return 0;
}

int move_dir(const char* src, const char* dst)
{
    if (rename(src, dst) == 0)
        return 0;
    bool created = false;
    int rc = copy_dir_walk(src, dst, nullptr, &created);
    int err = errno;
    if (rc == 0)
        return remove_copied_tree(src, dst);
    // Only a folder that this copy made is its own work; one that existed
    // (CopyDir refuses it) is left as it was.
    if (created)
        remove_own_tree(dst);
    return failure_code(err, rc);
}

// Removes a source file whose complete copy stands at the destination;
// folders go in post-order once they are empty.
int remove_copied_entry(void* context, const char* path, const struct stat64* s)
{
    if (S_ISDIR(s->st_mode)) {
        rmdir(path);  // one that keeps entries stays
        return 0;
    }
    char twin[COPY_WALK_PATH_LEN];
    struct stat64 copy;
    if (S_ISREG(s->st_mode) && tree_pair_target(static_cast<const COPY_DIR_PARAMS*>(context), twin) &&
        lstat64(twin, &copy) == 0 && S_ISREG(copy.st_mode) && copy.st_size == s->st_size)
        unlink(path);
    return 0;
}

}  // namespace

int remove_copied_tree(const char* pSrcPath, const char* pDstPath)
{
    COPY_TREE_PAIR pair;
    if (tree_pair_init(&pair, pSrcPath, pDstPath, nullptr))
        tree_pair_walk(&pair, true, remove_copied_entry);
    if (rmdir(pSrcPath) == 0 || !exists(pSrcPath))
        return 0;
    SLOGW("[%s, %d] ***W: '%s' keeps what could not be copied\n", pSrcPath);
    return ENOTEMPTY;
}

bool StorageManagerService::Move(const unsigned char* buf, int len)
{
    const char* src = nullptr;
    const char* dst = nullptr;
    int rc;
    if (!unpack_path_pair(buf, len, &src, &dst)) {
        SLOGE("[%s, %d] ***E: the paths are not terminated in the request\n");
        rc = EINVAL;
    } else if (!client_path_ok(src) || !client_path_ok(dst)) {
        rc = EINVAL;  // the paths would name files in whatever folder the process is in
    } else {
        SLOGD("[%s, %d] --- %s -> %s \n", src, dst);
        size_t ls = strlen(src);
        bool isDir = ls > 0 && src[ls - 1] == '/';
        rc = isDir ? move_dir(src, dst) : move_file(src, dst, buf[0] != 0);
    }
    if (rc != 0) {
        SLOGE("[%s, %d] ***E: rc=%d: %s(%d)\n", rc, strerror(rc), rc);
        rc = MOVE_RESULT_FAILED;
    }
    unsigned char result = static_cast<unsigned char>(rc);
    NotifyToStorageManager(LUM_TV_EVT_STORAGE_MOVE_FILE, &result, 1);
    return rc == 0;
}

// STROAGE_LUM_MOVE: two paths and the recording flag, packed for Move. A
// request that does not fit the packed buffer moves nothing and still gets
// its event, result 3.
void cmd_lum_move(const android::Parcel& request, android::Parcel* reply)
{
    const char* src = request.readCString();
    const char* dst = request.readCString();
    bool isPvrRec = request.readBool();
    unsigned char buf[PATH_PAIR_BUF_LEN];
    if (!pack_path_pair(STROAGE_LUM_MOVE, src, dst, isPvrRec, buf)) {
        unsigned char result = MOVE_RESULT_FAILED;
        theStorageManagerService.NotifyToStorageManager(LUM_TV_EVT_STORAGE_MOVE_FILE, &result, 1);
        reply->writeBool(false);
        return;
    }
    reply->writeBool(theStorageManagerService.Move(buf, PATH_PAIR_BUF_LEN));
}
