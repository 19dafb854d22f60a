/*
 * pelmox_qmi_test_cmn.cpp - the diag command send of group 5. The command
 * bytes come from the command line; mode 0 uses the diag callback interface,
 * any other mode a DCI client; type 0 waits for the reply, any other type does
 * not. Everything but the traces is printed only under the shell print flag.
 * Only a send that succeeded traces the exit: the too-few-inputs and failed
 * send paths return at once.
 */
#include "pelmox_qmi_test_cmn.h"

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <pelmox_diag.h>

#include "pelmox_conv.h"
#include "pelmox_trace.h"

#define DIAG_CMD_CONVERT_MAX 4096 /* bytes converted from the command line */
#define DIAG_RSP_LEN 10240        /* reply capacity */
#define DIAG_FIRST_BYTE_ARG 6     /* argv index of the first command byte */

/* Source name shown in this module's log lines. */
static const char k_trace_src[] = "proprietary/modem/hal/kvn/pelmox_qmi_test_cmn";

/* Module state: the reply buffer, kept off the stack for its size. */
static struct {
    uint8_t rsp[DIAG_RSP_LEN]; /* reply bytes of the last send */
} s_diag;

#define DIAG_PRINT(...)                 \
    do {                                \
        if (pelmox_trace_shell_on())    \
            printf(__VA_ARGS__);        \
    } while (0)

/*
 * The length handed to the diag library is the number of byte arguments,
 * even above the 4096 converted: the buffer is made that long and the bytes
 * past 4096 stay zero, so the library never reads past it.
 */
int pelmox_cmn_diag_cmd_send(int argc, char *argv[])
{
    PELMOX_TRACE(k_trace_src, "function entry ------------->");
    int result = 0;
    if (argc <= DIAG_FIRST_BYTE_ARG) {
        DIAG_PRINT("\nnote: Too few inputs, Pls refer to the following cmd:\n");
        return 0;
    }
    int mode = atoi(argv[3]);
    int type = atoi(argv[4]);
    int time_out = atoi(argv[5]);
    uint32_t cmd_len = (uint32_t)(argc - DIAG_FIRST_BYTE_ARG);
    uint32_t converted = cmd_len < DIAG_CMD_CONVERT_MAX ? cmd_len : DIAG_CMD_CONVERT_MAX;
    size_t cap = cmd_len > DIAG_CMD_CONVERT_MAX ? cmd_len : DIAG_CMD_CONVERT_MAX;
    uint8_t *cmd = (uint8_t *)calloc(cap, 1);
    if (cmd == NULL)
        return -1;

    DIAG_PRINT("diag cmd:\n");
    for (uint32_t i = 0; i < converted; ++i) {
        cmd[i] = (uint8_t)pelmox_string_to_int(argv[DIAG_FIRST_BYTE_ARG + i]);
        DIAG_PRINT("0x%02X ", cmd[i]);
    }
    DIAG_PRINT("\n");

    memset(s_diag.rsp, 0, sizeof(s_diag.rsp));
    uint32_t rsp_len = DIAG_RSP_LEN;
    int with_result = type == 0;
    if (mode == 0 && with_result) {
        DIAG_PRINT("callback mode with result\n");
        result = pelmox_diag_cmd_send_with_result_by_callback_mode(cmd, cmd_len, (uint32_t)time_out, s_diag.rsp,
                                                                   &rsp_len);
    } else if (mode == 0) {
        DIAG_PRINT("callback mode without result\n");
        result = pelmox_diag_cmd_send_without_result_by_callback_mode(cmd, cmd_len);
    } else if (with_result) {
        DIAG_PRINT("dci mode with result\n");
        result = pelmox_diag_cmd_send_with_result_by_dci_mode(cmd, cmd_len, (uint32_t)time_out, s_diag.rsp, &rsp_len);
    } else {
        DIAG_PRINT("dci mode without result\n");
        result = pelmox_diag_cmd_send_without_result_by_dci_mode(cmd, cmd_len);
    }
    free(cmd);

    if (result != 0) {
        DIAG_PRINT("pelmox_diag_cmd_send fail\n");
        return result;
    }
    if (!with_result) {
        DIAG_PRINT("\ndone without rsp data");
    } else {
        if (rsp_len > DIAG_RSP_LEN)
            rsp_len = DIAG_RSP_LEN;
        DIAG_PRINT("\nrsp data len(%d)\nrsp data:", (int)rsp_len);
        for (uint32_t i = 0; i < rsp_len; ++i)
            DIAG_PRINT(" 0x%02X", s_diag.rsp[i]);
        DIAG_PRINT("\n");
    }
    PELMOX_TRACE(k_trace_src, "function exit <-------------");
    return 0;
}
