/*
 * pelmox_test_at_cmd.cpp - command group 8. The command goes to the AT channel
 * by a shell line run through system(); a receiver thread is started for the
 * reply. The channel descriptor the receiver reads is never opened by this
 * tool, so the receiver always reports the channel as closed; the reply is
 * left to whoever reads the channel.
 *
 * The shell line is built so that nothing typed is ever run: a command holding
 * a character the shell or its echo would interpret is written with printf and
 * single quotes instead of echo and double quotes.
 */
#include "pelmox_test_at_cmd.h"

#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <pelmox_device.h>

#include "pelmox_shell.h"
#include "pelmox_trace.h"

#define AT_GROUP 8
#define AT_CMD_TEXT_MAX 100  /* longest argument accepted */
#define AT_CMD_BUF_LEN 105   /* the parsed command */
#define AT_LINE_LEN 501      /* the shell line, terminator included */
#define AT_PATH_LEN 64       /* the device path, terminator included */
#define AT_RX_BUF_LEN 512    /* one read of the receiver */

/* The AT channel as the handset names it. */
static const char k_at_dev[] = "/dev/smd8";

/* Module state, shared by the command thread and the receiver. */
static struct {
    int serial_fd;            /* g_at_serial_fd: the channel descriptor; 0 = not open */
    int done;                 /* set by the receiver when it ends (atomic access) */
    char rx[AT_RX_BUF_LEN];   /* the receiver's read buffer */
} s_at = {0, 0, {0}};

#define AT_NOTE(...)                    \
    do {                                \
        if (pelmox_trace_shell_on())    \
            printf(__VA_ARGS__);        \
    } while (0)

/* ---- the shell line ---- */

/* Appends src to dst (capacity cap) as far as it fits, always terminated. */
static void at_append(char *dst, size_t cap, const char *src)
{
    size_t used = strlen(dst);
    if (used + 1 >= cap)
        return;
    size_t n = strlen(src);
    if (n > cap - 1 - used)
        n = cap - 1 - used;
    memcpy(dst + used, src, n);
    dst[used + n] = '\0';
}

/* Characters that mean something inside double quotes or to echo. */
static int at_needs_quoting(const char *command)
{
    return strpbrk(command, "\"$`\\") != NULL;
}

int pelmox_test_at_cmd_build_line(const char *command, const char *dev_path, char *line, size_t line_len)
{
    if (!command || !dev_path || !line || line_len == 0)
        return -1;
    line[0] = '\0';
    if (!at_needs_quoting(command)) {
        /* Nothing here is special to the shell; four bounded appends. */
        at_append(line, line_len, "echo \"");
        at_append(line, line_len, command);
        at_append(line, line_len, "\r\" > ");
        at_append(line, line_len, dev_path);
        return (int)strlen(line);
    }
    /* printf's %s takes its argument as data, and inside single quotes the
     * shell interprets nothing; a single quote is closed, escaped, reopened. */
    size_t need = strlen("printf '%s\\r\\n' '") + strlen("' > ") + strlen(dev_path) + 1;
    for (const char *p = command; *p; ++p)
        need += *p == '\'' ? 4 : 1;
    if (need > line_len)
        return -1;
    size_t pos = 0;
    pos += (size_t)sprintf(line + pos, "printf '%%s\\r\\n' '");
    for (const char *p = command; *p; ++p) {
        if (*p == '\'') {
            memcpy(line + pos, "'\\''", 4);
            pos += 4;
        } else {
            line[pos++] = *p;
        }
    }
    pos += (size_t)sprintf(line + pos, "' > %s", dev_path);
    return (int)pos;
}

/* Writes the command to the AT channel through the shell. */
static void pelmox_test_at_cmd_send(const char *command)
{
    char path[AT_PATH_LEN];
    char line[AT_LINE_LEN];
    (void)pelmox_device_path(k_at_dev, path, sizeof(path)); /* a failing path when absent */
    int rc = -1;
    if (pelmox_test_at_cmd_build_line(command, path, line, sizeof(line)) >= 0) {
        printf("at shell cmd: %s\n", line);
        fflush(stdout); /* what was printed comes before what the shell says */
        rc = system(line);
    }
    printf("echo, ret_sys: %d\n", rc);
    puts(rc == 0 ? "Success to send at shell cmd" : "Fail to send at shell cmd");
}

/* ---- the receiver ---- */

static void *pelmox_test_at_cmd_receive(void *arg)
{
    (void)arg;
    puts("The thread to receive data from serial is started");
    int fd = __atomic_load_n(&s_at.serial_fd, __ATOMIC_ACQUIRE);
    if (fd < 1) {
        printf("The at channel is not opened, g_at_serial_fd %d\n", fd);
    } else {
        ssize_t n = read(fd, s_at.rx, sizeof(s_at.rx) - 1);
        if (n >= 1) {
            s_at.rx[n] = '\0';
            printf("Receive the AT reponse: len(%d)\n", (int)n);
            puts(s_at.rx);
        } else {
            printf("Failed to receive bytes from server");
        }
    }
    __atomic_store_n(&s_at.done, 1, __ATOMIC_RELEASE);
    return NULL;
}

/* ---- group entry ---- */

int pelmox_test_at_cmd_do(int argc, char *argv[])
{
    int failed = 1;
    pthread_t receiver;
    char command[AT_CMD_BUF_LEN];
    memset(command, 0, sizeof(command));

    if (argc != 3) {
        AT_NOTE("\nnote: The number of inputs should be 2, Pls refer to the following cmd:\n");
    } else if (atoi(argv[1]) != AT_GROUP) {
        AT_NOTE("\nnote: the first parameters should be %d, Pls refer to the following cmd:\n", AT_GROUP);
    } else if (strlen(argv[2]) > AT_CMD_TEXT_MAX) {
        AT_NOTE("\nnote: the second parameters length should <= %d, Pls refer to the following cmd:\n",
                AT_CMD_TEXT_MAX);
    } else {
        /* The command ends at the first white space. */
        int scanned = sscanf(argv[2], "%104s\r", command);
        printf("At cmd you input: sscanf(%d), len (%d), %s\n", scanned, (int)strlen(command), command);
        puts("Will create a thread to receive data from serial");
        if (pthread_create(&receiver, NULL, pelmox_test_at_cmd_receive, NULL) != 0) {
            printf("Fail to create a thread");
        } else {
            pelmox_test_at_cmd_send(command);
            while (!__atomic_load_n(&s_at.done, __ATOMIC_ACQUIRE))
                sleep(1);
            pthread_join(receiver, NULL);
            failed = 0;
        }
    }
    if (s_at.serial_fd >= 1) {
        printf("Will close channel: %s\n", k_at_dev);
        close(s_at.serial_fd);
        s_at.serial_fd = 0;
    }
    __atomic_store_n(&s_at.done, 0, __ATOMIC_RELAXED);
    if (failed)
        show_help(AT_GROUP);
    return 0;
}
