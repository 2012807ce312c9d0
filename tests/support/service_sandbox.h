// A sandbox for a process that starts the real service outside the rig: its own IPC namespace (the queue name
// is system-wide), network namespace (no kernel uevents reach it) and mount namespace with a private /tmp and
// empty kernel disk lists, so that the service never sees the machine's own disks. Without root an
// unprivileged user namespace stands in. Call it while the process is still single-threaded.
#pragma once

// Returns true when the process is inside the sandbox; LC_ALL is then C and, with privateTmp,
// LMDROID_PROPERTY_DIR names a folder of the private /tmp. Without privateTmp the process keeps the machine's
// /tmp (a daemon whose socket a parent reaches there). With unprivileged, the process enters a user namespace
// even as root, so that it keeps no privilege outside it (swapoff, /proc/kcore, sysctl writes all fail).
bool enter_service_sandbox(bool privateTmp = true, bool unprivileged = false);
