// The tree walk of the copy engine: one directory level per call, in the
// file system's order, with the path of each entry built in the caller's
// buffer.
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <sys/stat.h>

#include "CopyEngine.h"
#include "ServiceLog.h"

namespace {

bool is_dot_entry(const char* name)
{
    return strcmp(name, ".") == 0 || strcmp(name, "..") == 0;
}

// Handles one entry whose name stands at path_end: its callbacks and, for a
// directory, the level below it. Returns the walk's result so far.
int browse_entry(char* path, char* path_end, const char* buf_end, bool recurse_first, FILE_CALLBACK callback,
                 void* context)
{
    struct stat64 st;
    if (lstat64(path, &st) != 0) {
        int err = errno;
        SLOGE("[%s, %d] ***E: cannot stat '%s': %s(%d)\n", path, strerror(err), err);
        return err;
    }
    int rc = 0;
    if (!recurse_first && (rc = callback(context, path, &st)) != 0)
        return rc;
    if (S_ISDIR(st.st_mode)) {
        // lstat64 shows a symbolic link as a link, so links are never entered.
        char* end = path_end + strlen(path_end);
        end[0] = '/';
        end[1] = '\0';
        rc = BrowseDir(path, end + 1, buf_end, recurse_first, callback, context);
        end[0] = '\0';  // the callback below sees the entry as it was named
        if (rc != 0)
            return rc;
    }
    if (recurse_first)
        rc = callback(context, path, &st);
    return rc;
}

}  // namespace

int BrowseDir(char* path, char* path_end, const char* buf_end, bool recurse_first, FILE_CALLBACK callback,
              void* context)
{
    SLOGD("[%s, %d] - browse_dir('%s', %d, %d)\n", path, static_cast<int>(buf_end - path), recurse_first);
    DIR* dir = opendir(path);
    if (dir == nullptr) {
        int err = errno;
        SLOGD("[%s, %d] opendir('%s'): failed\n", path);
        return err;
    }
    int rc = 0;
    for (;;) {
        errno = 0;
        struct dirent* entry = readdir(dir);
        if (entry == nullptr) {
            // A read error ends the walk as a failure: a tree that is copied
            // in part must not look complete.
            rc = errno;
            if (rc != 0)
                SLOGE("[%s, %d] ***E: cannot read '%s': %s(%d)\n", path, strerror(rc), rc);
            break;
        }
        const char* name = entry->d_name;
        if (is_dot_entry(name))
            continue;
        // Room for the name, a "/" behind it and the terminator.
        if (path_end + strlen(name) >= buf_end - 2) {
            SLOGE("[%s, %d] ***E: full path for '%s' too long\n", name);
            continue;
        }
        strcpy(path_end, name);  // fits: checked just above
        rc = browse_entry(path, path_end, buf_end, recurse_first, callback, context);
        if (rc != 0)
            break;
    }
    closedir(dir);
    *path_end = '\0';
    return rc;
}
