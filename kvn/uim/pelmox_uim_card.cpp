/*
 * pelmox_uim_card.cpp - the card commands of group 5 (status query, get,
 * set, type query, hot-swap test). They ask the modem's vendor service, not
 * the UIM service: each turns its arguments into 32-bit parameters, sends one
 * common command over vendor command 4 and prints the answer block as hex.
 * The modem does the work, the hot-swap cycling included.
 */
#include "pelmox_uim.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "pelmox_extend_cmn.h"
#include "pelmox_extend_qmi.h"
#include "pelmox_shell.h"
#include "pelmox_trace.h"

#define CARD_REQ_LEN PELMOX_EXTEND_DATA_MAX_V01 /* 512 */
#define CARD_PARAM_LEN_LIMIT 0x1EC              /* parameter blocks this long or longer go empty */
#define CARD_PARAMS_MAX 4
#define CARD_BLOCK_OFF 8                        /* the answer block: u32 type, u32 length, bytes */
#define CARD_BLOCK_HDR 8

#define CARD_TYPE_STATUS_QUERY 0x27
#define CARD_TYPE_STATUS_GET 0x37
#define CARD_TYPE_STATUS_SET 0x39
#define CARD_TYPE_TYPE_QUERY 0x38
#define CARD_TYPE_HOTSWAP 0x50

static void put_u32_le(uint8_t *p, uint32_t v)
{
    p[0] = (uint8_t)v;
    p[1] = (uint8_t)(v >> 8);
    p[2] = (uint8_t)(v >> 16);
    p[3] = (uint8_t)(v >> 24);
}

static uint32_t get_u32_le(const uint8_t *p)
{
    return (uint32_t)p[0] | (uint32_t)p[1] << 8 | (uint32_t)p[2] << 16 | (uint32_t)p[3] << 24;
}

void pelmox_cmn_dump_block(const uint8_t *rsp, int32_t received)
{
    uint32_t claimed = received >= CARD_BLOCK_OFF + CARD_BLOCK_HDR ? get_u32_le(rsp + CARD_BLOCK_OFF + 4) : 0;
    uint32_t shown = claimed + CARD_BLOCK_HDR;
    printf("\ndata len(%d)\ndata:", (int)shown);
    /* The modem's length is a claim: the dump ends with the bytes that
     * actually arrived, whatever it says. */
    uint32_t avail = received > CARD_BLOCK_OFF ? (uint32_t)received - CARD_BLOCK_OFF : 0;
    uint32_t n = shown < avail ? shown : avail;
    for (uint32_t i = 0; i < n; ++i)
        printf(" %02X", rsp[CARD_BLOCK_OFF + i]);
    printf("\n");
}

int pelmox_cmn_cmd_send(int32_t type, uint32_t length, const uint8_t *data)
{
    printf("pelmox_cmn_cmd_send, t: %d, l: %d\n", (int)type, (int)length);
    uint32_t used = (data != NULL && length < CARD_PARAM_LEN_LIMIT) ? length : 0;

    uint8_t req[CARD_REQ_LEN];
    uint8_t rsp[PELMOX_CMN_RSP_LEN];
    memset(req, 0, sizeof(req));
    memset(rsp, 0, sizeof(rsp));
    put_u32_le(req, PELMOX_CMN_MSG_REQ_TYPE);
    put_u32_le(req + 8, (uint32_t)type);
    put_u32_le(req + 12, used);
    if (used != 0)
        memcpy(req + 16, data, used);

    int32_t rsp_len = PELMOX_CMN_RSP_LEN;
    int result = pelmox_extend_qmi_send_sync(PELMOX_CMN_CMD_ID, req, sizeof(req), rsp, &rsp_len);
    uint32_t rsp_result = get_u32_le(rsp + 4);
    printf("result = %d, rsp.result = %d\n", result, (int)rsp_result);
    if (result != 0)
        printf("pelmox_extend_qmi_send_sync fail\n");
    else if (rsp_result != 0)
        printf("rsp.result fail\n");
    else
        pelmox_cmn_dump_block(rsp, rsp_len);
    return result;
}

/* Sends `count` parameters from argv[3] on: as 0/1 when `boolean`, else as
 * their atoi values. */
static int card_status_send(int32_t type, int count, int argc, char *argv[], int boolean)
{
    if (argc != count + 3) {
        printf("\nnote: need %d inputs, Pls refer to the following cmd:\n", count + 3);
        return PELMOX_ERR_INVALID_ARGS;
    }
    uint8_t params[CARD_PARAMS_MAX * 4];
    printf("param(cnt: %d):\n", count);
    for (int i = 0; i < count; ++i) {
        int v = atoi(argv[3 + i]);
        if (boolean)
            v = v != 0 ? 1 : 0;
        put_u32_le(params + 4 * i, (uint32_t)v);
        printf(" %d", v);
    }
    printf("\n");
    return pelmox_cmn_cmd_send(type, (uint32_t)count * 4, params);
}

int pelmox_cmn_card_status_cmd(int32_t type, int count, int argc, char *argv[])
{
    return card_status_send(type, count, argc, argv, 1);
}

int pelmox_cmn_card_status_cmd_ex(int32_t type, int count, int argc, char *argv[])
{
    return card_status_send(type, count, argc, argv, 0);
}

/* The handler-name line, under the shell print flag. */
static void card_name_line(const char *name)
{
    if (pelmox_trace_shell_on())
        printf("%s\n", name);
}

int pelmox_cmn_card_status_query(int argc, char *argv[])
{
    card_name_line(__func__);
    return pelmox_cmn_card_status_cmd(CARD_TYPE_STATUS_QUERY, 0, argc, argv);
}

int pelmox_cmn_card_status_get(int argc, char *argv[])
{
    card_name_line(__func__);
    return pelmox_cmn_card_status_cmd(CARD_TYPE_STATUS_GET, 1, argc, argv);
}

int pelmox_cmn_card_status_set(int argc, char *argv[])
{
    card_name_line(__func__);
    return pelmox_cmn_card_status_cmd(CARD_TYPE_STATUS_SET, 3, argc, argv);
}

int pelmox_cmn_card_type_query(int argc, char *argv[])
{
    card_name_line(__func__);
    return pelmox_cmn_card_status_cmd(CARD_TYPE_TYPE_QUERY, 0, argc, argv);
}

int pelmox_cmn_card_hotswap_test(int argc, char *argv[])
{
    if (argc <= 3) {
        printf("\nnote: need %d inputs at least, Pls refer to the following cmd:\n", 4);
        return PELMOX_ERR_INVALID_ARGS;
    }
    int opt = atoi(argv[3]);
    printf("opt: %d\n", opt);
    if (opt != 0)
        return pelmox_cmn_card_status_cmd_ex(CARD_TYPE_HOTSWAP, 4, argc, argv);
    /* Stop: one 0 parameter, whatever follows on the command line. */
    uint8_t stop[4] = {0, 0, 0, 0};
    return pelmox_cmn_cmd_send(CARD_TYPE_HOTSWAP, sizeof(stop), stop);
}
