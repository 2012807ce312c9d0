// Peer checks on SO_PEERCRED. Group membership goes through the user and
// group databases with bounded buffers.
#include "lumhost/peer_auth.h"

#include <cerrno>
#include <grp.h>
#include <pwd.h>
#include <sys/socket.h>
#include <vector>

#include "host_log.h"

namespace lumhost {

namespace {

constexpr size_t kDbBufStart = 4096;
constexpr size_t kDbBufMax = 1024 * 1024;
constexpr int kMaxGroups = 65536;

// Name of the user with this uid; false when there is none.
bool user_name(uid_t uid, std::vector<char>* buf, passwd* pw)
{
    for (size_t size = kDbBufStart; size <= kDbBufMax; size *= 2) {
        buf->resize(size);
        passwd* found = nullptr;
        int rc = getpwuid_r(uid, pw, buf->data(), buf->size(), &found);
        if (rc == ERANGE)
            continue;
        return rc == 0 && found != nullptr;
    }
    return false;
}

bool list_has(const std::vector<gid_t>& groups, int count, gid_t gid)
{
    for (int i = 0; i < count; ++i) {
        if (groups[static_cast<size_t>(i)] == gid)
            return true;
    }
    return false;
}

}  // namespace

int peer_credentials(int fd, PeerCred* out)
{
    ucred cred{};
    socklen_t len = sizeof(cred);
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0)
        return -errno;
    out->pid = cred.pid;
    out->uid = cred.uid;
    out->gid = cred.gid;
    return 0;
}

bool user_in_group(uid_t uid, gid_t primary_gid, gid_t gid)
{
    if (primary_gid == gid)
        return true;
    std::vector<char> buf;
    passwd pw{};
    if (!user_name(uid, &buf, &pw))
        return false;
    int count = 64;
    std::vector<gid_t> groups;
    for (int round = 0; round < 2; ++round) {
        groups.resize(static_cast<size_t>(count));
        int want = count;
        if (getgrouplist(pw.pw_name, pw.pw_gid, groups.data(), &want) >= 0)
            return list_has(groups, want, gid);
        if (want <= count || want > kMaxGroups)
            return false;
        count = want;
    }
    return false;
}

bool peer_allowed(const AuthPolicy& policy, const PeerCred& peer)
{
    if (peer.uid == 0 || peer.uid == policy.self_euid)
        return true;
    return policy.group_set && user_in_group(peer.uid, peer.gid, policy.group_gid);
}

int resolve_group(const char* name, gid_t* out)
{
    std::vector<char> buf;
    for (size_t size = kDbBufStart; size <= kDbBufMax; size *= 2) {
        buf.resize(size);
        group gr{};
        group* found = nullptr;
        int rc = getgrnam_r(name, &gr, buf.data(), buf.size(), &found);
        if (rc == ERANGE)
            continue;
        if (rc != 0) {
            HOST_LOG(ERROR, "group %s: lookup failed, errno %d", name, rc);
            return -rc;
        }
        if (found == nullptr)
            return -ENOENT;
        *out = gr.gr_gid;
        return 0;
    }
    return -ERANGE;
}

}  // namespace lumhost
