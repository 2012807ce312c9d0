// Persistent properties. A value is written to a temporary file in the same
// directory, flushed, and renamed over the key's file; the directory is then
// flushed so that the rename itself survives a power cut. Readers open the
// key's file afresh each time, so a value set by another process is seen at
// once, and a reader never meets a half-written file.
//
// Temporary files are named ".tmp-<pid>-<nonce>-<seq>". A process killed
// mid-write leaves one behind; the next write that finds no other write under
// way removes them all. Each write holds a shared flock on the directory from
// before its temporary file exists until it is renamed or removed; a write
// that gets the lock exclusively knows that every temporary file there has
// lost its writer. The kernel drops a killed writer's lock as the process
// ends, before it is reaped, so neither a zombie nor a pid that another
// process took since keeps a leftover alive.

#include "property_file.h"

#include <cutils/properties.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace lmdroid {

namespace {

constexpr char kDefaultDir[] = "/var/lib/lmdroid/property";
constexpr char kTempPrefix[] = ".tmp-";

const char* property_dir() {
    const char* dir = getenv("LMDROID_PROPERTY_DIR");
    return (dir != nullptr && dir[0] != '\0') ? dir : kDefaultDir;
}

// Tells this process's temporary files from those a previous process with
// the same pid left behind.
unsigned long long process_nonce() {
    static const unsigned long long nonce = [] {
        struct timespec ts;
        clock_gettime(CLOCK_REALTIME, &ts);
        return static_cast<unsigned long long>(ts.tv_sec) * 1000000000ULL +
               static_cast<unsigned long long>(ts.tv_nsec);
    }();
    return nonce;
}

// mkdir -p, new directories with mode 0700.
bool make_dirs(const char* dir) {
    char path[PATH_MAX];
    int n = snprintf(path, sizeof path, "%s", dir);
    if (n <= 0 || static_cast<size_t>(n) >= sizeof path) return false;
    for (char* p = path + 1; *p != '\0'; ++p) {
        if (*p != '/') continue;
        *p = '\0';
        if (mkdir(path, 0700) != 0 && errno != EEXIST) return false;
        *p = '/';
    }
    return mkdir(path, 0700) == 0 || errno == EEXIST;
}

int open_dir(bool create) {
    const char* dir = property_dir();
    if (create && !make_dirs(dir)) return -1;
    return open(dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
}

bool write_all(int fd, const char* buf, size_t len) {
    while (len > 0) {
        ssize_t n = ::write(fd, buf, len);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        buf += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

// Removes every temporary file in the directory; the caller holds the
// directory's lock exclusively, so none has a writer left.
void sweep_temps(int dfd) {
    int fd = dup(dfd);
    if (fd < 0) return;
    DIR* d = fdopendir(fd);
    if (d == nullptr) {
        close(fd);
        return;
    }
    while (struct dirent* e = readdir(d)) {
        if (strncmp(e->d_name, kTempPrefix, sizeof kTempPrefix - 1) == 0) unlinkat(dfd, e->d_name, 0);
    }
    closedir(d);
}

// Takes the directory's lock for one write: exclusively first when no other
// write is under way, to sweep the leftovers, then shared for the write.
bool lock_for_write(int dfd) {
    if (flock(dfd, LOCK_EX | LOCK_NB) == 0) sweep_temps(dfd);
    while (flock(dfd, LOCK_SH) != 0) {
        if (errno != EINTR) return false;
    }
    return true;
}

}  // namespace

int persist_read(const char* key, char* value) {
    int dfd = open_dir(false);
    if (dfd < 0) return -1;
    int fd = openat(dfd, key, O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    close(dfd);
    if (fd < 0) return -1;
    // One byte more than a value may hold, to notice a file that is too long.
    char buf[PROPERTY_VALUE_MAX + 1];
    size_t got = 0;
    while (got < sizeof buf) {
        ssize_t n = ::read(fd, buf + got, sizeof buf - got);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            close(fd);
            return -1;
        }
        if (n == 0) break;
        got += static_cast<size_t>(n);
    }
    close(fd);
    if (got >= PROPERTY_VALUE_MAX) return -1;
    memcpy(value, buf, got);
    value[got] = '\0';
    return static_cast<int>(strlen(value));
}

int persist_write(const char* key, const char* value) {
    static std::atomic<unsigned> seq{0};
    int dfd = open_dir(true);
    if (dfd < 0) return -1;
    // The lock goes with the descriptor, at the close below.
    if (!lock_for_write(dfd)) {
        close(dfd);
        return -1;
    }

    char tmp[64];
    snprintf(tmp, sizeof tmp, "%s%d-%llx-%u", kTempPrefix, static_cast<int>(getpid()),
             process_nonce(), seq.fetch_add(1));
    int fd = openat(dfd, tmp, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) {
        close(dfd);
        return -1;
    }
    bool ok = write_all(fd, value, strlen(value)) && fsync(fd) == 0;
    ok = close(fd) == 0 && ok;
    ok = ok && renameat(dfd, tmp, dfd, key) == 0;
    if (!ok) unlinkat(dfd, tmp, 0);
    ok = ok && fsync(dfd) == 0;
    close(dfd);
    return ok ? 0 : -1;
}

}  // namespace lmdroid
