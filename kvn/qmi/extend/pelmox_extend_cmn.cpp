/*
 * pelmox_extend_cmn.cpp - framings of vendor command 4 and the raw vendor
 * message command (group 6). The framings own only the header of the payload;
 * the bytes after it and the reply layout belong to their callers.
 */
#include "pelmox_extend_cmn.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "pelmox_conv.h"
#include "pelmox_extend_qmi.h"
#include "pelmox_shell.h"
#include "pelmox_trace.h"

static const char k_trace_src[] = "proprietary/modem/hal/qmi/pelmox_extend_cmn";

#define CMN_PAYLOAD_LEN PELMOX_EXTEND_DATA_MAX_V01
#define CMN_GROUP 6
#define CMN_QMI_ID_MAX 6      /* commands 0 to 5 may be sent by hand */
#define CMN_SEND_DATA_MAX 500 /* data arguments converted at most */

static void put_u32_le(uint8_t *p, uint32_t v)
{
    p[0] = (uint8_t)v;
    p[1] = (uint8_t)(v >> 8);
    p[2] = (uint8_t)(v >> 16);
    p[3] = (uint8_t)(v >> 24);
}

/* ---- framings of command 4 ---- */

int pelmox_common_qmi_req(uint32_t t, uint32_t l, const uint8_t *v, uint8_t *rsp)
{
    uint8_t payload[CMN_PAYLOAD_LEN];
    int result = PELMOX_ERR_INVALID_ARGS;

    PELMOX_TRACE(k_trace_src, "function entry ------------->");
    if (!rsp) {
        PELMOX_TRACE(k_trace_src, "rsp is NULL");
        goto exit;
    }
    if (l > PELMOX_CMN_REQ_VALUE_MAX) {
        PELMOX_TRACE(k_trace_src, "l is out of range");
        goto exit;
    }
    memset(payload, 0, sizeof(payload));
    memset(rsp, 0, PELMOX_CMN_RSP_LEN);
    if (l != 0) {
        if (!v) {
            PELMOX_TRACE(k_trace_src, "v is null");
            goto exit;
        }
        memcpy(payload + 8, v, l);
    }
    /* The length field at offset 4 stays zero: the modem side of this
     * request type does not read it. */
    put_u32_le(payload, t);
    {
        int32_t rsp_len = PELMOX_CMN_RSP_LEN;
        result = pelmox_extend_qmi_send_sync(PELMOX_CMN_CMD_ID, payload, sizeof(payload), rsp, &rsp_len);
    }
exit:
    PELMOX_TRACE(k_trace_src, "function exit <-------------");
    return result;
}

int pelmox_send_common_qmi_msg(uint32_t t, uint32_t l, const uint8_t *v, uint8_t *rsp)
{
    uint8_t payload[CMN_PAYLOAD_LEN];
    int result = PELMOX_ERR_INVALID_ARGS;

    PELMOX_TRACE(k_trace_src, "function entry ------------->");
    if (!rsp) {
        PELMOX_TRACE(k_trace_src, "rsp is NULL");
        goto exit;
    }
    memset(payload, 0, sizeof(payload));
    memset(rsp, 0, PELMOX_CMN_RSP_LEN);
    put_u32_le(payload + 8, t);
    PELMOX_TRACE(k_trace_src, "t %d", (int)t);
    PELMOX_TRACE(k_trace_src, "l %d", (int)l);
    if (l > PELMOX_CMN_MSG_VALUE_MAX) {
        PELMOX_TRACE(k_trace_src, "l is out of range");
        goto exit;
    }
    put_u32_le(payload + 12, l);
    if (l != 0) {
        if (!v) {
            PELMOX_TRACE(k_trace_src, "v is null");
            goto exit;
        }
        memcpy(payload + 16, v, l);
    }
    put_u32_le(payload, PELMOX_CMN_MSG_REQ_TYPE);
    {
        int32_t rsp_len = PELMOX_CMN_RSP_LEN;
        result = pelmox_extend_qmi_send_sync(PELMOX_CMN_CMD_ID, payload, sizeof(payload), rsp, &rsp_len);
    }
exit:
    PELMOX_TRACE(k_trace_src, "function exit <-------------");
    return result;
}

/* ---- group 6: raw vendor message ---- */

/* The group's notes are diagnostics: printed only under the shell print flag. */

int pelmox_test_qmi_send_data_do(int argc, char *argv[])
{
    if (argc < 4) {
        if (pelmox_trace_shell_on())
            printf("\nnote: Too few parameters, Pls refer to the following cmd:\n");
        show_help(CMN_GROUP);
        return 0;
    }
    if (atoi(argv[1]) != CMN_GROUP) {
        if (pelmox_trace_shell_on())
            printf("\nnote: the first parameters should be %d, Pls refer to the following cmd:\n", CMN_GROUP);
        show_help(CMN_GROUP);
        return 0;
    }
    /* Compared unsigned, so a negative id is out of range too. */
    uint32_t qmi_id = (uint32_t)atoi(argv[2]);
    if (qmi_id >= CMN_QMI_ID_MAX) {
        if (pelmox_trace_shell_on())
            printf("\nnote: the second parameters(qmi_id) should be >= %d && < %d\n", 0, CMN_QMI_ID_MAX);
        show_help(CMN_GROUP);
        return 0;
    }

    /* The printed len is the number of data arguments, even beyond the 500
     * that are sent. */
    int data_args = argc - 3;
    if (pelmox_trace_shell_on())
        printf("px_qmi req data(qmi_id: %d, len: %d[max: %d]):\n", (int)qmi_id, data_args, CMN_SEND_DATA_MAX);
    uint8_t data[CMN_SEND_DATA_MAX];
    int data_len = data_args < CMN_SEND_DATA_MAX ? data_args : CMN_SEND_DATA_MAX;
    for (int i = 0; i < data_len; ++i) {
        data[i] = (uint8_t)pelmox_string_to_int(argv[3 + i]);
        if (pelmox_trace_shell_on())
            printf("0x%02X ", data[i]);
    }

    /* The reply capacity offered is 0, so the reply dump is normally empty;
     * the command only shows whether the modem accepted the message. */
    uint8_t rsp[PELMOX_EXTEND_DATA_MAX_V01];
    int32_t rsp_len = 0;
    int result = pelmox_extend_qmi_send_sync(qmi_id, data, data_len, rsp, &rsp_len);
    if (pelmox_trace_shell_on())
        printf("qmi_id = %d, result = %d\n", (int)qmi_id, result);
    if (result != 0) {
        if (pelmox_trace_shell_on())
            printf("pelmox_extend_qmi_send_sync fail\n");
        show_help(CMN_GROUP);
        return 0;
    }
    if (pelmox_trace_shell_on()) {
        printf("px_qmi rsp data(qmi_id: %d, len: %d[max: %d]):\n", (int)qmi_id, rsp_len, CMN_SEND_DATA_MAX);
        for (int32_t i = 0; i < rsp_len; ++i)
            printf(" %02X", rsp[i]);
        printf("\n");
    }
    return 0;
}
