/*
 * pelmox_test_rf.cpp - command group 3, the GPIO and RF-transmit tests. Setting
 * a test sends vendor request 4 with request type 0 (GPIO) or 1 (RF transmit)
 * in a zero-filled 512-byte payload; the modem keeps the test's state in an EFS
 * file, which the get sub-commands read and the close sub-commands delete.
 */
#include "pelmox_test_rf.h"

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "pelmox_extend_cmn.h"
#include "pelmox_extend_nvefs.h"
#include "pelmox_extend_qmi.h"
#include "pelmox_shell.h"
#include "pelmox_trace.h"

#define RF_GROUP 3
#define RF_SUB_COUNT 6
#define RF_REQ_TYPE_GPIO 0
#define RF_REQ_TYPE_TX 1
#define RF_GPIO_COPY_MAX 50 /* values copied into the request */
#define RF_RSP_LEN 508      /* reply capacity of the test request */
#define RF_READ_LEN 365     /* capacity of a state-file read */

static const char k_gpio_state_file[] = "/nv/item_files/modem/pelmox/rf_ant_port_config";
static const char k_tx_state_file[] = "/nv/item_files/modem/antenna/ant_tx_config";

typedef int (*rf_op)(int argc, char *argv[]);

/* "\nnote: ..." lines are diagnostics for the person at the terminal and
 * follow the shell print flag; results print whatever it says. */
#define RF_NOTE(...)                        \
    do {                                    \
        if (pelmox_trace_shell_on())        \
            printf(__VA_ARGS__);            \
    } while (0)

static void rf_put_u32(uint8_t *p, uint32_t v)
{
    for (int i = 0; i < 4; ++i)
        p[i] = (uint8_t)(v >> (8 * i));
}

static void rf_put_u64(uint8_t *p, uint64_t v)
{
    for (int i = 0; i < 8; ++i)
        p[i] = (uint8_t)(v >> (8 * i));
}

/* Sends one test request as vendor command 4 and reports a failed send. */
static int rf_send(const uint8_t req[PELMOX_EXTEND_DATA_MAX_V01])
{
    uint8_t rsp[RF_RSP_LEN];
    int32_t rsp_len = RF_RSP_LEN;
    memset(rsp, 0, sizeof(rsp));
    int result = pelmox_extend_qmi_send_sync(PELMOX_CMN_CMD_ID, req, PELMOX_EXTEND_DATA_MAX_V01, rsp, &rsp_len);
    if (result != 0)
        puts("pelmox_extend_qmi_send_sync fail, REQUEST_ID_COMMON");
    return result;
}

/* get and close take no argument beyond the sub-command. */
static int rf_need_bare(int argc, int sub)
{
    if (argc == 3)
        return 0;
    RF_NOTE("\nnote: Cmd error, should be: kvn %d %d , Pls refer to the following cmd:\n", RF_GROUP, sub);
    return PELMOX_ERR_INVALID_ARGS;
}

/* Reads a state file and prints its bytes. */
static int rf_state_get(const char *path, int argc, int sub)
{
    int result = rf_need_bare(argc, sub);
    if (result != 0)
        return result;
    uint8_t buf[RF_READ_LEN];
    uint32_t len = sizeof(buf);
    result = pelmox_efs_read(0, path, (uint32_t)strlen(path), buf, &len);
    if (result != 0) {
        /* The text names the transport, as it always has. */
        puts("pelmox_extend_qmi_send_sync fail, REQUEST_ID_EFS");
        return result;
    }
    printf("\ndata len(%d)\ndata: ", (int)len);
    for (uint32_t i = 0; i < len; ++i)
        printf(" %02X", buf[i]);
    printf("\n");
    return 0;
}

/* Deletes a state file, which ends the test after a reboot. */
static int rf_state_close(const char *path, int argc, int sub)
{
    int result = rf_need_bare(argc, sub);
    if (result != 0)
        return result;
    result = pelmox_efs_delete(0, path, (uint32_t)strlen(path));
    if (result != 0)
        puts("pelmox_extend_qmi_send_sync fail, REQUEST_ID_EFS");
    return result;
}

/* ---- the six operations ---- */

/*
 * `kvn 3 0 v...`: the count field is argc - 3 without a cap, while at most 50
 * values follow it; with more than 50 values the count overstates what the
 * request holds. The modem reads what the count says; kept so on purpose.
 */
