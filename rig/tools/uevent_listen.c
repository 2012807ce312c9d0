/*
 * uevent_listen: prints the kernel uevents that reach a NETLINK_KOBJECT_UEVENT
 * socket bound to group 1 in the caller's network namespace, the way the
 * storage service listens for them.
 *
 *   uevent_listen [--count N] [--timeout MS] [--match TEXT] [--ready FILE]
 *
 * Each message is printed as
 *   # portid=P uid=U
 *   ACTION@DEVPATH
 *   KEY=VALUE          (one line per NUL-terminated field)
 *   <empty line>
 * --match TEXT   only messages containing TEXT (anywhere) are printed/counted
 * --count N      exit 0 after N printed messages
 * --timeout MS   give up after MS milliseconds in total: exit 3 if fewer than
 *                N (or, without --count, zero) messages were printed
 * --ready FILE   create FILE once the socket is bound, so a caller can wait for
 *                it before causing events
 */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <linux/netlink.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#ifndef NETLINK_KOBJECT_UEVENT
#define NETLINK_KOBJECT_UEVENT 15
#endif

static long long now_ms(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (long long)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

static int contains(const char *buf, size_t len, const char *needle) {
    size_t n = strlen(needle);
    if (n == 0)
        return 1;
    for (size_t i = 0; i + n <= len; i++)
        if (memcmp(buf + i, needle, n) == 0)
            return 1;
    return 0;
}

int main(int argc, char **argv) {
    long count = -1, timeout = -1;
    const char *match = NULL, *ready = NULL;
    for (int i = 1; i < argc; i++) {
        if (strcmp(argv[i], "--count") == 0 && i + 1 < argc)
            count = strtol(argv[++i], NULL, 10);
        else if (strcmp(argv[i], "--timeout") == 0 && i + 1 < argc)
            timeout = strtol(argv[++i], NULL, 10);
        else if (strcmp(argv[i], "--match") == 0 && i + 1 < argc)
            match = argv[++i];
        else if (strcmp(argv[i], "--ready") == 0 && i + 1 < argc)
            ready = argv[++i];
        else {
            fprintf(stderr, "usage: uevent_listen [--count N] [--timeout MS] [--match TEXT] [--ready FILE]\n");
            return 2;
        }
    }

    int fd = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT);
    if (fd < 0) {
        perror("uevent_listen: socket");
        return 1;
    }
    int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_PASSCRED, &on, sizeof(on));
    int rcvbuf = 4 * 1024 * 1024;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &rcvbuf, sizeof(rcvbuf));
    struct sockaddr_nl addr = {.nl_family = AF_NETLINK, .nl_pid = 0, .nl_groups = 1};
    if (bind(fd, (struct sockaddr *)&addr, sizeof(addr)) < 0) {
        perror("uevent_listen: bind group 1");
        return 1;
    }
    if (ready) {
        int rf = open(ready, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (rf < 0) {
            perror("uevent_listen: --ready file");
            return 1;
        }
        close(rf);
    }

    setvbuf(stdout, NULL, _IOLBF, 0);
    long printed = 0;
    long long deadline = timeout >= 0 ? now_ms() + timeout : -1;
    static char buf[16384];
    char cbuf[CMSG_SPACE(sizeof(struct ucred))];
    for (;;) {
        if (count >= 0 && printed >= count)
            return 0;
        int wait_ms = -1;
        if (deadline >= 0) {
            long long left = deadline - now_ms();
            if (left <= 0)
                break;
            wait_ms = (int)left;
        }
        struct pollfd pfd = {.fd = fd, .events = POLLIN};
        int pr = poll(&pfd, 1, wait_ms);
        if (pr < 0) {
            if (errno == EINTR)
                continue;
            perror("uevent_listen: poll");
            return 1;
        }
        if (pr == 0)
            break;

        struct sockaddr_nl from;
        struct iovec iov = {.iov_base = buf, .iov_len = sizeof(buf) - 1};
        struct msghdr msg = {.msg_name = &from, .msg_namelen = sizeof(from),
                             .msg_iov = &iov, .msg_iovlen = 1,
                             .msg_control = cbuf, .msg_controllen = sizeof(cbuf)};
        ssize_t n = recvmsg(fd, &msg, 0);
        if (n < 0) {
            if (errno == EINTR || errno == ENOBUFS)
                continue;
            perror("uevent_listen: recvmsg");
            return 1;
        }
        if (match && !contains(buf, (size_t)n, match))
            continue;
        long uid = -1;
        for (struct cmsghdr *c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c))
            if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_CREDENTIALS) {
                struct ucred cred;
                memcpy(&cred, CMSG_DATA(c), sizeof(cred));
                uid = (long)cred.uid;
            }
        printf("# portid=%u uid=%ld\n", from.nl_pid, uid);
        size_t off = 0;
        while (off < (size_t)n) {
            size_t l = strnlen(buf + off, (size_t)n - off);
            if (l > 0)
                printf("%.*s\n", (int)l, buf + off);
            off += l + 1;
        }
        printf("\n");
        printed++;
    }
    if (count >= 0 ? printed < count : printed == 0)
        return 3;
    return 0;
}
