// Client paths in the shell lines of the file operations.
#pragma once

#include <cstddef>

// Only absolute paths are taken from clients: a relative one would name a
// file in whatever working directory the process has (a listing changes it
// while it runs on the service thread), and a name like "-rf" would reach rm
// as options. False, with a warning, for a null or relative path; the
// operations answer it as a failed command, before they look at the file.
bool client_path_ok(const char* path);

// Makes an absolute client path one literal word for a double-quoted place
// of a shell line (shell_escape_dq), so a hostile name acts on the named file
// only and runs nothing. Returns true with out filled; false when the path
// is not client_path_ok or its escaped form does not fit outSize bytes: out
// is empty, a warning names the path, and the caller counts the command as
// failed.
bool quote_client_path(const char* path, char* out, size_t outSize);
