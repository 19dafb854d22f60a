/*
 * vs_client.cpp - the vendor-specific statistics service client: opening the
 * one client connection (ten tries one second apart), synchronous sends, and
 * the indications turned into event records on libqmi_cci's thread. Its
 * service-down event only logs; the hydra API learns nothing from it.
 */
#include "vs_client.h"

#include <stddef.h>
#include <string.h>
#include <unistd.h>

#include "hydra_log.h"
#include "vs_service_v01.h"

#define VS_CLIENT_PORT 65535      /* the client asks for any instance */
#define VS_CLIENT_TRIES 10
#define VS_CLIENT_INIT_TIMEOUT 4  /* per qmi_client_init_instance call */
#define VS_CLIENT_SEND_TIMEOUT_MS 30000

static_assert(sizeof(vs_event_feature_status) == 8, "event 2 record");
static_assert(sizeof(vs_event_stats_record) == 712, "event 3 statistic");
static_assert(sizeof(vs_event_stats_report) == 10696, "event 3 record");
static_assert(sizeof(vs_event_stats_values) == 412, "event 4 record");

/* The module's process-wide state. */
static struct {
    qmi_idl_service_object_type service_object;          /* vs 1.2.6 */
    qmi_client_type client;                              /* the open client, or null */
    qmi_client_os_params os_params;                      /* handed to the library */
    void (*command_cb)(qmi_client_type, unsigned int, void *, unsigned int, void *, int); /* vs_client_command_cb */
    modem_api_event_cb_type event_cb;                    /* caller's event callback */
    modem_api_operational_status_cb_type status_cb;      /* receives (0, status) */
    int initialized;                                     /* set after a successful init */
} s_vs;

static void vs_report_status(uint32_t status)
{
    if (s_vs.status_cb)
        s_vs.status_cb(MODEM_API_CLIENT_VS, status);
}

void vs_init(void)
{
    memset(&s_vs, 0, sizeof(s_vs));
    s_vs.command_cb = vs_client_command_cb;
    s_vs.service_object =
        vs_get_service_object_internal_v01(VS_V01_IDL_MAJOR_VERS, VS_V01_IDL_MINOR_VERS, VS_V01_IDL_TOOL_VERS);
}

void vs_client_set_operational_status_callback(modem_api_operational_status_cb_type cb) { s_vs.status_cb = cb; }

bool vs_client_init(modem_api_event_cb_type event_cb)
{
    s_vs.event_cb = event_cb;
    HYDRA_LOG(HYDRA_LOG_RESULT, "Client connecting to QMI FW");
    vs_report_status(MODEM_API_STATUS_CONNECTING);
    hydra_log_named(HYDRA_LOG_PROGRESS, "vs_client_get_master_port", "using port %d", VS_CLIENT_PORT);

    int rc = QMI_INTERNAL_ERR;
    for (int attempt = 0; attempt < VS_CLIENT_TRIES; ++attempt) {
        if (attempt > 0)
            sleep(1);
        hydra_log_named(HYDRA_LOG_PROGRESS, "vs_client_init_client_handles",
                        "Trying qmi_client_init_instance() try # %d port[%d]", attempt, VS_CLIENT_PORT);
        rc = qmi_client_init_instance(s_vs.service_object, QMI_CLIENT_INSTANCE_ANY, vs_client_unsol_ind_cb, NULL,
                                      &s_vs.os_params, VS_CLIENT_INIT_TIMEOUT, &s_vs.client);
        if (rc == QMI_NO_ERR)
            break;
    }
    hydra_log_named(HYDRA_LOG_RESULT, "vs_client_init_client_handles", "qmi_client_init_instance returned (%d)", rc);
    if (rc != QMI_NO_ERR) {
        hydra_log_named(HYDRA_LOG_ERROR, "vs_client_init_client_handles",
                        "qmi_client_init_instance returned failure(%d)", rc);
        s_vs.client = NULL;
    } else {
        qmi_client_register_error_cb(s_vs.client, vs_client_service_down_event, NULL);
        s_vs.initialized = 1;
    }
    vs_report_status(rc == QMI_NO_ERR ? MODEM_API_STATUS_OPERATIONAL : MODEM_API_STATUS_FAILED);
    long ret = rc == QMI_NO_ERR ? 0 : 1;
    hydra_log_named(HYDRA_LOG_PROGRESS, "vs_client_init_client_handles", "function exit with ret %ld", ret);
    hydra_log_named(HYDRA_LOG_PROGRESS, "vs_client_init", "function exit with ret %ld", ret);
    return rc == QMI_NO_ERR;
}

bool vs_client_release(void)
{
    vs_report_status(MODEM_API_STATUS_RELEASED);
    s_vs.initialized = 0;
    if (s_vs.client) {
        qmi_client_release(s_vs.client);
        s_vs.client = NULL;
    }
    return true;
}

int vs_client_send_msg_sync(uint32_t msg_id, void *req, uint32_t req_len, void *resp, uint32_t resp_len)
{
    return qmi_client_send_msg_sync(s_vs.client, msg_id, req, req_len, resp, resp_len, VS_CLIENT_SEND_TIMEOUT_MS);
}

void vs_client_service_down_event(qmi_client_type user_handle, qmi_client_error_type error, void *cb_data)
{
    (void)user_handle;
    (void)cb_data;
    HYDRA_LOG(HYDRA_LOG_ERROR, "service down with error %d", error);
}

