/*
 * pelmox_extend_qmi.h - the client of the vendor "extend" QMI service
 * (0xFFE4): its service object, the one blocking send that every other module
 * uses to reach the modem, the map of the send's codes for the NV/EFS layer,
 * and the do-nothing indication callback shared by other QMI clients.
 */
#ifndef PELMOX_EXTEND_QMI_H
#define PELMOX_EXTEND_QMI_H

#include <stdint.h>

#include "qmi_client.h"
#include "qmi_idl_lib.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- service and message identifiers ---- */
#define PELMOX_EXTEND_SERVICE_ID_V01 0xFFE4
#define PELMOX_EXTEND_IDL_MAJOR_V01 1
#define PELMOX_EXTEND_IDL_MINOR_V01 1
#define PELMOX_EXTEND_IDL_TOOL_VERS_V01 6
#define PELMOX_EXTEND_MAX_MSG_LEN_V01 1227

#define PELMOX_EXTEND_MSG_ID_0002_V01 0x0002 /* the request the tool sends */
#define PELMOX_EXTEND_MSG_ID_0003_V01 0x0003
#define PELMOX_EXTEND_MSG_ID_0004_V01 0x0004
#define PELMOX_EXTEND_IND_ID_0005_V01 0x0005
#define PELMOX_EXTEND_IND_ID_0006_V01 0x0006
#define PELMOX_EXTEND_IND_ID_0007_V01 0x0007
#define PELMOX_EXTEND_IND_ID_0008_V01 0x0008

#define PELMOX_EXTEND_DATA_MAX_V01 512 /* payload bytes of one message */
#define PELMOX_EXTEND_STATS_REC_NUM_V01 20
#define PELMOX_EXTEND_GROUP_NUM_V01 10
#define PELMOX_EXTEND_GROUP_REC_MAX_V01 5
#define PELMOX_EXTEND_IND_NUM_MAX 6 /* highest indication number with a handler slot */

/* Send results (pelmox_extend_qmi_send_sync). */
#define PELMOX_EXTEND_ERR_PARAM (-1)  /* null buffer or a length out of range; nothing sent */
#define PELMOX_EXTEND_ERR_CLIENT (-2) /* the client could not be opened */
#define PELMOX_EXTEND_ERR_SEND (-3)   /* transport failure or non-zero result in the reply */

/* ---- message records (C layouts the codec fills from the tables) ---- */

/* Request/response 0x0002 and 0x0003, indication 0x0003. In a response
 * cmd_id is the result (0 = success); in an indication the indication number. */
typedef struct {
    uint32_t cmd_id;     /* TLV 0x01 */
    uint32_t data_len;   /* TLV 0x02: meaningful bytes of data */
    uint8_t data_valid;  /* TLV 0x10 present */
    uint8_t data[PELMOX_EXTEND_DATA_MAX_V01]; /* TLV 0x10, always all 512 bytes */
} pelmox_extend_msg_v01;

/* Request 0x0004: the common record plus one optional byte. */
typedef struct {
    uint32_t cmd_id;
    uint32_t data_len;
    uint8_t data_valid;
    uint8_t data[PELMOX_EXTEND_DATA_MAX_V01];
    uint8_t opt_valid; /* TLV 0x11 present */
    uint8_t opt;       /* TLV 0x11 */
} pelmox_extend_msg_ex_v01;

/* Response 0x0004 and indication 0x0007. */
typedef struct {
    uint32_t value1; /* TLV 0x01 */
    uint32_t value2; /* TLV 0x02 */
} pelmox_extend_pair_v01;

/* One record of indication 0x0005 (56 bytes). */
typedef struct {
    uint64_t v64;
    uint32_t v32[12];
} pelmox_extend_stats_rec_v01;

/* One record of indication 0x0006 and 0x0008 (24 bytes). */
typedef struct {
    uint64_t v64;
    uint32_t v32[4];
} pelmox_extend_small_rec_v01;

/* A group of indication 0x0006: up to five records behind a one-byte count. */
typedef struct {
    uint32_t rec_len; /* wire: one byte, 0 to 5 */
    pelmox_extend_small_rec_v01 rec[PELMOX_EXTEND_GROUP_REC_MAX_V01];
} pelmox_extend_group_v01;

/* Indication 0x0005. */
typedef struct {
    uint32_t value1; /* TLV 0x01 */
    uint32_t value2; /* TLV 0x02 */
    pelmox_extend_stats_rec_v01 rec[PELMOX_EXTEND_STATS_REC_NUM_V01]; /* TLV 0x03 */
} pelmox_extend_ind_0005_v01;

/* Indication 0x0006. */
typedef struct {
    uint32_t value1; /* TLV 0x01 */
    uint32_t value2; /* TLV 0x02 */
    pelmox_extend_group_v01 group[PELMOX_EXTEND_GROUP_NUM_V01]; /* TLV 0x03 */
} pelmox_extend_ind_0006_v01;

/* Indication 0x0008. */
typedef struct {
    uint32_t value1;                 /* TLV 0x01 */
    pelmox_extend_small_rec_v01 rec; /* TLV 0x02 */
} pelmox_extend_ind_0008_v01;

/* ---- interface ---- */

/* The service object, only for the exact version triple (1, 1, 6); null
 * otherwise. */
qmi_idl_service_object_type pelmox_extend_get_service_object_internal_v01(int32_t idl_maj_version,
                                                                          int32_t idl_min_version,
                                                                          int32_t library_version);

/*
 * Sends cmd_id with req_len bytes of req_data as message 0x0002 and waits up
 * to 3000 ms for the reply. *resp_len is the capacity of resp_data on entry
 * (at most 512) and the number of reply bytes copied on return; a reply longer
 * than the capacity is cut to it. Returns 0, or PELMOX_EXTEND_ERR_PARAM /
 * _CLIENT / _SEND. Opens the client on first use. Serialised by one mutex;
 * not re-entrant.
 */
int pelmox_extend_qmi_send_sync(uint32_t cmd_id, const uint8_t *req_data, int32_t req_len,
                                uint8_t *resp_data, int32_t *resp_len);

/* Opens the client if none is open and returns the handle (null when the
 * service could not be reached). Idempotent once a handle exists. The send
 * calls it with its mutex held. */
qmi_client_type pelmox_extend_qmi_client_open(void);

/* Indication callback of the client: decodes and dispatches messages 3 to 8. */
void pelmox_extend_qmi_ind_cb(qmi_client_type user_handle, unsigned int msg_id, void *ind_buf,
                              unsigned int ind_buf_len, void *ind_cb_data);

/* -1/-2/-3 of the send become -101/-102/-103; anything else is returned as
 * it is. Every call is traced. */
int pelmox_qmi_result_map(int result);

/* An indication callback that only traces the message id; QMI clients that
 * want their indications ignored register it. */
void pelmox_qcril_qmi_client_common_empty_unsol_ind_cb(qmi_client_type user_handle,
                                                       unsigned int msg_id, void *ind_buf,
                                                       unsigned int ind_buf_len,
                                                       void *ind_cb_data);

#ifdef __cplusplus
}
#endif

#endif /* PELMOX_EXTEND_QMI_H */
