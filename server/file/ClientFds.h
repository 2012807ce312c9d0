// The descriptors that clients opened through the service. Only these can be
// read, written, synced and closed by client commands: the service's own
// sockets, queues and files are out of their reach.
#pragma once

void client_fd_add(int fd);
bool client_fd_known(int fd);
// Forgets fd; false if it was not a client's.
bool client_fd_remove(int fd);
