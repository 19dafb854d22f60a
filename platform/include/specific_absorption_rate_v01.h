/*
 * specific_absorption_rate_v01.h - C records and message ids of the standard
 * QMI SAR service, interface revision 1.14: setting and reading the RF SAR
 * state (the device state index, DSI, that selects the transmit-power
 * back-off table).
 */
#ifndef SPECIFIC_ABSORPTION_RATE_V01_H
#define SPECIFIC_ABSORPTION_RATE_V01_H

#include <stdint.h>

#include "common_v01.h"
#include "qmi_idl_lib.h"

#ifdef __cplusplus
extern "C" {
#endif

#define SAR_V01_IDL_MAJOR_VERS 0x01
#define SAR_V01_IDL_MINOR_VERS 0x0E
#define SAR_V01_IDL_TOOL_VERS 0x06
#define QMI_SAR_SERVICE_ID_V01 0x11

#define QMI_SAR_RF_SET_STATE_REQ_MSG_V01 0x0001
#define QMI_SAR_RF_SET_STATE_RESP_MSG_V01 0x0001
#define QMI_SAR_RF_GET_STATE_REQ_MSG_V01 0x0002
#define QMI_SAR_RF_GET_STATE_RESP_MSG_V01 0x0002

/* RF SAR state (DSI); 32 bits in the records and on the wire. */
typedef enum {
    QMI_SAR_RF_STATE_ENUM_MIN_ENUM_VAL_V01 = -2147483647,
    QMI_SAR_RF_STATE_DEFAULT_V01 = 0,
    QMI_SAR_RF_STATE_1_V01 = 1,
    QMI_SAR_RF_STATE_2_V01 = 2,
    QMI_SAR_RF_STATE_3_V01 = 3,
    QMI_SAR_RF_STATE_4_V01 = 4,
    QMI_SAR_RF_STATE_5_V01 = 5,
    QMI_SAR_RF_STATE_6_V01 = 6,
    QMI_SAR_RF_STATE_7_V01 = 7,
    QMI_SAR_RF_STATE_8_V01 = 8,
    QMI_SAR_RF_STATE_ENUM_MAX_ENUM_VAL_V01 = 2147483647
} qmi_sar_rf_state_enum_type_v01;

typedef struct {
    qmi_sar_rf_state_enum_type_v01 sar_rf_state; /* TLV 0x01 */
} sar_rf_set_state_req_msg_v01;

typedef struct {
    qmi_response_type_v01 resp;
} sar_rf_set_state_resp_msg_v01;

/* The get-state request has no TLVs; it is sent as a null record of length 0. */
typedef struct {
    char __placeholder;
} sar_rf_get_state_req_msg_v01;

/*
 * Get-state response, 40 bytes: the result pair; the state (TLV 0x10); then
 * the compatibility key of the SAR tables in use (0x11), the state on the
 * second subscription (0x12) and the index of the back-off table in use
 * (0x13), each an optional u32.
 */
typedef struct {
    qmi_response_type_v01 resp;
    uint8_t sar_rf_state_valid;
    qmi_sar_rf_state_enum_type_v01 sar_rf_state;
    uint8_t compatibility_key_valid;
    uint32_t compatibility_key;
    uint8_t sar_rf_state_sub2_valid;
    qmi_sar_rf_state_enum_type_v01 sar_rf_state_sub2;
    uint8_t backoff_table_index_valid;
    uint32_t backoff_table_index;
} sar_rf_get_state_resp_msg_v01;

/* The SAR service object, only for exactly the version triple 1 / 14 / 6. */
qmi_idl_service_object_type sar_get_service_object_internal_v01(int32_t idl_maj_version,
                                                                int32_t idl_min_version,
                                                                int32_t library_version);
#define sar_get_service_object_v01()                                                               \
    sar_get_service_object_internal_v01(SAR_V01_IDL_MAJOR_VERS, SAR_V01_IDL_MINOR_VERS,            \
                                        SAR_V01_IDL_TOOL_VERS)

#ifdef __cplusplus
}
#endif

#endif /* SPECIFIC_ABSORPTION_RATE_V01_H */