void vs_client_command_cb(qmi_client_type user_handle, unsigned int msg_id, void *resp, unsigned int resp_len,
                          void *cb_data, int transp_err)
{
    (void)user_handle;
    modem_api_process_response(msg_id, resp, resp_len, (modem_api_async_cb_data *)cb_data, transp_err);
}

/* ---- indications ---- */

static void copy_record(vs_event_stats_record *dst, const vs_stats_record_v01 *src)
{
    uint32_t len = src->data_len > sizeof(dst->data) ? (uint32_t)sizeof(dst->data) : src->data_len;
    dst->id = src->id;
    dst->data_len = len;
    memcpy(dst->data, src->data, len);
    dst->sub = src->sub;
    dst->reserved = src->reserved;
}

uint32_t vs_client_build_event(uint32_t msg_id, const void *decoded, void *out, uint32_t *out_len)
{
    switch (msg_id) {
    case VS_FEATURE_STATUS_IND_V01: {
        const vs_feature_status_ind_msg_v01 *in = (const vs_feature_status_ind_msg_v01 *)decoded;
        vs_event_feature_status *ev = (vs_event_feature_status *)out;
        memset(ev, 0, sizeof(*ev));
        ev->value = in->value;
        ev->flag_1 = in->flag_1 ? 1 : 0;
        ev->flag_2 = in->flag_2 ? 1 : 0;
        *out_len = sizeof(*ev);
        return VS_EVENT_FEATURE_STATUS;
    }
    case VS_STATS_REPORT_IND_V01: {
        const vs_stats_report_ind_msg_v01 *in = (const vs_stats_report_ind_msg_v01 *)decoded;
        vs_event_stats_report *ev = (vs_event_stats_report *)out;
        memset(ev, 0, sizeof(*ev));
        ev->value = in->value;
        ev->records_num = in->records_len > 10 ? 10 : in->records_len;
        for (uint32_t i = 0; i < ev->records_num; ++i)
            copy_record(&ev->records[i], &in->records[i]);
        if (in->extra_valid) {
            ev->extra_num = in->extra_len > 5 ? 5 : in->extra_len;
            for (uint32_t i = 0; i < ev->extra_num; ++i)
                copy_record(&ev->extra[i], &in->extra[i]);
        }
        ev->tail = in->tail_valid ? in->tail : 0xFFFFFFFFu;
        *out_len = sizeof(*ev);
        return VS_EVENT_STATS_REPORT;
    }
    case VS_STATS_VALUES_IND_V01: {
        const vs_stats_values_ind_msg_v01 *in = (const vs_stats_values_ind_msg_v01 *)decoded;
        vs_event_stats_values *ev = (vs_event_stats_values *)out;
        memset(ev, 0, sizeof(*ev));
        ev->value = in->value;
        ev->values_num = in->values_len > 100 ? 100 : in->values_len;
        for (uint32_t i = 0; i < ev->values_num; ++i)
            ev->values[i] = in->values[i];
        ev->first = in->first;
        ev->second = in->second;
        *out_len = sizeof(*ev);
        return VS_EVENT_STATS_VALUES;
    }
    case VS_STATE_IND_V01:
        *(uint8_t *)out = ((const vs_state_ind_msg_v01 *)decoded)->state;
        *out_len = 1;
        return VS_EVENT_STATE;
    }
    *out_len = 0;
    return 0;
}

void vs_client_unsol_ind_cb(qmi_client_type user_handle, unsigned int msg_id, void *ind_buf, unsigned int ind_buf_len,
                            void *ind_cb_data)
{
    (void)ind_cb_data;
    if (s_vs.event_cb == NULL) {
        HYDRA_LOG(HYDRA_LOG_ERROR, "Unexpected NULL pointer!");
        return;
    }
    uint32_t decoded_len = 0;
    if (msg_id > 0xFFFF ||
        qmi_idl_get_message_c_struct_len(s_vs.service_object, QMI_IDL_INDICATION, (uint16_t)msg_id, &decoded_len) !=
            QMI_IDL_LIB_NO_ERR)
        decoded_len = 0;
    if (decoded_len == 0) {
        HYDRA_LOG(HYDRA_LOG_ERROR, "decoded_payload_len(%d) can not <= 0", (int)decoded_len);
        return;
    }
    void *decoded = HYDRA_MALLOC(decoded_len);
    if (decoded == NULL) {
        HYDRA_LOG(HYDRA_LOG_ERROR, "decoded_payload is NULL");
        return;
    }
    int rc = qmi_client_message_decode(user_handle, QMI_IDL_INDICATION, msg_id, ind_buf, ind_buf_len, decoded,
                                       decoded_len);
    if (rc != QMI_NO_ERR) {
        HYDRA_LOG(HYDRA_LOG_ERROR, "Indication decode failed for msg 0x%x with error %d", msg_id, rc);
        HYDRA_FREE(decoded);
        return;
    }
    hydra_log_named(HYDRA_LOG_PROGRESS, "vs_client_ind_hdlr", "Handling indication msg 0x%x", msg_id);
    /* The largest record (event 3) is about 10 KB: a stack buffer will do on
     * the library's thread. */
    union {
        vs_event_feature_status feature;
        vs_event_stats_report report;
        vs_event_stats_values values;
        uint8_t state;
    } event;
    uint32_t event_len = 0;
    uint32_t event_id = vs_client_build_event(msg_id, decoded, &event, &event_len);
    if (event_id == 0)
        hydra_log_named(HYDRA_LOG_ERROR, "vs_client_ind_hdlr", "Unknown indication msg %0x", msg_id);
    else
        s_vs.event_cb(event_id, &event, event_len);
    HYDRA_FREE(decoded);
}
