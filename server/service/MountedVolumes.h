// The volumes that this service mounted in the mount tree, each with the
// file-system type that `mount` showed for it: what a listing needs to know
// about a volume without asking a shell.
#pragma once

#include <cstddef>

// Notes mountPoint, just mounted, with its type (as `mount` shows it) and
// the device it now lies on. A point already noted takes the new type.
void mounted_volume_add(const char* mountPoint, const char* fsType);

// Forgets mountPoint after its unmount.
void mounted_volume_remove(const char* mountPoint);

// True, with the type in type (size bytes), when mountPoint was mounted by
// this service and the same volume still lies there; false for a point the
// service does not know, or one that was unmounted or mounted over behind
// its back (it is forgotten then).
bool mounted_volume_type(const char* mountPoint, char* type, size_t size);
