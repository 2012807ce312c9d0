/*
 * uevent_send: injects one kernel-style uevent into the network namespace
 * the caller runs in (the rig's private one).
 *
 *   uevent_send [--direct] HEADER [KEY=VALUE ...]
 *
 * HEADER is "ACTION@DEVPATH", e.g. "add@/devices/.../block/sdb". The datagram
 * carries HEADER and each KEY=VALUE, every one NUL-terminated, exactly as the
 * kernel sends them.
 *
 * Default ("kernel" way): the message goes to the kernel's uevent socket of
 * this namespace, which re-broadcasts it to group 1 itself. Receivers then see
 * sender port id 0 (like a real kernel event) and a SEQNUM= from the kernel's
 * own counter, appended by the kernel; do not pass SEQNUM yourself.
 *
 * --direct: sendto() group 1 from this socket instead. Receivers see this
 * process's port id as sender; pass SEQNUM=... yourself if wanted. Kept as a
 * fallback for kernels without uevent injection (before 4.18).
 *
 * Needs CAP_SYS_ADMIN (kernel way) or CAP_NET_ADMIN (direct) over the network
 * namespace. Exit status: 0 sent, 1 refused by the kernel, 2 usage.
 */
#define _GNU_SOURCE
#include <errno.h>
#include <linux/netlink.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#ifndef NETLINK_KOBJECT_UEVENT
#define NETLINK_KOBJECT_UEVENT 15
#endif

enum { MAX_PAYLOAD = 8192 };

static int usage(void) {
    fprintf(stderr, "usage: uevent_send [--direct] ACTION@DEVPATH [KEY=VALUE ...]\n");
    return 2;
}

int main(int argc, char **argv) {
    int direct = 0;
    int i = 1;
    if (i < argc && strcmp(argv[i], "--direct") == 0) {
        direct = 1;
        i++;
    }
    if (i >= argc || strchr(argv[i], '@') == NULL)
        return usage();

    static char payload[MAX_PAYLOAD];
    size_t len = 0;
    for (; i < argc; i++) {
        size_t n = strlen(argv[i]) + 1;
        if (len + n > sizeof(payload)) {
            fprintf(stderr, "uevent_send: message longer than %d bytes\n", MAX_PAYLOAD);
            return 2;
        }
        memcpy(payload + len, argv[i], n);
        len += n;
    }

    int fd = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT);
    if (fd < 0) {
        perror("uevent_send: socket");
        return 1;
    }
    struct sockaddr_nl self = {.nl_family = AF_NETLINK};
    if (bind(fd, (struct sockaddr *)&self, sizeof(self)) < 0) {
        perror("uevent_send: bind");
        return 1;
    }

    if (direct) {
        struct sockaddr_nl dst = {.nl_family = AF_NETLINK, .nl_pid = 0, .nl_groups = 1};
        if (sendto(fd, payload, len, 0, (struct sockaddr *)&dst, sizeof(dst)) < 0) {
            perror("uevent_send: sendto group 1");
            return 1;
        }
        close(fd);
        return 0;
    }

    /* Kernel way: one netlink message addressed to the kernel (port 0),
     * asking for an acknowledgement so refusals are reported. */
    static char buf[NLMSG_HDRLEN + MAX_PAYLOAD];
    struct nlmsghdr *nh = (struct nlmsghdr *)buf;
    memset(nh, 0, NLMSG_HDRLEN);
    nh->nlmsg_len = (unsigned)(NLMSG_HDRLEN + len);
    nh->nlmsg_type = NLMSG_MIN_TYPE;
    nh->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
    nh->nlmsg_seq = 1;
    memcpy(buf + NLMSG_HDRLEN, payload, len);

    struct sockaddr_nl kernel = {.nl_family = AF_NETLINK};
    if (sendto(fd, buf, nh->nlmsg_len, 0, (struct sockaddr *)&kernel, sizeof(kernel)) < 0) {
        perror("uevent_send: sendto kernel");
        return 1;
    }
    struct timeval tv = {.tv_sec = 2};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
    char ack[NLMSG_SPACE(sizeof(struct nlmsgerr)) + MAX_PAYLOAD];
    ssize_t n = recv(fd, ack, sizeof(ack), 0);
    if (n < 0) {
        perror("uevent_send: no acknowledgement from the kernel");
        return 1;
    }
    struct nlmsghdr *rh = (struct nlmsghdr *)ack;
    if (n >= (ssize_t)NLMSG_HDRLEN && rh->nlmsg_type == NLMSG_ERROR) {
        struct nlmsgerr *err = (struct nlmsgerr *)NLMSG_DATA(rh);
        if (err->error != 0) {
            fprintf(stderr, "uevent_send: kernel refused the uevent: %s\n", strerror(-err->error));
            return 1;
        }
    }
    close(fd);
    return 0;
}
