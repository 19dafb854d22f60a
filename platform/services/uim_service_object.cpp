// uim_service_object.cpp - the service object of the standard QMI UIM service
// (revision 1.102) as the host client library uses it: the element tables of
// card status, power down/up, logical channels, APDUs and the EID, whose wire
// forms are the published UIM layouts (enums, slots and bools one byte on the
// wire; APDU counts two bytes; the result pair 2 + 2 bytes).
//
// Published sources, per message below: libqmi's data/qmi-service-uim.json
// (and data/qmi-common.json for the result pair), the Gobi API 2013 structs
// (GobiConnectionMgmtAPIStructs.h, packed, enums with a UINT8 base) and
// ChromiumOS Hermes hermes/uim_cmd.qmi. Two items have no published layout
// and are this host's choice: the card mode TLV 0x11 of Power On and the
// whole of Get EID 0x0065 (a public diag decode shows its request is the
// slot alone and its answer one TLV of u8 16 + the EID).
//
// The object describes only these seven messages. Its declared message counts
// and its largest message are those of the messages described here (7 / 7 / 0,
// 6375 bytes, the card status response filled to every maximum): the host has
// no other UIM message to offer, and a larger figure would promise one.
#include <user_identity_module_v01.h>

#include "idl_rows.h"

#include <cstddef>

