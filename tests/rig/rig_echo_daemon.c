/*
 * rig_echo_daemon: a small daemon for the rig's self-tests, standing in for
 * the storage daemon: "rig_echo_daemon --socket PATH" serves a unix stream
 * socket at PATH; for each connection it reads one line and answers
 * "<line> mnt=<its mount namespace> net=<its network namespace>\n".
 */
#define _GNU_SOURCE
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

static void ns(const char *name, char *out, size_t len) {
    char path[64];
    snprintf(path, sizeof(path), "/proc/self/ns/%s", name);
    ssize_t n = readlink(path, out, len - 1);
    out[n > 0 ? n : 0] = '\0';
}

int main(int argc, char **argv) {
    const char *path = NULL;
    for (int i = 1; i + 1 < argc; i++)
        if (strcmp(argv[i], "--socket") == 0)
            path = argv[i + 1];
    if (!path) {
        fprintf(stderr, "usage: rig_echo_daemon --socket PATH\n");
        return 2;
    }
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un addr = {.sun_family = AF_UNIX};
    if (fd < 0 || strlen(path) >= sizeof(addr.sun_path)) {
        perror("rig_echo_daemon: socket");
        return 1;
    }
    strcpy(addr.sun_path, path);
    unlink(path);
    if (bind(fd, (struct sockaddr *)&addr, sizeof(addr)) < 0 || listen(fd, 8) < 0) {
        perror("rig_echo_daemon: bind/listen");
        return 1;
    }
    char mnt[128], net[128];
    ns("mnt", mnt, sizeof(mnt));
    ns("net", net, sizeof(net));
    fprintf(stderr, "rig_echo_daemon: serving %s\n", path);
    for (;;) {
        int c = accept(fd, NULL, NULL);
        if (c < 0)
            continue;
        char line[512];
        ssize_t n = read(c, line, sizeof(line) - 1);
        if (n < 0)
            n = 0;
        line[n] = '\0';
        line[strcspn(line, "\n")] = '\0';
        char reply[1024];
        int len = snprintf(reply, sizeof(reply), "%s mnt=%s net=%s\n", line, mnt, net);
        if (write(c, reply, (size_t)len) < 0)
            perror("rig_echo_daemon: write");
        close(c);
    }
}
