/*
 * vs_client.h - the QMI client of the vendor-specific statistics service:
 * one connection opened with up to ten tries, status reports to the hydra
 * modem API, synchronous sends, and the four indications turned into event
 * records for the caller's event callback.
 */
#ifndef VS_CLIENT_H
#define VS_CLIENT_H

#include <stdint.h>

#include "modem_api.h"
#include "qmi_client.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Event ids handed to the event callback. */
#define VS_EVENT_FEATURE_STATUS 2 /* indication 0x0004 */
#define VS_EVENT_STATS_REPORT 3   /* indication 0x0203 */
#define VS_EVENT_STATS_VALUES 4   /* indication 0x0204 */
#define VS_EVENT_STATE 5          /* indication 0x0601 */

/* Event 2, 8 bytes. */
typedef struct {
    uint32_t value;
    uint8_t flag_1; /* 0 or 1 */
    uint8_t flag_2; /* 0 or 1 */
} vs_event_feature_status;

/* One statistic of event 3, 712 bytes. */
typedef struct {
    uint32_t id;
    uint32_t data_len; /* at most 700 */
    uint8_t data[700];
    uint16_t sub;
    uint16_t reserved;
} vs_event_stats_record;

/* Event 3, 10696 bytes. */
typedef struct {
    uint32_t value;
    vs_event_stats_record records[10];
    uint32_t records_num; /* at most 10 */
    vs_event_stats_record extra[5];
    uint32_t extra_num; /* at most 5 */
    uint32_t tail;      /* 0xFFFFFFFF when the modem sent none */
} vs_event_stats_report;

/* Event 4, 412 bytes. */
typedef struct {
    uint32_t value;
    uint32_t values_num; /* at most 100 */
    uint32_t values[100];
    uint16_t first;
    uint16_t second;
} vs_event_stats_values;

/* Largest event record. */
#define VS_EVENT_MAX_LEN sizeof(vs_event_stats_report)

void vs_init(void);
void vs_client_set_operational_status_callback(modem_api_operational_status_cb_type cb);
/* True when the client is open. */
bool vs_client_init(modem_api_event_cb_type event_cb);
bool vs_client_release(void);
int vs_client_send_msg_sync(uint32_t msg_id, void *req, uint32_t req_len, void *resp, uint32_t resp_len);
void vs_client_unsol_ind_cb(qmi_client_type user_handle, unsigned int msg_id, void *ind_buf, unsigned int ind_buf_len,
                            void *ind_cb_data);
void vs_client_service_down_event(qmi_client_type user_handle, qmi_client_error_type error, void *cb_data);
void vs_client_command_cb(qmi_client_type user_handle, unsigned int msg_id, void *resp, unsigned int resp_len,
                          void *cb_data, int transp_err);

/* Builds the event record of one decoded indication (its C record) into out
 * (at least VS_EVENT_MAX_LEN bytes), clamping every count and length to the
 * record's bounds. Returns the event id and sets *out_len, or 0 for an
 * indication id outside the four. */
uint32_t vs_client_build_event(uint32_t msg_id, const void *decoded, void *out, uint32_t *out_len);

#ifdef __cplusplus
}
#endif

#endif /* VS_CLIENT_H */
