/*
 * network_access_service_v01.h - C records and message ids of the standard
 * QMI NAS service, interface revision 1.378, for the two requests a client
 * makes when it opens: registering for indications and binding to a
 * subscription.
 */
#ifndef NETWORK_ACCESS_SERVICE_V01_H
#define NETWORK_ACCESS_SERVICE_V01_H

#include <stdint.h>

#include "common_v01.h"
#include "qmi_idl_lib.h"

#ifdef __cplusplus
extern "C" {
#endif

#define NAS_V01_IDL_MAJOR_VERS 0x01
#define NAS_V01_IDL_MINOR_VERS 0x17A
#define NAS_V01_IDL_TOOL_VERS 0x06
#define QMI_NAS_SERVICE_ID_V01 0x03

#define QMI_NAS_INDICATION_REGISTER_REQ_MSG_V01 0x0003
#define QMI_NAS_INDICATION_REGISTER_RESP_MSG_V01 0x0003
#define QMI_NAS_BIND_SUBSCRIPTION_REQ_MSG_V01 0x0045
#define QMI_NAS_BIND_SUBSCRIPTION_RESP_MSG_V01 0x0045

/* Subscription a client binds to; 32 bits here, u8 on the wire. */
typedef enum {
    NAS_SUBS_TYPE_ENUM_MIN_ENUM_VAL_V01 = -2147483647,
    NAS_PRIMARY_SUBSCRIPTION_V01 = 0x00,
    NAS_SECONDARY_SUBSCRIPTION_V01 = 0x01,
    NAS_TERTIARY_SUBSCRIPTION_V01 = 0x02,
    NAS_SUBS_TYPE_ENUM_MAX_ENUM_VAL_V01 = 2147483647
} nas_subs_type_enum_v01;

typedef struct {
    nas_subs_type_enum_v01 subs_type; /* TLV 0x01 */
} nas_bind_subscription_req_msg_v01;

typedef struct {
    qmi_response_type_v01 resp;
} nas_bind_subscription_resp_msg_v01;

/* TLV 0x21: report network rejects, and whether to hold back the system-info
 * indications meanwhile. */
typedef struct {
    uint8_t reg_network_reject;
    uint8_t suppress_sys_info;
} nas_network_reject_config_type_v01;

#define NAS_REG_MORE_SWITCHES_V01 62

/* Indication registration, 169 bytes: one valid flag and one u8 switch
 * (1 = report) per TLV, TLV 0x10 first and then 0x12 onwards; TLV 0x21 holds
 * two bytes. Only the TLVs whose valid flag is set go on the wire. */
typedef struct {
    uint8_t reg_sys_sel_pref_valid; /* TLV 0x10 */
    uint8_t reg_sys_sel_pref;
    uint8_t reg_ddtm_events_valid; /* TLV 0x12 */
    uint8_t reg_ddtm_events;
    uint8_t req_serving_system_valid; /* TLV 0x13 */
    uint8_t req_serving_system;
    uint8_t dual_standby_pref_valid; /* TLV 0x14 */
    uint8_t dual_standby_pref;
    uint8_t subscription_info_valid; /* TLV 0x15 */
    uint8_t subscription_info;
    uint8_t reg_network_time_valid; /* TLV 0x17 */
    uint8_t reg_network_time;
    uint8_t sys_info_valid; /* TLV 0x18 */
    uint8_t sys_info;
    uint8_t sig_info_valid; /* TLV 0x19 */
    uint8_t sig_info;
    uint8_t err_rate_valid; /* TLV 0x1A */
    uint8_t err_rate;
    uint8_t reg_hdr_uati_valid; /* TLV 0x1B */
    uint8_t reg_hdr_uati;
    uint8_t reg_hdr_session_close_valid; /* TLV 0x1C */
    uint8_t reg_hdr_session_close;
    uint8_t reg_managed_roaming_valid; /* TLV 0x1D */
    uint8_t reg_managed_roaming;
    uint8_t reg_current_plmn_name_valid; /* TLV 0x1E */
    uint8_t reg_current_plmn_name;
    uint8_t reg_embms_status_valid; /* TLV 0x1F */
    uint8_t reg_embms_status;
    uint8_t reg_rf_band_info_valid; /* TLV 0x20 */
    uint8_t reg_rf_band_info;
    uint8_t network_reject_valid; /* TLV 0x21 */
    nas_network_reject_config_type_v01 network_reject;
    uint8_t reg_operator_name_data_valid; /* TLV 0x22 */
    uint8_t reg_operator_name_data;
    uint8_t reg_csp_plmn_mode_bit_valid; /* TLV 0x23 */
    uint8_t reg_csp_plmn_mode_bit;
    uint8_t reg_rtre_cfg_valid; /* TLV 0x24 */
    uint8_t reg_rtre_cfg;
    uint8_t reg_ims_pref_status_valid; /* TLV 0x25 */
    uint8_t reg_ims_pref_status;
    uint8_t reg_e911_state_ready_valid; /* TLV 0x26 */
    uint8_t reg_e911_state_ready;
    uint8_t reg_lte_sib16_network_time_valid; /* TLV 0x27 */
    uint8_t reg_lte_sib16_network_time;
    /* TLVs 0x28 to 0x65: further indication switches of the revision, one
     * valid/value pair each, in TLV order. */
    uint8_t reg_more[NAS_REG_MORE_SWITCHES_V01][2];
} nas_indication_register_req_msg_v01;

typedef struct {
    qmi_response_type_v01 resp;
} nas_indication_register_resp_msg_v01;

/* The NAS service object, only for exactly the version triple 1 / 378 / 6. */
qmi_idl_service_object_type nas_get_service_object_internal_v01(int32_t idl_maj_version,
                                                                int32_t idl_min_version,
                                                                int32_t library_version);
#define nas_get_service_object_v01()                                                               \
    nas_get_service_object_internal_v01(NAS_V01_IDL_MAJOR_VERS, NAS_V01_IDL_MINOR_VERS,            \
                                        NAS_V01_IDL_TOOL_VERS)

#ifdef __cplusplus
}
#endif

#endif /* NETWORK_ACCESS_SERVICE_V01_H */
