// The descriptors that clients opened through the service. Only these can be
// read, written, synced and closed by client commands: the service's own
// sockets, queues and files are out of their reach.
#pragma once

void client_fd_add(int fd);
// A duplicate of the client's descriptor fd, the caller's to use and close,
// or -1 with errno (EBADF for a number no client opened). Taken under the
// lock that LumClose takes, so a close on another thread, and the service
// opening a file of its own under the same number, never redirects a read
// or write that has passed the check.
int client_fd_dup(int fd);
// Forgets fd; false if it was not a client's.
bool client_fd_remove(int fd);
