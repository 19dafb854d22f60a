/* replay_floor.c - the least a program can do to make a given series of QMI
 * requests to kvn-sim and print given bytes: the floor of a kvn command whose
 * exchanges the benchmark recorded from kvn-sim's journal. The script file
 * (argv[1]) holds records [u32 service][u32 length][packet], each a whole
 * request packet; a run of requests to one service shares one connection
 * (opened with CONNECT). A last record of service 0 holds the bytes to print.
 * Linked statically. */
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

enum { HDR = 16 };

static uint32_t get32(const uint8_t *p) { return (uint32_t)p[0] | (uint32_t)p[1] << 8 | (uint32_t)p[2] << 16 | (uint32_t)p[3] << 24; }

/* Reads one whole packet into buf (header included); its length, or -1. */
static long read_packet(int fd, uint8_t *buf, size_t cap)
{
    size_t got = 0, want = HDR;
    while (got < want) {
        ssize_t n = read(fd, buf + got, cap - got);
        if (n <= 0)
            return -1;
        got += (size_t)n;
        if (got >= HDR) {
            want = HDR + get32(buf + 12);
            if (want > cap)
                return -1;
        }
    }
    return (long)got;
}

static int open_service(const struct sockaddr_un *addr, uint32_t service, uint8_t *buf, size_t cap)
{
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd < 0 || connect(fd, (const struct sockaddr *)addr, sizeof *addr) != 0)
        return -1;
    uint8_t h[HDR] = {0x01, 1, 0xFF, 0xFF, (uint8_t)service, (uint8_t)(service >> 8), (uint8_t)(service >> 16),
                      (uint8_t)(service >> 24)};
    if (write(fd, h, HDR) != HDR || read_packet(fd, buf, cap) < 0 || buf[0] != 0x81)
        return -1;
    return fd;
}

int main(int argc, char **argv)
{
    const char *path = getenv("KVN_SIM_SOCKET");
    struct sockaddr_un addr = {.sun_family = AF_UNIX};
    if (argc != 2 || !path || strlen(path) >= sizeof addr.sun_path)
        return 1;
    strcpy(addr.sun_path, path);
    static uint8_t script[1 << 20], buf[70000];
    int sfd = open(argv[1], O_RDONLY);
    ssize_t size = sfd < 0 ? -1 : read(sfd, script, sizeof script);
    if (size < 0)
        return 1;
    close(sfd);
    int fd = -1;
    uint32_t current = 0;
    for (size_t pos = 0; pos + 8 <= (size_t)size;) {
        uint32_t service = get32(script + pos), len = get32(script + pos + 4);
        const uint8_t *p = script + pos + 8;
        if (len > (size_t)size - pos - 8)
            return 1;
        pos += 8 + len;
        if (service == 0)
            return write(1, p, len) == (ssize_t)len ? 0 : 1;
        if (service != current) {
            if (fd >= 0)
                close(fd);
            fd = open_service(&addr, service, buf, sizeof buf);
            current = service;
            if (fd < 0)
                return 1;
        }
        if (write(fd, p, len) != (ssize_t)len || read_packet(fd, buf, sizeof buf) < 0)
            return 1;
    }
    return 1;
}
