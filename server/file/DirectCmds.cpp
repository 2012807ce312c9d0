// The direct primitives of the hub: a shell command with or without its
// output, and chmod, open, close, read, write and syncfs in the service's
// process. They run on the caller's thread and send no event; errno travels
// out through pErr.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ClientFds.h"
#include "ServiceLog.h"
#include "ShellProbe.h"
#include "StorageManagerService.h"

#define SYSTEM_CMD_MAX 512       // the command of systemCmd(pCmd, len), terminator included
#define SYSTEM_CMD_OUTPUT_MAX 1024  // captured output of systemCmd(pCmd, str)

namespace {

void set_err(int* pErr, int value)
{
    if (pErr != nullptr)
        *pErr = value;
}

const char* shown(const char* path)
{
    return path != nullptr ? path : "(null)";
}

// Runs use on a private duplicate of the client's descriptor fd and gives
// its result, with the errno it left; -1 and EBADF for a number that is no
// client's.
template <typename Use>
int on_client_fd(int fd, Use use)
{
    int own = client_fd_dup(fd);
    if (own < 0)
        return -1;
    int ret = use(own);
    int err = errno;
    close(own);
    errno = err;
    return ret;
}

}  // namespace

// Runs the first len bytes of pCmd (up to its terminator) as they are: the
// text is the command, never a format. Returns call_system's result; -1 for a
// negative len, one of 512 or more, or a missing command.
int StorageManagerService::systemCmd(const char* pCmd, int len)
{
    if (len >= SYSTEM_CMD_MAX) {
        SLOGE("[%s, %d] cmd len = %d > MAX(%d)\n", len, SYSTEM_CMD_MAX);
        return -1;
    }
    if (len < 0 || pCmd == nullptr) {
        SLOGE("[%s, %d] ***E: no command (len = %d)\n", len);
        return -1;
    }
    char cmd[SYSTEM_CMD_MAX];
    size_t n = strnlen(pCmd, static_cast<size_t>(len));
    memset(cmd, 0, static_cast<size_t>(len) + 1);
    memcpy(cmd, pCmd, n);
    return call_system("%s", cmd);
}

// Runs pCmd and keeps the first 1024 bytes of its standard output, up to
// their first NUL, in str. Returns the bytes read, -1 when the command could
// not start. The command's exit status is not looked at.
int StorageManagerService::systemCmd(const char* pCmd, std::string& str)
{
    if (pCmd == nullptr)
        return -1;
    SLOGD("[%s, %d] cmd: %s\n", pCmd);
    char* copy = strdup(pCmd);
    if (copy == nullptr) {
        SLOGE("[%s, %d] malloc failed!\n");
        return -1;
    }
    SLOGD("[%s, %d] cmd: %s, length: %d\n", copy, static_cast<int>(strlen(copy)));
    // Through the shell layer rather than popen: the command is bounded in
    // time like every other, and its shell leads a process group of its own.
    char ram[SYSTEM_CMD_OUTPUT_MAX + 1] = {0};
    int n = call_system_output(copy, ram, SYSTEM_CMD_OUTPUT_MAX);
    free(copy);
    if (n < 0) {
        SLOGE("[%s, %d] fp is NULL!\n");
        return -1;
    }
    str = ram;
    return n;
}

int StorageManagerService::LumChmod(const char* pPath, mode_t mode, int len, int* pErr)
{
    char* path = len >= 0 ? static_cast<char*>(malloc(static_cast<size_t>(len) + 1)) : nullptr;
    int allocErr = path == nullptr && len >= 0 ? errno : EINVAL;
    SLOGI("[%s, %d] len:%d pPath:%s\n", len, shown(pPath));
    if (path == nullptr || pPath == nullptr) {
        set_err(pErr, allocErr);
        SLOGE("[%s, %d] malloc failed or pPath is NULL!\n");
        free(path);
        return -1;
    }
    // len is the hub's strlen; a shorter path ends at its terminator.
    size_t n = strnlen(pPath, static_cast<size_t>(len));
    memcpy(path, pPath, n);
    path[n] = '\0';
    int ret = chmod(path, mode);
    if (ret == 0)
        errno = 0;
    set_err(pErr, errno);
    SLOGI("[%s, %d] chmod path: %s 0x%x, return: %d (%s)\n", path, static_cast<unsigned>(mode), ret, strerror(errno));
    free(path);
    return ret;
}

// The descriptor belongs to the service's process and would otherwise be
// inherited by every shell it starts; close-on-exec keeps the client's file
// out of them. Only descriptors opened here are taken by the commands below.
int StorageManagerService::LumOpen(const char* pPath, int flags, mode_t mode, int* pErr)
{
    int fd = open(pPath, flags | O_CLOEXEC, mode);
    set_err(pErr, errno);
    if (fd >= 0)
        client_fd_add(fd);
    SLOGI("[%s, %d] open %s, return %d(%s)", shown(pPath), fd, strerror(errno));
    return fd;
}

int StorageManagerService::LumClose(int fd, int* pErr)
{
    int ret = -1;
    errno = EBADF;
    if (client_fd_remove(fd))
        ret = close(fd);
    set_err(pErr, errno);
    SLOGI("[%s, %d] close %d, return %d(%s)", fd, ret, strerror(errno));
    return ret;
}

int StorageManagerService::LumRead(int fd, void* pBuf, size_t bytes, int* pErr)
{
    int ret = on_client_fd(fd, [&](int own) { return static_cast<int>(read(own, pBuf, bytes)); });
    set_err(pErr, errno);
    SLOGI("[%s, %d] read %d, return %d(%s)", fd, ret, strerror(errno));
    return ret;
}

int StorageManagerService::LumWrite(int fd, void* pBuf, size_t bytes, int* pErr)
{
    int ret = on_client_fd(fd, [&](int own) { return static_cast<int>(write(own, pBuf, bytes)); });
    set_err(pErr, errno);
    SLOGI("[%s, %d] write %d, return %d\n", fd, ret);
    return ret;
}

int StorageManagerService::LumSync(int fd)
{
    return on_client_fd(fd, [](int own) { return syncfs(own); });
}
