// Who may talk to the daemon: root, the daemon's own user, and with a
// configured group the members of that group. The service runs commands and
// opens files with its own rights on a client's request, so everyone else is
// turned away before the daemon reads anything from them.
#pragma once

#include <sys/types.h>

namespace lumhost {

struct AuthPolicy {
    uid_t self_euid;
    bool group_set;
    gid_t group_gid;
};

struct PeerCred {
    pid_t pid;
    uid_t uid;
    gid_t gid;
};

// Reads the credentials the kernel recorded when the peer connected.
// Returns 0 or -errno.
int peer_credentials(int fd, PeerCred* out);

// True when the peer may use the daemon.
bool peer_allowed(const AuthPolicy& policy, const PeerCred& peer);

// True when gid is the peer's own group or one of the supplementary groups
// of the peer's user name in the group database.
bool user_in_group(uid_t uid, gid_t primary_gid, gid_t gid);

// Looks a group name up. Returns 0, or -ENOENT / -errno.
int resolve_group(const char* name, gid_t* out);

}  // namespace lumhost
