#include "ClientFds.h"

#include <cerrno>
#include <fcntl.h>
#include <mutex>
#include <set>

namespace {

std::mutex g_lock;
std::set<int> g_fds;

}  // namespace

void client_fd_add(int fd)
{
    std::lock_guard<std::mutex> hold(g_lock);
    g_fds.insert(fd);
}

int client_fd_dup(int fd)
{
    std::lock_guard<std::mutex> hold(g_lock);
    if (g_fds.count(fd) == 0) {
        errno = EBADF;
        return -1;
    }
    return fcntl(fd, F_DUPFD_CLOEXEC, 0);
}

bool client_fd_remove(int fd)
{
    std::lock_guard<std::mutex> hold(g_lock);
    return g_fds.erase(fd) != 0;
}
