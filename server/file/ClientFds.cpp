#include "ClientFds.h"

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

bool client_fd_known(int fd)
{
    std::lock_guard<std::mutex> hold(g_lock);
    return g_fds.count(fd) != 0;
}

bool client_fd_remove(int fd)
{
    std::lock_guard<std::mutex> hold(g_lock);
    return g_fds.erase(fd) != 0;
}