static int pelmox_gpio_test_set(int argc, char *argv[])
{
    puts("pelmox_gpio_test_set");
    if (argc <= 2) {
        RF_NOTE("\nnote: Too few inputs, Pls refer to the following cmd:\n");
        return PELMOX_ERR_INVALID_ARGS;
    }
    uint8_t req[PELMOX_EXTEND_DATA_MAX_V01];
    memset(req, 0, sizeof(req));
    rf_put_u32(req, RF_REQ_TYPE_GPIO);
    rf_put_u32(req + 8, (uint32_t)(argc - 3));
    int copies = argc - 3 < RF_GPIO_COPY_MAX ? argc - 3 : RF_GPIO_COPY_MAX;
    for (int i = 0; i < copies; ++i) {
        int v = atoi(argv[3 + i]);
        printf("pelmox_gpio_test_set, gpio_v[%d]: %d\n", i, v);
        rf_put_u32(req + 12 + 4 * i, (uint32_t)v);
    }
    return rf_send(req);
}

static int pelmox_gpio_test_get(int argc, char *argv[])
{
    (void)argv;
    puts("pelmox_gpio_test_get");
    return rf_state_get(k_gpio_state_file, argc, 1);
}

static int pelmox_gpio_test_closed(int argc, char *argv[])
{
    (void)argv;
    puts("pelmox_gpio_test_closed");
    return rf_state_close(k_gpio_state_file, argc, 2);
}

/* `kvn 3 3 v_ant v_sys v_band_list`: the band list is read with strtoul in
 * base 0, so "0x..." is hexadecimal, a leading 0 octal and "-1" all ones. */
static int pelmox_rf_tx_test_set(int argc, char *argv[])
{
    printf("pelmox_rf_tx_test_set, argc(%d)\n", argc);
    if (argc != 6) {
        RF_NOTE("\nnote: need %d inputs, Pls refer to the following cmd:\n", 5);
        return PELMOX_ERR_INVALID_ARGS;
    }
    int v_ant = atoi(argv[3]);
    int v_sys = atoi(argv[4]);
    unsigned long v_band_list = strtoul(argv[5], NULL, 0);
    printf(" v_ant(%d)\n", v_ant);
    printf(" v_sys(%d)\n", v_sys);
    printf(" v_band_list(%lu)\n", v_band_list);
    uint8_t req[PELMOX_EXTEND_DATA_MAX_V01];
    memset(req, 0, sizeof(req));
    rf_put_u32(req, RF_REQ_TYPE_TX);
    rf_put_u32(req + 8, (uint32_t)v_ant);
    rf_put_u32(req + 12, (uint32_t)v_sys);
    rf_put_u64(req + 16, (uint64_t)v_band_list);
    return rf_send(req);
}

static int pelmox_rf_tx_test_get(int argc, char *argv[])
{
    (void)argv;
    puts("pelmox_rf_tx_test_get");
    return rf_state_get(k_tx_state_file, argc, 4);
}

static int pelmox_rf_tx_test_closed(int argc, char *argv[])
{
    (void)argv;
    puts("pelmox_rf_tx_test_closed");
    return rf_state_close(k_tx_state_file, argc, 5);
}

/* Indexed by the sub-command. */
static const rf_op k_rf_ops[RF_SUB_COUNT] = {
    pelmox_gpio_test_set, pelmox_gpio_test_get,  pelmox_gpio_test_closed,
    pelmox_rf_tx_test_set, pelmox_rf_tx_test_get, pelmox_rf_tx_test_closed,
};

/* ---- group entry ---- */

int pelmox_test_rf_do(int argc, char *argv[])
{
    if (argc <= 1) {
        RF_NOTE("\nnote: Too few parameters, Pls refer to the following cmd:\n");
        show_help(RF_GROUP);
        return 0;
    }
    if (atoi(argv[1]) != RF_GROUP) {
        RF_NOTE("\nnote: the first parameters should be %d, Pls refer to the following cmd:\n", RF_GROUP);
        show_help(RF_GROUP);
        return 0;
    }
    if (argc <= 2) {
        RF_NOTE("\nnote: Too few parameters, Pls refer to the following cmd:\n");
        show_help(RF_GROUP);
        return 0;
    }
    /* Unsigned, so a negative sub-command is a large, invalid one. */
    uint32_t sub = (uint32_t)atoi(argv[2]);
    if (sub >= RF_SUB_COUNT) {
        RF_NOTE("\nnote: the second parameters is invalid, Pls refer to the following cmd:\n");
        show_help(RF_GROUP);
        return 0;
    }
    int result = k_rf_ops[sub](argc, argv);
    if (result != 0) {
        RF_NOTE("\nnote: Error happen! error_code(%d)\n", result);
        show_help(RF_GROUP);
    }
    return 0;
}
