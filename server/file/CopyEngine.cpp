// Copying one file and one tree, on whatever thread asks: the copy thread,
// a move, or a client through STORAGE_COPY_FILE and STORAGE_COPY_DIRS.
#include "CopyEngine.h"

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "ClientPath.h"
#include "CmdCalls.h"
#include "FileProtect.h"
#include "ServiceLog.h"
#include "ShellProbe.h"
#include "ShellQuote.h"
#include "StrUtil.h"

// What CopyFile gives when no command line could be built: the same byte as
// a line that call_system refuses (-1).
#define COPY_RESULT_NO_LINE 255

namespace {

// The folder that holds path (which may end in "/"): "." for a bare name.
bool parent_dir(const char* path, char* out, size_t size)
{
    if (lum_strlcpy(out, path, size) >= size)
        return false;
    size_t n = strlen(out);
    while (n > 1 && out[n - 1] == '/')
        out[--n] = '\0';
    char* slash = strrchr(out, '/');
    if (slash == nullptr)
        return lum_strlcpy(out, ".", size) < size;
    slash[slash == out ? 1 : 0] = '\0';
    return true;
}

// GNU cp exits with 1 whatever went wrong, also on a full disk, and its
// message goes to /dev/null. A failed copy whose destination has too little
// room left for the source (or no free inode) is therefore told as ENOSPC,
// which the copy thread turns into the out-of-space event.
bool no_room_for(const char* src, const char* dst)
{
    struct stat64 st;
    if (stat64(src, &st) != 0 || !S_ISREG(st.st_mode))
        return false;
    struct statvfs64 fs;
    if (statvfs64(dst, &fs) != 0) {
        char dir[PATH_MAX];
        if (!parent_dir(dst, dir, sizeof(dir)) || statvfs64(dir, &fs) != 0)
            return false;
    }
    if (fs.f_files != 0 && fs.f_favail == 0)
        return true;
    return static_cast<uint64_t>(fs.f_bavail) * fs.f_frsize < static_cast<uint64_t>(st.st_size);
}

// What "cp -p" keeps besides the bytes: owner, mode and times, each where
// the destination's file system takes it. The television's cp only warns
// when it cannot; GNU cp fails the whole copy (status 1, the bytes copied),
// and FAT and exFAT volumes refuse a mode that differs from their mount's
// (EPERM, ENOSYS through FUSE). So cp copies the bytes alone and the rest is
// set here; what the file system refuses is only logged.
void keep_attributes(const char* src, const char* dst)
{
    struct stat64 st;
    if (stat64(src, &st) != 0)
        return;
    const struct timespec times[2] = {st.st_atim, st.st_mtim};
    bool owner = chown(dst, st.st_uid, st.st_gid) == 0;
    bool mode = chmod(dst, st.st_mode & 07777) == 0;
    bool stamps = utimensat(AT_FDCWD, dst, times, 0) == 0;
    if (!owner || !mode || !stamps)
        SLOGD("[%s, %d] '%s' keeps its own%s%s%s\n", dst, owner ? "" : " owner", mode ? "" : " mode",
              stamps ? "" : " times");
}

// Where cp put the copy of src: inside dst when dst is a folder ("cp f dir"
// writes dir/f), dst itself otherwise. False when that path does not fit.
bool copy_target(const char* src, const char* dst, char* out, size_t size)
{
    struct stat64 st;
    if (stat64(dst, &st) != 0 || !S_ISDIR(st.st_mode))
        return lum_strlcpy(out, dst, size) < size;
    const char* slash = strrchr(src, '/');
    const char* name = slash != nullptr ? slash + 1 : src;
    size_t n = strlen(dst);
    const char* sep = (n > 0 && dst[n - 1] == '/') ? "" : "/";
    int len = snprintf(out, size, "%s%s%s", dst, sep, name);
    return len >= 0 && static_cast<size_t>(len) < size;
}

// True when the directory dst would lie inside the tree src, also by way of
// symbolic links or a second mount of the same folder: a walk of src would
// meet its own copy, and a move would remove the copy with the source.
bool lies_inside(const char* dst, const char* src)
{
    struct stat64 top;
    char parent[PATH_MAX];
    char real[PATH_MAX];
    if (stat64(src, &top) != 0 || !parent_dir(dst, parent, sizeof(parent)) || realpath(parent, real) == nullptr)
        return false;  // no parent: mkdir fails anyway
    for (;;) {
        struct stat64 st;
        if (stat64(real, &st) == 0 && st.st_dev == top.st_dev && st.st_ino == top.st_ino)
            return true;
        char* slash = strrchr(real, '/');
        if (slash == nullptr || (slash == real && real[1] == '\0'))
            return false;
        slash[slash == real ? 1 : 0] = '\0';
    }
}

// path with one "/" at its end, in out of COPY_WALK_PATH_LEN bytes.
bool with_slash(const char* path, char* out)
{
    size_t n = lum_strlcpy(out, path, COPY_WALK_PATH_LEN);
    if (n + (n > 0 && path[n - 1] == '/' ? 0 : 1) >= COPY_WALK_PATH_LEN)
        return false;
    if (n == 0 || path[n - 1] != '/')
        strcpy(out + n, "/");  // fits: checked above
    return true;
}

// One entry of a tree copy: directories are made before their files (the
// walk is pre-order), regular files are copied, anything else is left out.
int copy_file_callback(void* context, const char* path, const struct stat64* s)
{
    auto* p = static_cast<COPY_DIR_PARAMS*>(context);
    if (p->cancel != nullptr && p->cancel->load())
        return 1;
    bool dir = S_ISDIR(s->st_mode);
    if (!dir && !S_ISREG(s->st_mode))
        return 0;
    char dst[COPY_WALK_PATH_LEN];
    if (!tree_pair_target(p, dst)) {
        SLOGE("[%s, %d] ***E: destination path for '%s' too long\n", path);
        return ENAMETOOLONG;
    }
    if (!dir)
        return CopyFile(path, dst);
    if (mkdir(dst, 0777) != 0 && errno != EEXIST) {
        int err = errno;
        SLOGW("[%s, %d] -- cannot create directory: %s(%d)", strerror(err), err);
        return 1;
    }
    return 0;
}

}  // namespace

