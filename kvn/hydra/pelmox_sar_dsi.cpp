/*
 * pelmox_sar_dsi.cpp - the SAR DSI query: one qmi_client_init_instance, one
 * RF get-state request, the value printed. It traces in the vendor QMI
 * modules' two-form style under their source name. The client is not
 * released: the process ends right after the command.
 */
#include "pelmox_sar_dsi.h"

#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "pelmox_extend_qmi.h"
#include "pelmox_trace.h"
#include "qmi_client.h"
#include "specific_absorption_rate_v01.h"

#define SAR_DSI_INIT_TIMEOUT 4
#define SAR_DSI_SEND_TIMEOUT_MS 30000

static const char k_trace_src[] = "proprietary/modem/hal/qmi/pelmox_extend_cmn";

/* The query's process-wide state. */
static struct {
    qmi_client_type client;         /* kept open until the process ends */
    qmi_client_os_params os_params; /* handed to the library */
} s_sar_dsi;

int32_t pelmox_get_sar_dsi(void)
{
    PELMOX_TRACE(k_trace_src, "function entry ------------->");
    qmi_idl_service_object_type svc =
        sar_get_service_object_internal_v01(SAR_V01_IDL_MAJOR_VERS, SAR_V01_IDL_MINOR_VERS, SAR_V01_IDL_TOOL_VERS);
    /* One try only: the query answers now or not at all. */
    int rc = qmi_client_init_instance(svc, QMI_CLIENT_INSTANCE_ANY, pelmox_qcril_qmi_client_common_empty_unsol_ind_cb,
                                      NULL, &s_sar_dsi.os_params, SAR_DSI_INIT_TIMEOUT, &s_sar_dsi.client);
    if (rc != QMI_NO_ERR) {
        PELMOX_TRACE(k_trace_src, "qmi_client_init_instance failed, qmi_client_error = %d", rc);
        return -1;
    }
    sar_rf_get_state_resp_msg_v01 resp;
    memset(&resp, 0, sizeof(resp));
    rc = qmi_client_send_msg_sync(s_sar_dsi.client, QMI_SAR_RF_GET_STATE_REQ_MSG_V01, NULL, 0, &resp, sizeof(resp),
                                  SAR_DSI_SEND_TIMEOUT_MS);
    if (rc != QMI_NO_ERR) {
        PELMOX_TRACE(k_trace_src, "qmi_client_send_msg_sync failed, qmi_client_error = %d", rc);
        return -1;
    }
    /* The modem's own result is not looked at: a refusal without the state
     * TLV yields the zero-filled value. */
    PELMOX_TRACE(k_trace_src, "dsi vailid = %d , dsi value = %d", resp.sar_rf_state_valid, (int)resp.sar_rf_state);
    PELMOX_TRACE(k_trace_src, "function exit <-------------");
    usleep(10);
    return (int32_t)resp.sar_rf_state;
}

int pelmox_cmn_test_get_sar_dsi(int argc, char *argv[])
{
    (void)argc;
    (void)argv;
    if (!pelmox_trace_shell_on())
        return 0;
    printf("SAR DSI: %d\n", pelmox_get_sar_dsi());
    return 0;
}
