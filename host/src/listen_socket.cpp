// The listening socket file: created under a umask so it is never open to
// others, even for a moment, then given its final mode and group.
#include <cerrno>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "host_log.h"
#include "lumhost/server.h"

namespace lumhost {

namespace {

constexpr int kBacklog = 64;

int fill_address(const std::string& path, sockaddr_un* addr)
{
    *addr = sockaddr_un{};
    addr->sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof(addr->sun_path)) {
        HOST_LOG(ERROR, "socket path of %zu bytes does not fit (1..%zu)", path.size(),
                 sizeof(addr->sun_path) - 1);
        return -ENAMETOOLONG;
    }
    memcpy(addr->sun_path, path.c_str(), path.size() + 1);
    return 0;
}

// An existing directory keeps its rights; with a group configured, say so
// when members of the group cannot reach the socket through it.
int warn_if_closed(const std::string& dir, const AuthPolicy& policy)
{
    struct stat st;
    if (!policy.group_set || stat(dir.c_str(), &st) != 0)
        return 0;
    bool group_can = st.st_gid == policy.group_gid && (st.st_mode & S_IXGRP) != 0;
    if (!group_can && (st.st_mode & S_IXOTH) == 0)
        HOST_LOG(WARN, "%s: members of the group cannot enter this directory", dir.c_str());
    return 0;
}

// Creates the socket's directory when it is missing: 0700, or 0750 owned by
// the group when one is configured. An existing directory is left as it is.
int ensure_directory(const std::string& path, const AuthPolicy& policy)
{
    size_t slash = path.rfind('/');
    if (slash == std::string::npos || slash == 0)
        return 0;
    std::string dir = path.substr(0, slash);
    mode_t mode = policy.group_set ? 0750 : 0700;
    if (mkdir(dir.c_str(), mode) != 0) {
        if (errno == EEXIST)
            return warn_if_closed(dir, policy);
        int err = errno;
        HOST_LOG(ERROR, "mkdir %s: %s", dir.c_str(), strerror(err));
        return -err;
    }
    if (policy.group_set && chown(dir.c_str(), static_cast<uid_t>(-1), policy.group_gid) != 0) {
        int err = errno;
        HOST_LOG(ERROR, "chown %s: %s", dir.c_str(), strerror(err));
        return -err;
    }
    return 0;
}

// Removes a socket file nobody listens on. A live socket or a file of
// another kind stays, and the daemon does not start.
int clear_stale(const std::string& path, const sockaddr_un& addr)
{
    struct stat st;
    if (lstat(path.c_str(), &st) != 0)
        return errno == ENOENT ? 0 : -errno;
    if (!S_ISSOCK(st.st_mode)) {
        HOST_LOG(ERROR, "%s exists and is not a socket", path.c_str());
        return -EEXIST;
    }
    int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (probe < 0)
        return -errno;
    int rc = connect(probe, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr));
    int err = errno;
    close(probe);
    if (rc == 0) {
        HOST_LOG(ERROR, "%s: another daemon listens there", path.c_str());
        return -EADDRINUSE;
    }
    if (err != ECONNREFUSED)
        return -err;
    HOST_LOG(INFO, "removing stale socket %s", path.c_str());
    return unlink(path.c_str()) == 0 ? 0 : -errno;
}

int bind_private(int fd, const sockaddr_un& addr)
{
    mode_t old = umask(0177);
    int rc = bind(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr));
    int err = errno;
    umask(old);
    return rc == 0 ? 0 : -err;
}

int set_final_mode(const std::string& path, const AuthPolicy& policy)
{
    if (policy.group_set && chown(path.c_str(), static_cast<uid_t>(-1), policy.group_gid) != 0)
        return -errno;
    return chmod(path.c_str(), policy.group_set ? 0660 : 0600) == 0 ? 0 : -errno;
}

int make_policy(const HostConfig& config, AuthPolicy* policy)
{
    policy->self_euid = geteuid();
    policy->group_set = !config.group.empty();
    policy->group_gid = 0;
    if (!policy->group_set)
        return 0;
    int rc = resolve_group(config.group.c_str(), &policy->group_gid);
    if (rc != 0)
        HOST_LOG(ERROR, "unknown group %s", config.group.c_str());
    return rc;
}

int open_bound(const std::string& path, const sockaddr_un& addr, const AuthPolicy& policy)
{
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -errno;
    int rc = bind_private(fd, addr);
    if (rc == 0 && (rc = set_final_mode(path, policy)) != 0)
        unlink(path.c_str());
    if (rc == 0 && listen(fd, kBacklog) != 0) {
        rc = -errno;
        unlink(path.c_str());
    }
    if (rc != 0) {
        HOST_LOG(ERROR, "%s: %s", path.c_str(), strerror(-rc));
        close(fd);
        return rc;
    }
    return fd;
}

}  // namespace

int host_listen(const HostConfig& config, ListenSocket* out)
{
    sockaddr_un addr;
    AuthPolicy policy;
    int rc = fill_address(config.socket_path, &addr);
    if (rc == 0)
        rc = make_policy(config, &policy);
    if (rc == 0)
        rc = ensure_directory(config.socket_path, policy);
    if (rc == 0)
        rc = clear_stale(config.socket_path, addr);
    if (rc != 0)
        return rc;
    int fd = open_bound(config.socket_path, addr, policy);
    if (fd < 0)
        return fd;
    out->fd = fd;
    out->path = config.socket_path;
    out->policy = policy;
    return 0;
}

}  // namespace lumhost
