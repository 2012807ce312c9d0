// Copying one file and one tree, on whatever thread asks: the copy thread, a
// move, or a client through STORAGE_COPY_FILE and STORAGE_COPY_DIRS. The
// bytes move inside the process (copy_file_range, else read and write): a
// shell and a cp for each file cost more than the copy of a small file.
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
#include <unistd.h>

#include "ClientPath.h"
#include "CmdCalls.h"
#include "FileProtect.h"
#include "ServiceLog.h"
#include "StrUtil.h"

// What CopyFile gives for a request it cannot take (a null or relative path,
// a name of the copy that does not fit): the byte of a refused command line.
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

// A copy goes in blocks: copy_file_range is asked for at most
// COPY_KERNEL_BLOCK bytes at a time, and the read/write way moves
// COPY_BUFFER_BYTES at a time. Both are large enough that a big file costs
// few calls and small enough that a cancel is seen between two blocks within
// a fraction of a second, even on a slow stick.
#define COPY_KERNEL_BLOCK (8u << 20)
#define COPY_BUFFER_BYTES (128u << 10)

// Errors of copy_file_range that say only that this pair of files cannot be
// copied in the kernel: across file systems, FUSE volumes (the FAT adapter,
// ntfs-3g) that do not offer it, special files. The read/write way then
// takes over from where the copy stands.
bool kernel_copy_refused(int err)
{
    return err == EXDEV || err == EINVAL || err == ENOSYS || err == EOPNOTSUPP || err == EBADF ||
           err == ETXTBSY || err == EPERM;
}

// Writes all n bytes of buf to out. 0, or the errno of the failed write.
int write_all(int out, const char* buf, size_t n)
{
    while (n > 0) {
        ssize_t w = write(out, buf, n);
        if (w < 0 && errno == EINTR)
            continue;
        if (w <= 0)
            return w < 0 ? errno : EIO;
        buf += w;
        n -= static_cast<size_t>(w);
    }
    return 0;
}

// The read/write way, from the current offsets to the end of in.
int copy_by_buffer(int in, int out, const std::atomic<bool>* cancel)
{
    char* buf = static_cast<char*>(malloc(COPY_BUFFER_BYTES));
    if (buf == nullptr)
        return ENOMEM;
    int rc = 0;
    for (;;) {
        if (cancel != nullptr && cancel->load()) {
            rc = ECANCELED;
            break;
        }
        ssize_t n = read(in, buf, COPY_BUFFER_BYTES);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            rc = n < 0 ? errno : 0;
            break;
        }
        rc = write_all(out, buf, static_cast<size_t>(n));
        if (rc != 0)
            break;
    }
    free(buf);
    return rc;
}

// Copies the bytes of in to out block by block, polling cancel (may be null)
// before each block. 0, ECANCELED, or the errno of the read or write that
// failed (ENOSPC when the disk filled).
int copy_bytes(int in, int out, const std::atomic<bool>* cancel)
{
    for (;;) {
        if (cancel != nullptr && cancel->load())
            return ECANCELED;
        ssize_t n = copy_file_range(in, nullptr, out, nullptr, COPY_KERNEL_BLOCK, 0);
        if (n > 0 || (n < 0 && errno == EINTR))
            continue;
        if (n < 0 && !kernel_copy_refused(errno))
            return errno;
        // Refused, or 0: the end of the file, or a file system (proc, some
        // FUSE volumes) that gives 0 where it copies nothing. The read/write
        // way finds the true end.
        return copy_by_buffer(in, out, cancel);
    }
}

// What "cp -p" keeps besides the bytes: owner, mode and times of st, each
// where the destination's file system takes it. FAT and exFAT volumes refuse
// a mode that differs from their mount's (EPERM, ENOSYS through FUSE), NTFS
// through ntfs-3g an owner: such a refusal is only logged, the copy stands.
// The owner goes first: a chown clears set-user-ID bits that the mode then
// brings back.
void keep_attributes(int fd, const struct stat64* st, const char* dst)
{
    const struct timespec times[2] = {st->st_atim, st->st_mtim};
    bool owner = fchown(fd, st->st_uid, st->st_gid) == 0;
    bool mode = fchmod(fd, st->st_mode & 07777) == 0;
    bool stamps = futimens(fd, times) == 0;
    if (!owner || !mode || !stamps)
        SLOGD("[%s, %d] '%s' keeps its own%s%s%s\n", dst, owner ? "" : " owner", mode ? "" : " mode",
              stamps ? "" : " times");
}