int CopyFile(const char* pSrc, const char* pDst)
{
    if (pSrc == nullptr || pDst == nullptr) {
        SLOGE("[%s, %d] params is null!\n");
        return COPY_RESULT_NO_LINE;
    }
    if (is_protected(pDst))
        return COPY_RESULT_PROTECTED;
    char src[SHELL_LINE_MAX];
    char dst[SHELL_LINE_MAX];
    bool ran = quote_client_path(pSrc, src, sizeof(src)) && quote_client_path(pDst, dst, sizeof(dst));
    int rc = ran ? call_system("cp \"%s\" \"%s\" 2> /dev/null", src, dst) & 0xff : COPY_RESULT_NO_LINE;
    char target[PATH_MAX];
    if (rc == 0 && copy_target(pSrc, pDst, target, sizeof(target)))
        keep_attributes(pSrc, target);
    if (rc != 0) {
        // Only a cp that ran can have met a full disk; a refused path says
        // nothing about the room anywhere.
        if (ran && no_room_for(pSrc, pDst))
            rc = ENOSPC;
        // errno means nothing after a shell has run: the log names the code.
        SLOGE("[%s, %d] -- rc=%d: %s(%d)\n", rc, strerror(rc), rc);
    }
    return rc;
}

bool tree_pair_init(COPY_TREE_PAIR* pair, const char* pSrcPath, const char* pDstPath,
                    const std::atomic<bool>* cancel)
{
    if (!with_slash(pSrcPath, pair->path) || !with_slash(pDstPath, pair->root))
        return false;
    pair->p.rel = pair->path + strlen(pair->path);
    pair->p.dst = pair->root;
    pair->p.cancel = cancel;
    return true;
}

int tree_pair_walk(COPY_TREE_PAIR* pair, bool recurse_first, FILE_CALLBACK callback)
{
    return BrowseDir(pair->path, pair->p.rel, pair->path + sizeof(pair->path), recurse_first, callback, &pair->p);
}

bool tree_pair_target(const COPY_DIR_PARAMS* p, char* out)
{
    int n = snprintf(out, COPY_WALK_PATH_LEN, "%s%s", p->dst, p->rel);
    return n >= 0 && n < COPY_WALK_PATH_LEN;
}

int copy_dir_walk(const char* pSrcPath, const char* pDstPath, const std::atomic<bool>* cancel, bool* created)
{
    if (created != nullptr)
        *created = false;
    if (pSrcPath == nullptr || pDstPath == nullptr) {
        SLOGE("[%s, %d] params is null!\n");
        return -1;
    }
    SLOGI("[%s, %d] pSrcPath (%s %d), pDstPath(%s %d)\n", pSrcPath, static_cast<int>(strlen(pSrcPath)), pDstPath,
          static_cast<int>(strlen(pDstPath)));
    // Relative roots would be walked and created in whatever folder the
    // process is in; they are refused before anything is looked at.
    if (!client_path_ok(pSrcPath) || !client_path_ok(pDstPath))
        return -1;
    COPY_TREE_PAIR pair;
    if (!tree_pair_init(&pair, pSrcPath, pDstPath, cancel)) {
        SLOGE("[%s, %d] ***E: path too long for a tree copy\n");
        return -1;
    }
    DIR* dir = opendir(pair.path);
    if (dir == nullptr) {
        SLOGD("[%s, %d] opendir('%s'): failed. errno(%s)\n", pair.path, strerror(errno));
        return -1;
    }
    closedir(dir);
    if (lies_inside(pDstPath, pair.path)) {
        SLOGE("[%s, %d] ***E: '%s' lies inside '%s'\n", pDstPath, pair.path);
        return -1;
    }
    if (mkdir(pDstPath, 0777) != 0) {
        SLOGE("[%s, %d] mkdir %s failed. errno: (%s)\n", pDstPath, strerror(errno));
        return -1;
    }
    if (created != nullptr)
        *created = true;
    return tree_pair_walk(&pair, false, copy_file_callback);
}

int CopyDir(const char* pSrcPath, const char* pDstPath)
{
    return copy_dir_walk(pSrcPath, pDstPath, nullptr, nullptr);
}

namespace {

// The direct copy commands: two paths, true in the reply if the copy gave 0.
// A missing path answers false and copies nothing.
void reply_copy(const android::Parcel& request, android::Parcel* reply, int (*copy)(const char*, const char*))
{
    const char* src = request.readCString();
    const char* dst = request.readCString();
    if (src == nullptr || dst == nullptr) {
        SLOGW("[%s, %d] ***W: a path is missing, nothing copied\n");
        reply->writeBool(false);
        return;
    }
    reply->writeBool(copy(src, dst) == 0);
}

}  // namespace

void cmd_copy_file(const android::Parcel& request, android::Parcel* reply)
{
    reply_copy(request, reply, CopyFile);
}

void cmd_copy_dirs(const android::Parcel& request, android::Parcel* reply)
{
    reply_copy(request, reply, CopyDir);
}
