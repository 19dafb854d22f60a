/* floor.c - the least a program can do to read NV item 550 of subscription 0
 * from kvn-sim: one connection, CONNECT to the extend service, the same
 * 552-byte request kvn sends, and the same two lines kvn prints. Linked
 * statically; the startup benchmark measures kvn against it. */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

enum { HDR = 16, SERVICE = 0xFFE4, REQ_DATA = 512, RSP_LEN_ALL = 4, RSP_DATA = 20, RSP_DATA_MAX = 424 };

static void put16(uint8_t *p, unsigned v) { p[0] = (uint8_t)v; p[1] = (uint8_t)(v >> 8); }
static void put32(uint8_t *p, uint32_t v) { put16(p, v & 0xFFFF); put16(p + 2, v >> 16); }
static uint32_t get16(const uint8_t *p) { return (uint32_t)p[0] | (uint32_t)p[1] << 8; }
static uint32_t get32(const uint8_t *p) { return get16(p) | get16(p + 2) << 16; }

static void header(uint8_t *h, uint8_t kind, uint32_t len)
{
    memset(h, 0, HDR);
    h[0] = kind;
    h[1] = 1;
    put16(h + 2, 0xFFFF);
    put32(h + 4, SERVICE);
    put32(h + 12, len);
}

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

int main(void)
{
    const char *path = getenv("KVN_SIM_SOCKET");
    struct sockaddr_un addr = {.sun_family = AF_UNIX};
    if (!path || strlen(path) >= sizeof addr.sun_path)
        return 1;
    strcpy(addr.sun_path, path);
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd < 0 || connect(fd, (struct sockaddr *)&addr, sizeof addr) != 0)
        return 1;

    static uint8_t buf[70000];
    header(buf, 0x01, 0); /* CONNECT */
    if (write(fd, buf, HDR) != HDR || read_packet(fd, buf, sizeof buf) < 0 || buf[0] != 0x81)
        return 1;

    /* QMI message 0x0002: TLV 0x01 cmd_id 2, TLV 0x02 data_len 512, TLV 0x10
     * the 512 request bytes (op 1 = NV read, subscription 0, item 550). */
    uint8_t *q = buf + HDR, *t = q + 7;
    const uint32_t tlv_len = 7 + 7 + 3 + REQ_DATA;
    header(buf, 0x02, 7 + tlv_len);
    q[0] = 0;
    put16(q + 1, 1);
    put16(q + 3, 2);
    put16(q + 5, tlv_len);
    t[0] = 0x01; put16(t + 1, 4); put32(t + 3, 2); t += 7;
    t[0] = 0x02; put16(t + 1, 4); put32(t + 3, REQ_DATA); t += 7;
    t[0] = 0x10; put16(t + 1, REQ_DATA); memset(t + 3, 0, REQ_DATA);
    t[3] = 1;
    put16(t + 5, 550);
    const size_t total = HDR + 7 + tlv_len;
    if (write(fd, buf, total) != (ssize_t)total)
        return 1;
    long n = read_packet(fd, buf, sizeof buf);
    if (n < HDR + 7 || buf[0] != 0x02)
        return 1;

    /* The response's TLV 0x10 holds the NV reply record. */
    const uint8_t *p = buf + HDR + 7, *end = buf + n, *rsp = NULL;
    uint32_t rsp_len = 0;
    while (end - p >= 3 && (uint32_t)(end - p - 3) >= get16(p + 1)) {
        if (p[0] == 0x10) {
            rsp = p + 3;
            rsp_len = get16(p + 1);
        }
        p += 3 + get16(p + 1);
    }
    if (!rsp || rsp_len < RSP_DATA)
        return 1;
    uint32_t len = get32(rsp + RSP_LEN_ALL);
    if (len > RSP_DATA_MAX)
        len = RSP_DATA_MAX;
    if (len > rsp_len - RSP_DATA)
        len = rsp_len - RSP_DATA;
    /* The transport's debug lines kvn prints too, then the two data lines. */
    char out[4096];
    int o = snprintf(out, sizeof out,
                     "PELMOX_QMI_NV: qmi_client_get_service_list() returned 0 num_services = 1\n"
                     "qmi_client_get_service_list, err = 0, num_entries = 1, num_services = 1"
                     "qmi_client_init, err = 0, handle = %d, client_handle = 0QMI client inited\n"
                     "pelmox_extend_qmi_send_sync resp_len:%u\n"
                     "pelmox_extend_qmi_handle_req_cb result:0\n"
                     "\ndata len(%u)\ndata: ",
                     fd, rsp_len < 444 ? rsp_len : 444, len);
    for (uint32_t i = 0; i < len; ++i)
        o += snprintf(out + o, sizeof out - (size_t)o, " %02X", rsp[RSP_DATA + i]);
    out[o++] = '\n';
    return write(1, out, (size_t)o) == o ? 0 : 1;
}