// The result of a copy that failed with err, as cp's status was: 28 for a
// full disk (or quota), 24 when the process has no descriptor left, 1 for
// everything else, a cancel among them.
int copy_failure(int err)
{
    if (err == ENOSPC || err == EDQUOT)
        return ENOSPC;
    if (err == EMFILE || err == ENFILE)
        return EMFILE;
    return 1;
}

// Where the copy of src goes: inside dst when dst is a folder (as "cp f dir"
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
        return copy_file_until(path, dst, p->cancel);
    if (mkdir(dst, 0777) != 0 && errno != EEXIST) {
        int err = errno;
        SLOGW("[%s, %d] -- cannot create directory: %s(%d)", strerror(err), err);
        // A full disk is told as such, as a file that did not fit is.
        return err == ENOSPC ? ENOSPC : 1;
    }
    return 0;
}

}  // namespace

namespace {

// Opens the source for a copy. O_NONBLOCK keeps a FIFO without a writer from
// holding the thread in open; it is taken back at once, so that reads wait
// for data as cp's do. -1 with errno, or the descriptor and its status.
int open_source(const char* path, struct stat64* st)
{
    int fd = open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (fd < 0)
        return -1;
    int flags = fcntl(fd, F_GETFL);
    if (fstat64(fd, st) != 0 || flags < 0 || fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) != 0) {
        int err = errno;
        close(fd);
        errno = err;
        return -1;
    }
    if (S_ISDIR(st->st_mode)) {
        close(fd);
        errno = EISDIR;
        return -1;
    }
    // Read front to back once: a larger read-ahead, as cp asks for too, keeps
    // a cold stick busy while the copy writes.
    posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
    return fd;
}

// True when target already is the file st describes: opening it for writing
// would empty the source.
bool same_file(const char* target, const struct stat64* st)
{
    struct stat64 t;
    return stat64(target, &t) == 0 && t.st_dev == st->st_dev && t.st_ino == st->st_ino;
}

// Copies src to target, an opened source in, and gives the copy src's
// attributes. 0, or an errno (ECANCELED for a cancel). A copy that failed
// part way is removed: no file stands at target as if it were whole.
int copy_open_file(int in, const struct stat64* st, const char* target, const std::atomic<bool>* cancel)
{
    if (same_file(target, st))
        return EEXIST;
    int out = open(target, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOCTTY, st->st_mode & 0777);
    if (out < 0)
        return errno;
    int err = copy_bytes(in, out, cancel);
    if (err == 0)
        keep_attributes(out, st, target);
    // A FUSE volume may report a failed write only when the file is closed.
    if (close(out) != 0 && err == 0)
        err = errno;
    if (err != 0 && unlink(target) != 0)
        SLOGW("[%s, %d] ***W: the unfinished '%s' stays: %s\n", target, strerror(errno));
    return err;
}

}  // namespace

int copy_file_until(const char* pSrc, const char* pDst, const std::atomic<bool>* cancel)
{
    if (pSrc == nullptr || pDst == nullptr) {
        SLOGE("[%s, %d] params is null!\n");
        return COPY_RESULT_NO_LINE;
    }
    // Relative paths would name files in whatever folder the process is in.
    if (!client_path_ok(pSrc) || !client_path_ok(pDst))
        return COPY_RESULT_NO_LINE;
    char target[PATH_MAX];
    if (!copy_target(pSrc, pDst, target, sizeof(target))) {
        SLOGE("[%s, %d] ***E: no room for the name of the copy of '%s'\n", pSrc);
        return COPY_RESULT_NO_LINE;
    }
    if (is_protected(pDst) || is_protected(target))
        return COPY_RESULT_PROTECTED;
    struct stat64 st;
    int in = open_source(pSrc, &st);
    int err = in < 0 ? errno : copy_open_file(in, &st, target, cancel);
    if (in >= 0)
        close(in);
    if (err == 0)
        return 0;
    int rc = copy_failure(err);
    SLOGE("[%s, %d] -- rc=%d: %s(%d)\n", rc, strerror(err), err);
    return rc;
}

int CopyFile(const char* pSrc, const char* pDst)
{
    return copy_file_until(pSrc, pDst, nullptr);
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
