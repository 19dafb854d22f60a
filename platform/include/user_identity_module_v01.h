/*
 * user_identity_module_v01.h - C records and message ids of the standard QMI
 * UIM service (SIM card), interface revision 1.102, for the messages the host
 * service object describes: card status, power down/up, logical channels,
 * APDUs and the EID. Enumerations and counts are 32 bits in these records;
 * the service object's tables give their (usually 1-byte) wire widths.
 */
#ifndef USER_IDENTITY_MODULE_V01_H
#define USER_IDENTITY_MODULE_V01_H

#include <stdint.h>

#include "common_v01.h"
#include "qmi_idl_lib.h"

#ifdef __cplusplus
extern "C" {
#endif

#define UIM_V01_IDL_MAJOR_VERS 0x01
#define UIM_V01_IDL_MINOR_VERS 0x66
#define UIM_V01_IDL_TOOL_VERS 0x06
#define QMI_UIM_SERVICE_ID_V01 0x0B

/* ---- message ids (request and response share the id) ---- */
#define QMI_UIM_GET_CARD_STATUS_REQ_V01 0x002F
#define QMI_UIM_GET_CARD_STATUS_RESP_V01 0x002F
#define QMI_UIM_POWER_DOWN_REQ_V01 0x0030
#define QMI_UIM_POWER_DOWN_RESP_V01 0x0030
#define QMI_UIM_POWER_UP_REQ_V01 0x0031
#define QMI_UIM_POWER_UP_RESP_V01 0x0031
#define QMI_UIM_SEND_APDU_REQ_V01 0x003B
#define QMI_UIM_SEND_APDU_RESP_V01 0x003B
#define QMI_UIM_LOGICAL_CHANNEL_REQ_V01 0x003F
#define QMI_UIM_LOGICAL_CHANNEL_RESP_V01 0x003F
#define QMI_UIM_OPEN_LOGICAL_CHANNEL_REQ_V01 0x0042
#define QMI_UIM_OPEN_LOGICAL_CHANNEL_RESP_V01 0x0042
#define QMI_UIM_GET_EID_REQ_V01 0x0065
#define QMI_UIM_GET_EID_RESP_V01 0x0065

/* ---- array limits ---- */
#define QMI_UIM_CARDS_MAX_V01 2             /* cards in the legacy card status */
#define QMI_UIM_APPS_MAX_V01 8              /* applications per legacy card */
#define QMI_UIM_EXTENDED_CARDS_MAX_V01 6    /* cards in the extended card status */
#define QMI_UIM_EXTENDED_APPS_MAX_V01 20    /* applications per extended card */
#define QMI_UIM_EXTENDED_SESSIONS_MAX_V01 6 /* GW / 1X session index entries */
#define QMI_UIM_AID_MAX_V01 32
#define QMI_UIM_SELECT_RESPONSE_MAX_V01 255
#define QMI_UIM_APDU_DATA_MAX_V01 1024
#define QMI_UIM_EID_LEN_V01 16

/* ---- enumerations (32 bits here) ---- */
typedef enum {
    UIM_SLOT_ENUM_MIN_ENUM_VAL_V01 = -2147483647,
    UIM_SLOT_1_V01 = 0x01,
    UIM_SLOT_2_V01 = 0x02,
    UIM_SLOT_3_V01 = 0x03,
    UIM_SLOT_4_V01 = 0x04,
    UIM_SLOT_5_V01 = 0x05,
    UIM_SLOT_ENUM_MAX_ENUM_VAL_V01 = 2147483647
} uim_slot_enum_v01;

typedef enum {
    UIM_CARD_MODE_ENUM_MIN_ENUM_VAL_V01 = -2147483647,
    UIM_CARD_MODE_TELECOM_CARD_V01 = 0x00,
    UIM_CARD_MODE_NON_TELECOM_CARD_V01 = 0x01,
    UIM_CARD_MODE_ENUM_MAX_ENUM_VAL_V01 = 2147483647
} uim_card_mode_enum_v01;

typedef enum {
    UIM_CARD_STATE_ENUM_MIN_ENUM_VAL_V01 = -2147483647,
    UIM_CARD_STATE_ABSENT_V01 = 0x00,
    UIM_CARD_STATE_PRESENT_V01 = 0x01,
    UIM_CARD_STATE_ERROR_V01 = 0x02,
    UIM_CARD_STATE_UNKNOWN_V01 = 0x03,
    UIM_CARD_STATE_ENUM_MAX_ENUM_VAL_V01 = 2147483647
} uim_card_state_enum_v01;

typedef enum {
    UIM_PIN_STATE_ENUM_MIN_ENUM_VAL_V01 = -2147483647,
    UIM_PIN_STATE_UNKNOWN_V01 = 0x00,
    UIM_PIN_STATE_ENABLED_NOT_VERIFIED_V01 = 0x01,
    UIM_PIN_STATE_ENABLED_VERIFIED_V01 = 0x02,
    UIM_PIN_STATE_DISABLED_V01 = 0x03,
    UIM_PIN_STATE_BLOCKED_V01 = 0x04,
    UIM_PIN_STATE_PERMANENTLY_BLOCKED_V01 = 0x05,
    UIM_PIN_STATE_ENUM_MAX_ENUM_VAL_V01 = 2147483647
} uim_pin_state_enum_v01;

typedef enum {
    UIM_APP_TYPE_ENUM_MIN_ENUM_VAL_V01 = -2147483647,
    UIM_APP_TYPE_UNKNOWN_V01 = 0x00,
    UIM_APP_TYPE_SIM_V01 = 0x01,
    UIM_APP_TYPE_USIM_V01 = 0x02,
    UIM_APP_TYPE_RUIM_V01 = 0x03,
    UIM_APP_TYPE_CSIM_V01 = 0x04,
    UIM_APP_TYPE_ISIM_V01 = 0x05,
    UIM_APP_TYPE_ENUM_MAX_ENUM_VAL_V01 = 2147483647
} uim_app_type_enum_v01;

typedef enum {
    UIM_APP_STATE_ENUM_MIN_ENUM_VAL_V01 = -2147483647,
    UIM_APP_STATE_UNKNOWN_V01 = 0x00,
    UIM_APP_STATE_DETECTED_V01 = 0x01,
    UIM_APP_STATE_PIN1_OR_UPIN_REQ_V01 = 0x02,
    UIM_APP_STATE_PUK1_OR_PUK_REQ_V01 = 0x03,
    UIM_APP_STATE_PERSON_CHECK_REQ_V01 = 0x04,
    UIM_APP_STATE_PIN1_PERM_BLOCKED_V01 = 0x05,
    UIM_APP_STATE_ILLEGAL_V01 = 0x06,
    UIM_APP_STATE_READY_V01 = 0x07,
    UIM_APP_STATE_ENUM_MAX_ENUM_VAL_V01 = 2147483647
} uim_app_state_enum_v01;

typedef enum {
    UIM_HOT_SWAP_ENUM_MIN_ENUM_VAL_V01 = -2147483647,
    UIM_HOT_SWAP_NOT_SUPPORTED_V01 = 0x00,
    UIM_HOT_SWAP_STATUS_UNKNOWN_V01 = 0x01,
    UIM_HOT_SWAP_STATUS_PRESENT_V01 = 0x02,
    UIM_HOT_SWAP_STATUS_NOT_PRESENT_V01 = 0x03,
    UIM_HOT_SWAP_ENUM_MAX_ENUM_VAL_V01 = 2147483647
} uim_hot_swap_status_enum_v01;

typedef enum {
    UIM_FILE_CONTROL_INFORMATION_ENUM_MIN_ENUM_VAL_V01 = -2147483647,
    UIM_FILE_CONTROL_INFORMATION_NO_DATA_V01 = 0x00,
    UIM_FILE_CONTROL_INFORMATION_FCP_V01 = 0x01,
    UIM_FILE_CONTROL_INFORMATION_FCI_V01 = 0x02,
    UIM_FILE_CONTROL_INFORMATION_FCI_WITH_INTERFACES_V01 = 0x03,
    UIM_FILE_CONTROL_INFORMATION_FMD_V01 = 0x04,
    UIM_FILE_CONTROL_INFORMATION_ENUM_MAX_ENUM_VAL_V01 = 2147483647
} uim_file_control_information_enum_v01;

/* Personalisation state and feature, card error code and UPIN replacement
 * are enumerations of the service as well; the records keep them as 32-bit
 * values with the numbers the modem sends. */
typedef uint32_t uim_perso_state_enum_v01;
typedef uint32_t uim_perso_feature_status_enum_v01;
typedef uint32_t uim_card_error_code_enum_v01;
typedef uint32_t uim_univ_pin_enum_v01;

/* ---- card status ---- */
typedef struct {
    uint8_t extended_card_status_valid;
    uint8_t extended_card_status; /* 1: also send the extended card status */
} uim_get_card_status_req_msg_v01;

typedef struct {
    uim_pin_state_enum_v01 pin_state;
    uint8_t pin_retries;
    uint8_t puk_retries;
} uim_pin_info_type_v01;

typedef struct {
    uim_app_type_enum_v01 app_type;
    uim_app_state_enum_v01 app_state;
    uim_perso_state_enum_v01 perso_state;
    uim_perso_feature_status_enum_v01 perso_feature;
    uint8_t perso_retries;
    uint8_t perso_unblock_retries;
    uint32_t aid_value_len;
    uint8_t aid_value[QMI_UIM_AID_MAX_V01];
    uim_univ_pin_enum_v01 univ_pin;
    uim_pin_info_type_v01 pin1;
    uim_pin_info_type_v01 pin2;
} uim_app_info_type_v01;

typedef struct {
    uim_card_state_enum_v01 card_state;
    uim_pin_info_type_v01 upin;
    uim_card_error_code_enum_v01 error_code;
    uint32_t app_info_len;
    uim_app_info_type_v01 app_info[QMI_UIM_APPS_MAX_V01];
} uim_card_info_type_v01;

/* Session indexes: high byte the slot, low byte the application (0xFFFF: none). */
typedef struct {
    uint16_t index_gw_pri;
    uint16_t index_1x_pri;
    uint16_t index_gw_sec;
    uint16_t index_1x_sec;
    uint32_t card_info_len;
    uim_card_info_type_v01 card_info[QMI_UIM_CARDS_MAX_V01];
} uim_card_status_type_v01;

/* A card of the extended status: the legacy card layout with room for more
 * applications. */
typedef struct {
    uim_card_state_enum_v01 card_state;
    uim_pin_info_type_v01 upin;
    uim_card_error_code_enum_v01 error_code;
    uint32_t app_info_len;
    uim_app_info_type_v01 app_info[QMI_UIM_EXTENDED_APPS_MAX_V01];
} uim_extended_card_info_type_v01;

typedef struct {
    uint32_t index_gw_len;
    uint16_t index_gw[QMI_UIM_EXTENDED_SESSIONS_MAX_V01];
    uint32_t index_1x_len;
    uint16_t index_1x[QMI_UIM_EXTENDED_SESSIONS_MAX_V01];
    uint32_t card_info_len;
    uim_extended_card_info_type_v01 card_info[QMI_UIM_EXTENDED_CARDS_MAX_V01];
} uim_extended_card_status_type_v01;

/*
 * Card status response, 10616 bytes:
 *       0  resp                                 8   TLV 0x02
 *       8  card_status_valid + pad              4
 *      12  card_status                       1268   TLV 0x10: 4 x u16 indexes, u32 count,
 *                                                   2 cards x 628 (20 + 8 apps x 76)
 *    1280  hot_swap valid/pad, len, 2 x u32    16   TLV 0x11
 *    1296  card_status_validity valid/pad,
 *          len, 2 x u8, valid of the next       12   TLV 0x12 (+ the 0x13 valid byte at 1306)
 *    1308  extended_card_status              9276   TLV 0x13: u32 + 6 x u16, u32 + 6 x u16,
 *                                                   u32 count, 6 cards x 1540 (20 + 20 apps x 76)
 *   10584  extended_hot_swap valid/pad, len,
 *          6 x u32                             32   TLV 0x14
 *   10616
 */
typedef struct {
    qmi_response_type_v01 resp;
    uint8_t card_status_valid;
    uim_card_status_type_v01 card_status;
    uint8_t hot_swap_valid;
    uint32_t hot_swap_len;
    uim_hot_swap_status_enum_v01 hot_swap[QMI_UIM_CARDS_MAX_V01];
    uint8_t card_status_validity_valid;
    uint32_t card_status_validity_len;
    uint8_t card_status_validity[QMI_UIM_CARDS_MAX_V01];
    uint8_t extended_card_status_valid;
    uim_extended_card_status_type_v01 extended_card_status;
    uint8_t extended_hot_swap_valid;
    uint32_t extended_hot_swap_len;
    uim_hot_swap_status_enum_v01 extended_hot_swap[QMI_UIM_EXTENDED_CARDS_MAX_V01];
} uim_get_card_status_resp_msg_v01;

/* ---- power down / up ---- */
typedef struct {
    uim_slot_enum_v01 slot;
} uim_power_down_req_msg_v01;

typedef struct {
    qmi_response_type_v01 resp;
} uim_power_down_resp_msg_v01;

typedef struct {
    uim_slot_enum_v01 slot;
    uint8_t ignore_hotswap_switch_valid;
    uint8_t ignore_hotswap_switch; /* 1: ignore the slot's hot-swap switch */
    uint8_t card_mode_valid;
    uim_card_mode_enum_v01 card_mode;
} uim_power_up_req_msg_v01;

typedef struct {
    qmi_response_type_v01 resp;
} uim_power_up_resp_msg_v01;

/* ---- logical channels ---- */
typedef struct {
    uim_slot_enum_v01 slot;
    uint8_t aid_valid;
    uint32_t aid_len;
    uint8_t aid[QMI_UIM_AID_MAX_V01];
    uint8_t file_control_information_valid;
    uim_file_control_information_enum_v01 file_control_information;
} uim_open_logical_channel_req_msg_v01;

typedef struct {
    uint8_t sw1;
    uint8_t sw2;
} uim_card_result_type_v01;

/* Response of open (0x42) and of the logical-channel request (0x3F). The
 * select response comes in TLV 0x12 (u8 count); one longer than 255 bytes
 * comes in TLV 0x13 with a u16 count instead. */
typedef struct {
    qmi_response_type_v01 resp;
    uint8_t channel_id_valid;
    uint8_t channel_id;
    uint8_t card_result_valid;
    uim_card_result_type_v01 card_result;
    uint8_t select_response_valid;
    uint32_t select_response_len;
    uint8_t select_response[QMI_UIM_SELECT_RESPONSE_MAX_V01];
    uint8_t long_select_response_valid;
    uint32_t long_select_response_len;
    uint8_t long_select_response[QMI_UIM_APDU_DATA_MAX_V01];
} uim_open_logical_channel_resp_msg_v01;

typedef struct {
    uim_slot_enum_v01 slot;
    uint8_t aid_valid;
    uint32_t aid_len;
    uint8_t aid[QMI_UIM_AID_MAX_V01];
    uint8_t channel_id_valid;
    uint8_t channel_id;
    uint8_t file_control_information_valid;
    uim_file_control_information_enum_v01 file_control_information;
    uint8_t terminate_application_valid;
    uint8_t terminate_application;
} uim_logical_channel_req_msg_v01;

typedef uim_open_logical_channel_resp_msg_v01 uim_logical_channel_resp_msg_v01;

/* ---- APDU ---- */
/* One piece of a command APDU sent in several requests. */
typedef struct {
    uint32_t token;
    uint32_t total_length; /* u16 on the wire */
    uint32_t offset;       /* u16 on the wire */
} uim_apdu_chunk_type_v01;

typedef struct {
    uim_slot_enum_v01 slot;
    uint32_t apdu_len;
    uint8_t apdu[QMI_UIM_APDU_DATA_MAX_V01];
    uint8_t channel_id_valid;
    uint8_t channel_id;
    uint8_t procedure_bytes_valid;
    uint32_t procedure_bytes; /* 0: return intermediate procedure bytes, 1: final result */
    uint8_t apdu_chunk_valid;
    uim_apdu_chunk_type_v01 apdu_chunk;
} uim_send_apdu_req_msg_v01;

/* A response too long for one message: its length and the token of the
 * indications that carry it. */
typedef struct {
    uint16_t total_length;
    uint32_t token;
} uim_long_apdu_response_type_v01;

typedef struct {
    qmi_response_type_v01 resp;
    uint8_t apdu_valid;
    uint32_t apdu_len;
    uint8_t apdu[QMI_UIM_APDU_DATA_MAX_V01];
    uint8_t long_response_valid;
    uim_long_apdu_response_type_v01 long_response;
} uim_send_apdu_resp_msg_v01;

/* ---- EID ---- */
typedef struct {
    uim_slot_enum_v01 slot;
} uim_get_eid_req_msg_v01;

typedef struct {
    qmi_response_type_v01 resp;
    uint8_t eid_value_valid;
    uint32_t eid_value_len;
    uint8_t eid_value[QMI_UIM_EID_LEN_V01];
} uim_get_eid_resp_msg_v01;

/* The UIM service object, only for exactly the version triple 1 / 102 / 6. */
qmi_idl_service_object_type uim_get_service_object_internal_v01(int32_t idl_maj_version,
                                                                int32_t idl_min_version,
                                                                int32_t library_version);
#define uim_get_service_object_v01()                                                               \
    uim_get_service_object_internal_v01(UIM_V01_IDL_MAJOR_VERS, UIM_V01_IDL_MINOR_VERS,            \
                                        UIM_V01_IDL_TOOL_VERS)

#ifdef __cplusplus
}
#endif

#endif /* USER_IDENTITY_MODULE_V01_H */
