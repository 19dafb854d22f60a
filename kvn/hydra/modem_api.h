/*
 * modem_api.h - the hydra modem API: a table of up to ten client handles,
 * each backed by one QMI service client (vendor statistics, SAR, NAS on
 * either subscription), status propagation to the caller's callbacks, the
 * error map onto the API's small unsigned codes, and the two statistics
 * operations of the vendor-specific client.
 */
#ifndef MODEM_API_H
#define MODEM_API_H

#include <stdint.h>

#include "common_v01.h"
#include "qmi_client.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- return codes of the modem_api_ operations ---- */
#define MODEM_API_SUCCESS 0
#define MODEM_API_GENERAL_FAILURE 1
#define MODEM_API_NO_MEMORY 3
#define MODEM_API_NOT_SUPPORTED 4
#define MODEM_API_INVALID_ARG 5
#define MODEM_API_UNEXPECTED 7
#define MODEM_API_DEVICE_NOT_READY 8
#define MODEM_API_CLIENT_NOT_READY 9
#define MODEM_API_ABORTED 10
#define MODEM_API_TIMEOUT 11
#define MODEM_API_INTERNAL 12
#define MODEM_API_TABLE_FULL 14
#define MODEM_API_CLIENT_EXISTS 15

/* ---- client types and operational status ---- */
#define MODEM_API_CLIENT_VS 0
#define MODEM_API_CLIENT_SAR 1
#define MODEM_API_CLIENT_NAS_0 2
#define MODEM_API_CLIENT_NAS_1 3
#define MODEM_API_CLIENT_TYPES 4
#define MODEM_API_MAX_CLIENTS 10

#define MODEM_API_STATUS_RELEASED 0
#define MODEM_API_STATUS_CONNECTING 1
#define MODEM_API_STATUS_FAILED 2
#define MODEM_API_STATUS_OPERATIONAL 3
#define MODEM_API_STATUS_DOWN 4
#define MODEM_API_STATUS_SUSPENDED 5   /* SAR/NAS: released by the suspend thread */
#define MODEM_API_STATUS_RESUMING 6    /* SAR/NAS: service back, resume begins */
#define MODEM_API_STATUS_RESUME_FAIL 7 /* SAR/NAS: resume thread or reconnect failed */

/* Codes handed to a caller's status callback. */
#define MODEM_API_EVENT_SERVICE_DOWN 0x10001
#define MODEM_API_EVENT_SERVICE_UP 0x10002

/* Statistic identifiers shared with the diag-log parsers; 32 bits. */
typedef enum {
    MODEM_STATS_5G_RSRP_SCC1 = 6,
    MODEM_STATS_5G_RSRP_SCC2 = 7,
    MODEM_STATS_4G_ASDIV_PCC = 82,
    MODEM_STATS_5G_RSSI = 94,
    MODEM_STATS_ANT_INFO = 100,
    MODEM_STATS_4G_ASDIV_SCC1 = 103,
    MODEM_STATS_4G_ASDIV_SCC2 = 104,
    MODEM_STATS_4G_ASDIV_SCC3 = 105,
    MODEM_STATS_4G_ASDIV_SCC4 = 106,
    MODEM_STATS_4G_ASDIV_SCC5 = 107,
    MODEM_STATS_4G_ASDIV_SCC6 = 108,
    MODEM_STATS_WCDMA_RX_AGC = 110,
    MODEM_STATS_GSM_RX_LEVEL = 111,
    MODEM_STATS_5G_SNR = 112,
    MODEM_STATS_5G_ANT_SWITCH = 113,
    MODEM_STATS_5G_RSRP_PCC = 135,
    MODEM_STATS_DATA_ID_MAX = 0x7FFFFFFF
} modem_stats_data_id_e_type;

#define MODEM_STATS_MAX_IDS 10
#define MODEM_STATS_DATA_MAX 700