namespace {

using namespace qmi_rows;

/* ---- record sizes the tool's callers rely on ---- */
static_assert(sizeof(qmi_response_type_v01) == 8);
static_assert(sizeof(uim_get_card_status_req_msg_v01) == 2);
static_assert(sizeof(uim_app_info_type_v01) == 76);
static_assert(sizeof(uim_card_info_type_v01) == 628);
static_assert(sizeof(uim_card_status_type_v01) == 1268);
static_assert(sizeof(uim_extended_card_info_type_v01) == 1540);
static_assert(sizeof(uim_extended_card_status_type_v01) == 9276);
static_assert(sizeof(uim_get_card_status_resp_msg_v01) == 10616);
static_assert(sizeof(uim_power_down_req_msg_v01) == 4);
static_assert(sizeof(uim_power_down_resp_msg_v01) == 8);
static_assert(sizeof(uim_power_up_req_msg_v01) == 12);
static_assert(sizeof(uim_power_up_resp_msg_v01) == 8);
static_assert(sizeof(uim_open_logical_channel_req_msg_v01) == 52);
static_assert(sizeof(uim_open_logical_channel_resp_msg_v01) == 1304);
static_assert(sizeof(uim_logical_channel_req_msg_v01) == 56);
static_assert(sizeof(uim_logical_channel_resp_msg_v01) == 1304);
static_assert(sizeof(uim_send_apdu_req_msg_v01) == 1056);
static_assert(sizeof(uim_send_apdu_resp_msg_v01) == 1052);
static_assert(sizeof(uim_get_eid_req_msg_v01) == 4);
static_assert(sizeof(uim_get_eid_resp_msg_v01) == 32);

/* ---- largest encoded TLV payloads ---- */
constexpr uint16_t kResultOnly = 7;
constexpr uint16_t kAppWire = 14 + QMI_UIM_AID_MAX_V01;                        // 46
constexpr uint16_t kCardWire = 6 + QMI_UIM_APPS_MAX_V01 * kAppWire;            // 374
constexpr uint16_t kExtCardWire = 6 + QMI_UIM_EXTENDED_APPS_MAX_V01 * kAppWire; // 926
constexpr uint16_t kCardStatusRespMax =
    kResultOnly + (3 + 9 + QMI_UIM_CARDS_MAX_V01 * kCardWire)                // 0x10
    + (3 + 1 + QMI_UIM_CARDS_MAX_V01) + (3 + 1 + QMI_UIM_CARDS_MAX_V01)      // 0x11, 0x12
    + (3 + 2 * (1 + 2 * QMI_UIM_EXTENDED_SESSIONS_MAX_V01) + 1 +
       QMI_UIM_EXTENDED_CARDS_MAX_V01 * kExtCardWire)                        // 0x13
    + (3 + 1 + QMI_UIM_EXTENDED_CARDS_MAX_V01);                              // 0x14
static_assert(kCardStatusRespMax == 6375);
constexpr uint16_t kChannelRespMax = kResultOnly + 4 + 5 + (4 + QMI_UIM_SELECT_RESPONSE_MAX_V01) +
                                     (5 + QMI_UIM_APDU_DATA_MAX_V01); // 1304
constexpr uint16_t kOpenReqMax = 4 + (4 + QMI_UIM_AID_MAX_V01) + 4;   // 44
constexpr uint16_t kCloseReqMax = kOpenReqMax + 4 + 4;                // 52
constexpr uint16_t kApduReqMax = 4 + (5 + QMI_UIM_APDU_DATA_MAX_V01) + 4 + 4 + 11; // 1052
constexpr uint16_t kApduRespMax = kResultOnly + (5 + QMI_UIM_APDU_DATA_MAX_V01) + 9; // 1045
constexpr uint16_t kEidRespMax = kResultOnly + 4 + QMI_UIM_EID_LEN_V01;              // 27

/* ---- nested layouts ---- */
#define OFF(T, f) offsetof(T, f)

constexpr Row pin_ei[] = {
    u(0, 4, 1, OFF(uim_pin_info_type_v01, pin_state)),
    u(0, 1, 1, OFF(uim_pin_info_type_v01, pin_retries)),
    u(0, 1, 1, OFF(uim_pin_info_type_v01, puk_retries)),
    end(),
};

constexpr Row app_ei[] = {
    u(0, 4, 1, OFF(uim_app_info_type_v01, app_type)),
    u(0, 4, 1, OFF(uim_app_info_type_v01, app_state)),
    u(0, 4, 1, OFF(uim_app_info_type_v01, perso_state)),
    u(0, 4, 1, OFF(uim_app_info_type_v01, perso_feature)),
    u(0, 1, 1, OFF(uim_app_info_type_v01, perso_retries)),
    u(0, 1, 1, OFF(uim_app_info_type_v01, perso_unblock_retries)),
    count(0, 1, OFF(uim_app_info_type_v01, aid_value_len)),
    var_u(0, 1, 1, QMI_UIM_AID_MAX_V01, OFF(uim_app_info_type_v01, aid_value)),
    u(0, 4, 1, OFF(uim_app_info_type_v01, univ_pin)),
    st(0, pin_ei, sizeof(uim_pin_info_type_v01), OFF(uim_app_info_type_v01, pin1)),
    st(0, pin_ei, sizeof(uim_pin_info_type_v01), OFF(uim_app_info_type_v01, pin2)),
    end(),
};

// Legacy and extended cards share the wire layout; only the application
// maximum differs.
template <typename Card, uint32_t MaxApps> constexpr Row card_ei[] = {
    u(0, 4, 1, OFF(Card, card_state)),
    st(0, pin_ei, sizeof(uim_pin_info_type_v01), OFF(Card, upin)),
    u(0, 4, 1, OFF(Card, error_code)),
    count(0, 1, OFF(Card, app_info_len)),
    var_st(0, app_ei, sizeof(uim_app_info_type_v01), MaxApps, OFF(Card, app_info)),
    end(),
};

constexpr Row card_status_ei[] = {
    u(0, 2, 2, OFF(uim_card_status_type_v01, index_gw_pri)),
    u(0, 2, 2, OFF(uim_card_status_type_v01, index_1x_pri)),
    u(0, 2, 2, OFF(uim_card_status_type_v01, index_gw_sec)),
    u(0, 2, 2, OFF(uim_card_status_type_v01, index_1x_sec)),
    count(0, 1, OFF(uim_card_status_type_v01, card_info_len)),
    var_st(0, card_ei<uim_card_info_type_v01, QMI_UIM_APPS_MAX_V01>, sizeof(uim_card_info_type_v01),
           QMI_UIM_CARDS_MAX_V01, OFF(uim_card_status_type_v01, card_info)),
    end(),
};

using ExtStatus = uim_extended_card_status_type_v01;
constexpr Row ext_card_status_ei[] = {
    count(0, 1, OFF(ExtStatus, index_gw_len)),
    var_u(0, 2, 2, QMI_UIM_EXTENDED_SESSIONS_MAX_V01, OFF(ExtStatus, index_gw)),
    count(0, 1, OFF(ExtStatus, index_1x_len)),
    var_u(0, 2, 2, QMI_UIM_EXTENDED_SESSIONS_MAX_V01, OFF(ExtStatus, index_1x)),
    count(0, 1, OFF(ExtStatus, card_info_len)),
    var_st(0, card_ei<uim_extended_card_info_type_v01, QMI_UIM_EXTENDED_APPS_MAX_V01>,
           sizeof(uim_extended_card_info_type_v01), QMI_UIM_EXTENDED_CARDS_MAX_V01, OFF(ExtStatus, card_info)),
    end(),
};

constexpr Row card_result_ei[] = {
    u(0, 1, 1, OFF(uim_card_result_type_v01, sw1)),
    u(0, 1, 1, OFF(uim_card_result_type_v01, sw2)),
    end(),
};

constexpr Row apdu_chunk_ei[] = {
    u(0, 4, 4, OFF(uim_apdu_chunk_type_v01, token)),
    u(0, 4, 2, OFF(uim_apdu_chunk_type_v01, total_length)),
    u(0, 4, 2, OFF(uim_apdu_chunk_type_v01, offset)),
    end(),
};

constexpr Row long_apdu_ei[] = {
    u(0, 2, 2, OFF(uim_long_apdu_response_type_v01, total_length)),
    u(0, 4, 4, OFF(uim_long_apdu_response_type_v01, token)),
    end(),
};

/* ---- messages ---- */

// Get Card Status 0x002F. Request TLV 0x10 extended status (u8 bool): Gobi
// only (libqmi sends no TLV). Response: TLV 0x10 the card status of libqmi's
// "UIM Card Status" (indexes u16 with the slot in the high byte, every enum
// one byte), 0x11 hot-swap, 0x12 valid card status, 0x13 extended card
// status and 0x14 extended hot-swap from Gobi.
constexpr Row card_status_req_ei[] = {
    opt(0x10, OFF(uim_get_card_status_req_msg_v01, extended_card_status_valid)),
    u(0x10, 1, 1, OFF(uim_get_card_status_req_msg_v01, extended_card_status)),
    end(),
};

using CardStatusResp = uim_get_card_status_resp_msg_v01;
constexpr Row card_status_resp_ei[] = {
    result_row(OFF(CardStatusResp, resp)),
    error_row(OFF(CardStatusResp, resp)),
    opt(0x10, OFF(CardStatusResp, card_status_valid)),
    st(0x10, card_status_ei, sizeof(uim_card_status_type_v01), OFF(CardStatusResp, card_status)),
    opt(0x11, OFF(CardStatusResp, hot_swap_valid)),
    count(0x11, 1, OFF(CardStatusResp, hot_swap_len)),
    var_u(0x11, 4, 1, QMI_UIM_CARDS_MAX_V01, OFF(CardStatusResp, hot_swap)),
    opt(0x12, OFF(CardStatusResp, card_status_validity_valid)),
    count(0x12, 1, OFF(CardStatusResp, card_status_validity_len)),
    var_u(0x12, 1, 1, QMI_UIM_CARDS_MAX_V01, OFF(CardStatusResp, card_status_validity)),
    opt(0x13, OFF(CardStatusResp, extended_card_status_valid)),
    st(0x13, ext_card_status_ei, sizeof(ExtStatus), OFF(CardStatusResp, extended_card_status)),
    opt(0x14, OFF(CardStatusResp, extended_hot_swap_valid)),
    count(0x14, 1, OFF(CardStatusResp, extended_hot_swap_len)),
    var_u(0x14, 4, 1, QMI_UIM_EXTENDED_CARDS_MAX_V01, OFF(CardStatusResp, extended_hot_swap)),
    end(),
};

template <typename Resp> constexpr Row result_only_ei[] = {
    result_row(OFF(Resp, resp)),
    error_row(OFF(Resp, resp)),
    end(),
};

// Power Off SIM 0x0030: TLV 0x01 slot, u8 (libqmi, Gobi).
constexpr Row power_down_req_ei[] = {
    u(0x01, 4, 1, OFF(uim_power_down_req_msg_v01, slot)),
    end(),
};

// Power On SIM 0x0031: TLV 0x01 slot u8 (libqmi); TLV 0x10 ignore hot-swap
// switch u8 (Gobi, lite-qmi's uim.h); TLV 0x11 card mode u8 (no published
// source: this host's choice).
constexpr Row power_up_req_ei[] = {
    u(0x01, 4, 1, OFF(uim_power_up_req_msg_v01, slot)),
    opt(0x10, OFF(uim_power_up_req_msg_v01, ignore_hotswap_switch_valid)),
    u(0x10, 1, 1, OFF(uim_power_up_req_msg_v01, ignore_hotswap_switch)),
    opt(0x11, OFF(uim_power_up_req_msg_v01, card_mode_valid)),
    u(0x11, 4, 1, OFF(uim_power_up_req_msg_v01, card_mode)),
    end(),
};

// Open Logical Channel 0x0042 (libqmi, Hermes, Gobi): TLV 0x01 slot, 0x10
// AID u8 n + n, 0x11 file control information u8. Response: 0x10 channel id,
// 0x11 card result SW1 SW2, 0x12 select response u8 n + n; 0x13 the long
// select response (u16 n + n) is the IDL's and decoded only when sent.
using OpenReq = uim_open_logical_channel_req_msg_v01;
constexpr Row open_req_ei[] = {
    u(0x01, 4, 1, OFF(OpenReq, slot)),
    opt(0x10, OFF(OpenReq, aid_valid)),
    count(0x10, 1, OFF(OpenReq, aid_len)),
    var_u(0x10, 1, 1, QMI_UIM_AID_MAX_V01, OFF(OpenReq, aid)),
    opt(0x11, OFF(OpenReq, file_control_information_valid)),
    u(0x11, 4, 1, OFF(OpenReq, file_control_information)),
    end(),
};

using ChannelResp = uim_open_logical_channel_resp_msg_v01;
constexpr Row channel_resp_ei[] = {
    result_row(OFF(ChannelResp, resp)),
    error_row(OFF(ChannelResp, resp)),
    opt(0x10, OFF(ChannelResp, channel_id_valid)),
    u(0x10, 1, 1, OFF(ChannelResp, channel_id)),
    opt(0x11, OFF(ChannelResp, card_result_valid)),
    st(0x11, card_result_ei, sizeof(uim_card_result_type_v01), OFF(ChannelResp, card_result)),
    opt(0x12, OFF(ChannelResp, select_response_valid)),
    count(0x12, 1, OFF(ChannelResp, select_response_len)),
    var_u(0x12, 1, 1, QMI_UIM_SELECT_RESPONSE_MAX_V01, OFF(ChannelResp, select_response)),
    opt(0x13, OFF(ChannelResp, long_select_response_valid)),
    count(0x13, 2, OFF(ChannelResp, long_select_response_len)),
    var_u(0x13, 1, 1, QMI_UIM_APDU_DATA_MAX_V01, OFF(ChannelResp, long_select_response)),
    end(),
};

// Logical Channel 0x003F, used to close one (libqmi, Gobi): TLV 0x01 slot,
// 0x10 AID, 0x11 channel id, 0x12 file control information, 0x13 terminate
// application, every one u8 (the AID u8 n + n).
using CloseReq = uim_logical_channel_req_msg_v01;
constexpr Row close_req_ei[] = {
    u(0x01, 4, 1, OFF(CloseReq, slot)),
    opt(0x10, OFF(CloseReq, aid_valid)),
    count(0x10, 1, OFF(CloseReq, aid_len)),
    var_u(0x10, 1, 1, QMI_UIM_AID_MAX_V01, OFF(CloseReq, aid)),
    opt(0x11, OFF(CloseReq, channel_id_valid)),
    u(0x11, 1, 1, OFF(CloseReq, channel_id)),
    opt(0x12, OFF(CloseReq, file_control_information_valid)),
    u(0x12, 4, 1, OFF(CloseReq, file_control_information)),
    opt(0x13, OFF(CloseReq, terminate_application_valid)),
    u(0x13, 1, 1, OFF(CloseReq, terminate_application)),
    end(),
};

// Send APDU 0x003B (libqmi, Hermes; Gobi adds the long response): TLV 0x01
// slot, 0x02 APDU u16 n + n, 0x10 channel id u8, 0x11 procedure bytes u8.
// Response 0x10 APDU u16 n + n, 0x11 long response (Gobi). Request TLV 0x12,
// the chunk of a long APDU, is the IDL's and never sent by this host.
using ApduReq = uim_send_apdu_req_msg_v01;
constexpr Row apdu_req_ei[] = {
    u(0x01, 4, 1, OFF(ApduReq, slot)),
    count(0x02, 2, OFF(ApduReq, apdu_len)),
    var_u(0x02, 1, 1, QMI_UIM_APDU_DATA_MAX_V01, OFF(ApduReq, apdu)),
    opt(0x10, OFF(ApduReq, channel_id_valid)),
    u(0x10, 1, 1, OFF(ApduReq, channel_id)),
    opt(0x11, OFF(ApduReq, procedure_bytes_valid)),
    u(0x11, 4, 1, OFF(ApduReq, procedure_bytes)),
    opt(0x12, OFF(ApduReq, apdu_chunk_valid)),
    st(0x12, apdu_chunk_ei, sizeof(uim_apdu_chunk_type_v01), OFF(ApduReq, apdu_chunk)),
    end(),
};

using ApduResp = uim_send_apdu_resp_msg_v01;
constexpr Row apdu_resp_ei[] = {
    result_row(OFF(ApduResp, resp)),
    error_row(OFF(ApduResp, resp)),
    opt(0x10, OFF(ApduResp, apdu_valid)),
    count(0x10, 2, OFF(ApduResp, apdu_len)),
    var_u(0x10, 1, 1, QMI_UIM_APDU_DATA_MAX_V01, OFF(ApduResp, apdu)),
    opt(0x11, OFF(ApduResp, long_response_valid)),
    st(0x11, long_apdu_ei, sizeof(uim_long_apdu_response_type_v01), OFF(ApduResp, long_response)),
    end(),
};

// Get EID 0x0065 (no published layout, see the top of this file): TLV 0x01
// slot u8; response TLV 0x10 u8 n + the EID (n = 16).
constexpr Row eid_req_ei[] = {
    u(0x01, 4, 1, OFF(uim_get_eid_req_msg_v01, slot)),
    end(),
};

constexpr Row eid_resp_ei[] = {
    result_row(OFF(uim_get_eid_resp_msg_v01, resp)),
    error_row(OFF(uim_get_eid_resp_msg_v01, resp)),
    opt(0x10, OFF(uim_get_eid_resp_msg_v01, eid_value_valid)),
    count(0x10, 1, OFF(uim_get_eid_resp_msg_v01, eid_value_len)),
    var_u(0x10, 1, 1, QMI_UIM_EID_LEN_V01, OFF(uim_get_eid_resp_msg_v01, eid_value)),
    end(),
};

#undef OFF

/* ---- message tables ---- */

constexpr qmi_idl_message_table_entry uim_requests[] = {
    {QMI_UIM_GET_CARD_STATUS_REQ_V01, 4, sizeof(uim_get_card_status_req_msg_v01), card_status_req_ei},
    {QMI_UIM_POWER_DOWN_REQ_V01, 4, sizeof(uim_power_down_req_msg_v01), power_down_req_ei},
    {QMI_UIM_POWER_UP_REQ_V01, 12, sizeof(uim_power_up_req_msg_v01), power_up_req_ei},
    {QMI_UIM_SEND_APDU_REQ_V01, kApduReqMax, sizeof(ApduReq), apdu_req_ei},
    {QMI_UIM_LOGICAL_CHANNEL_REQ_V01, kCloseReqMax, sizeof(CloseReq), close_req_ei},
    {QMI_UIM_OPEN_LOGICAL_CHANNEL_REQ_V01, kOpenReqMax, sizeof(OpenReq), open_req_ei},
    {QMI_UIM_GET_EID_REQ_V01, 4, sizeof(uim_get_eid_req_msg_v01), eid_req_ei},
};

constexpr qmi_idl_message_table_entry uim_responses[] = {
    {QMI_UIM_GET_CARD_STATUS_RESP_V01, kCardStatusRespMax, sizeof(CardStatusResp), card_status_resp_ei},
    {QMI_UIM_POWER_DOWN_RESP_V01, kResultOnly, sizeof(uim_power_down_resp_msg_v01),
     result_only_ei<uim_power_down_resp_msg_v01>},
    {QMI_UIM_POWER_UP_RESP_V01, kResultOnly, sizeof(uim_power_up_resp_msg_v01),
     result_only_ei<uim_power_up_resp_msg_v01>},
    {QMI_UIM_SEND_APDU_RESP_V01, kApduRespMax, sizeof(ApduResp), apdu_resp_ei},
    {QMI_UIM_LOGICAL_CHANNEL_RESP_V01, kChannelRespMax, sizeof(ChannelResp), channel_resp_ei},
    {QMI_UIM_OPEN_LOGICAL_CHANNEL_RESP_V01, kChannelRespMax, sizeof(ChannelResp), channel_resp_ei},
    {QMI_UIM_GET_EID_RESP_V01, kEidRespMax, sizeof(uim_get_eid_resp_msg_v01), eid_resp_ei},
};

constexpr qmi_idl_service_object uim_service = {
    UIM_V01_IDL_TOOL_VERS,
    UIM_V01_IDL_MAJOR_VERS,
    QMI_UIM_SERVICE_ID_V01,
    kCardStatusRespMax,
    {sizeof(uim_requests) / sizeof(uim_requests[0]), sizeof(uim_responses) / sizeof(uim_responses[0]), 0},
    {uim_requests, uim_responses, nullptr},
    UIM_V01_IDL_MINOR_VERS,
    {7, 7, 0},
};

} // namespace

extern "C" qmi_idl_service_object_type uim_get_service_object_internal_v01(int32_t idl_maj_version,
                                                                           int32_t idl_min_version,
                                                                           int32_t library_version)
{
    if (idl_maj_version != UIM_V01_IDL_MAJOR_VERS || idl_min_version != UIM_V01_IDL_MINOR_VERS ||
        library_version != UIM_V01_IDL_TOOL_VERS)
        return nullptr;
    return &uim_service;
}
