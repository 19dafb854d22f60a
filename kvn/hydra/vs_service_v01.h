/*
 * vs_service_v01.h - C records and message ids of the modem's vendor-specific
 * statistics QMI service 0xE4 (IDL 1.2, library 6). Only the feature-status
 * and statistics-parameter messages and the four indications have records;
 * the service object lists every message with its largest encoded length.
 */
#ifndef VS_SERVICE_V01_H
#define VS_SERVICE_V01_H

#include <stdint.h>

#include "common_v01.h"
#include "qmi_idl_lib.h"

#ifdef __cplusplus
extern "C" {
#endif

#define VS_V01_IDL_MAJOR_VERS 0x01
#define VS_V01_IDL_MINOR_VERS 0x02
#define VS_V01_IDL_TOOL_VERS 0x06
#define VS_SERVICE_ID_V01 0xE4
#define VS_MAX_MSG_LEN_V01 10672

#define VS_SET_FEATURE_STATUS_MSG_V01 0x0003
#define VS_GET_STATS_PARAM_MSG_V01 0x0207
#define VS_FEATURE_STATUS_IND_V01 0x0004
#define VS_STATS_REPORT_IND_V01 0x0203
#define VS_STATS_VALUES_IND_V01 0x0204
#define VS_STATE_IND_V01 0x0601

#define VS_STATS_ID_MAX_V01 10       /* identifiers per statistics request */
#define VS_STATS_REC_MAX_V01 10      /* records per response / report */
#define VS_STATS_EXTRA_REC_MAX_V01 5 /* records in the report's second list */
#define VS_STATS_DATA_MAX_V01 700    /* bytes of one statistic */
#define VS_VALUES_MAX_V01 100        /* u8 values of indication 0x0204 */

/* Feature status request, 8 bytes: TLV 0x01 feature, TLV 0x02 u8, optional
 * TLV 0x10 u8. */
typedef struct {
    uint32_t feature;    /* TLV 0x01 */
    uint8_t enable;      /* TLV 0x02 */
    uint8_t extra_valid; /* TLV 0x10 present */
    uint8_t extra;       /* TLV 0x10 */
} vs_set_feature_status_req_msg_v01;

typedef struct {
    qmi_response_type_v01 resp; /* TLV 0x02 */
} vs_set_feature_status_resp_msg_v01;

/* Statistics parameter request, 48 bytes. */
typedef struct {
    uint16_t sub;                       /* TLV 0x01 */
    uint16_t number;                    /* TLV 0x02 */
    uint32_t id_num;                    /* TLV 0x03 count (one byte on the wire) */
    uint32_t ids[VS_STATS_ID_MAX_V01];  /* TLV 0x03 */
} vs_get_stats_param_req_msg_v01;

/* One statistic, 712 bytes; on the wire the data carries a two-byte count. */
typedef struct {
    uint16_t sub;
    uint16_t reserved;
    uint32_t id;
    uint32_t data_len;
    uint8_t data[VS_STATS_DATA_MAX_V01];
} vs_stats_record_v01;

/* Statistics parameter response, 7136 bytes. */
typedef struct {
    qmi_response_type_v01 resp;                 /* TLV 0x02 */
    uint8_t records_valid;                      /* TLV 0x10 present */
    uint32_t records_len;                       /* TLV 0x10 count */
    vs_stats_record_v01 records[VS_STATS_REC_MAX_V01];
} vs_get_stats_param_resp_msg_v01;

/* Indication 0x0004, 8 bytes. */
typedef struct {
    uint32_t value; /* TLV 0x01 */
    uint8_t flag_1; /* TLV 0x02 */
    uint8_t flag_2; /* TLV 0x03 */
} vs_feature_status_ind_msg_v01;

/* Indication 0x0203, 10704 bytes. */
typedef struct {
    uint32_t value;                                       /* TLV 0x01 */
    uint32_t records_len;                                 /* TLV 0x02 count */
    vs_stats_record_v01 records[VS_STATS_REC_MAX_V01];    /* TLV 0x02 */
    uint8_t extra_valid;                                  /* TLV 0x10 present */
    uint32_t extra_len;                                   /* TLV 0x10 count */
    vs_stats_record_v01 extra[VS_STATS_EXTRA_REC_MAX_V01]; /* TLV 0x10 */
    uint8_t tail_valid;                                   /* TLV 0x11 present */
    uint32_t tail;                                        /* TLV 0x11 */
} vs_stats_report_ind_msg_v01;

/* Indication 0x0204, 112 bytes. */
typedef struct {
    uint32_t value;                      /* TLV 0x01 */
    uint32_t values_len;                 /* TLV 0x02 count */
    uint8_t values[VS_VALUES_MAX_V01];   /* TLV 0x02 */
    uint16_t first;                      /* TLV 0x03 */
    uint16_t second;                     /* TLV 0x04 */
} vs_stats_values_ind_msg_v01;

/* Indication 0x0601, 1 byte. */
typedef struct {
    uint8_t state; /* TLV 0x01 */
} vs_state_ind_msg_v01;

/* The service object, only for exactly the version triple 1 / 2 / 6. */
qmi_idl_service_object_type vs_get_service_object_internal_v01(int32_t idl_maj_version, int32_t idl_min_version,
                                                               int32_t library_version);

#ifdef __cplusplus
}
#endif

#endif /* VS_SERVICE_V01_H */