/* Caller's event callback: (event id, record, record length). */
typedef void (*modem_api_event_cb_type)(uint32_t event_id, void *record, uint32_t record_len);
/* Caller's status callback: (code 0x10001 / 0x10002, client type). */
typedef void (*modem_api_status_cb_type)(int code, int client_type);
/* A service client's status callback: (client type, status). */
typedef void (*modem_api_operational_status_cb_type)(uint32_t client_type, uint32_t status);

/* One open client, owned by the client table. */
typedef struct {
    uint32_t type;                      /* client type 0..3 */
    uint32_t pid;                       /* getpid() at creation */
    uint32_t operational_status;        /* last status reported; read and written atomically */
    uint8_t reserved[6];                /* zeroed, not otherwise used */
    modem_api_event_cb_type event_cb;   /* handed to the service client's init */
    modem_api_status_cb_type status_cb; /* called on status 3 and 4 */
} modem_api_client;

/* Request of vendor message 0x0207. */
typedef struct {
    uint16_t sub;
    uint16_t number;
    uint32_t id_num;
    uint32_t ids[MODEM_STATS_MAX_IDS];
} modem_stats_param_req;

typedef struct {
    uint32_t sub;
    uint32_t id;
    uint32_t data_len;
    uint8_t data[MODEM_STATS_DATA_MAX];
} modem_stats_param_entry;

typedef struct {
    uint32_t id_num;
    modem_stats_param_entry entries[MODEM_STATS_MAX_IDS];
} modem_stats_param_result;

/* Sender's record of an asynchronous request. */
typedef void (*modem_api_async_cb_type)(void *payload, uint32_t payload_len, void *user_data, uint32_t code);
typedef struct {
    modem_api_async_cb_type callback;
    void *user_data;
} modem_api_async_cb_data;

/* ---- interface ---- */

/* Sets up the table on the first call (reference count 0 -> 1) and runs the
 * service modules' initialisers (vs, sar, nas_0, nas_1) on every call. 0. */
uint32_t modem_api_init(void);

/* Clears the table and lowers the reference count when positive; the records
 * left in the table are neither freed nor released (free the clients
 * first). 0. */
uint32_t modem_api_release(void);

/* Opens a client of the type and writes its id (slot index) to *client_id. */
uint32_t modem_api_init_client(uint32_t type, modem_api_event_cb_type event_cb, modem_api_status_cb_type status_cb,
                               uint32_t *client_id);

/* Releases the client's service client and frees its slot. 7 for a negative
 * id, else 0 (an empty slot only logs). */
uint32_t modem_api_free_client(int32_t client_id);

/* The single status callback of every service client. */
void modem_api_operational_status_cb(uint32_t client_type, uint32_t status);

/* NAS indication registration on nas_0 (instance 0) or nas_1 (instance 1). */
uint32_t modem_api_util_enable_networking_indications(int32_t client_id, int32_t instance);

/* Vendor message 0x0003 on an operational type-0 client. */
uint32_t modem_api_set_hydra_feature_status(int32_t client_id, uint32_t feature, uint8_t enable_1, uint8_t enable_2,
                                            uint8_t enable_3);

/* Vendor message 0x0207 for id_num (1..10) identifiers; fills *result only on
 * success. */
uint32_t modem_api_get_stats_parameter(int32_t client_id, uint16_t sub, uint16_t number, int32_t id_num,
                                       const uint32_t *ids, modem_stats_param_result *result);

/* Transport error and QMI result pair to an API code. */
uint32_t modem_api_map_qmi_error_to_modem_api(int32_t qmi_error, const qmi_response_type_v01 *resp);

/* Shared body of the service clients' asynchronous command callbacks. Takes
 * ownership of resp and cb_data (both hydra_malloc_adv blocks). */
void modem_api_process_response(uint32_t msg_id, void *resp, uint32_t resp_len, modem_api_async_cb_data *cb_data,
                                int32_t transp_err);

/* The operational status recorded for a client id, or -1 for an empty or
 * invalid slot. */
int32_t modem_api_client_status(int32_t client_id);

#ifdef __cplusplus
}
#endif

#endif /* MODEM_API_H */
