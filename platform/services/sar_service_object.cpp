// sar_service_object.cpp - the service object of the standard QMI SAR service
// (revision 1.14) as the host client library uses it: RF set state and RF get
// state, the state being a u32 on the wire. The header figures (largest
// message 8204, 13 / 13 / 1 messages) are those of the whole revision; the
// tables describe the two messages clients of this host use. Published
// sources: libqmi's data/qmi-service-sar.json (RF Set State 0x0001: TLV 0x01
// u32 state; RF Get State 0x0002: no request TLVs, response TLV 0x10 u32
// state), the Gobi API 2013 QMIEnum.h for the message ids. The get-state
// answer's TLVs 0x11 to 0x13 are the IDL revision's, in no published layout;
// they are decoded when a modem sends them and read by no client here.
#include <specific_absorption_rate_v01.h>

#include "idl_rows.h"

#include <cstddef>

namespace {

using namespace qmi_rows;

static_assert(sizeof(sar_rf_set_state_req_msg_v01) == 4);
static_assert(sizeof(sar_rf_set_state_resp_msg_v01) == 8);
static_assert(sizeof(sar_rf_get_state_resp_msg_v01) == 40);

constexpr uint16_t kResultOnly = 7;
constexpr uint16_t kGetStateRespMax = kResultOnly + 4 * 7; // four optional u32 TLVs

using GetResp = sar_rf_get_state_resp_msg_v01;

constexpr Row set_state_req_ei[] = {
    u(0x01, 4, 4, offsetof(sar_rf_set_state_req_msg_v01, sar_rf_state)),
    end(),
};

constexpr Row set_state_resp_ei[] = {
    result_row(offsetof(sar_rf_set_state_resp_msg_v01, resp)),
    error_row(offsetof(sar_rf_set_state_resp_msg_v01, resp)),
    end(),
};

constexpr Row get_state_resp_ei[] = {
    result_row(offsetof(GetResp, resp)),
    error_row(offsetof(GetResp, resp)),
    opt(0x10, offsetof(GetResp, sar_rf_state_valid)),
    u(0x10, 4, 4, offsetof(GetResp, sar_rf_state)),
    opt(0x11, offsetof(GetResp, compatibility_key_valid)),
    u(0x11, 4, 4, offsetof(GetResp, compatibility_key)),
    opt(0x12, offsetof(GetResp, sar_rf_state_sub2_valid)),
    u(0x12, 4, 4, offsetof(GetResp, sar_rf_state_sub2)),
    opt(0x13, offsetof(GetResp, backoff_table_index_valid)),
    u(0x13, 4, 4, offsetof(GetResp, backoff_table_index)),
    end(),
};

// The get-state request has no TLVs: no layout and a C record of length 0.
constexpr qmi_idl_message_table_entry sar_requests[] = {
    {QMI_SAR_RF_SET_STATE_REQ_MSG_V01, kResultOnly, sizeof(sar_rf_set_state_req_msg_v01), set_state_req_ei},
    {QMI_SAR_RF_GET_STATE_REQ_MSG_V01, 0, 0, nullptr},
};

constexpr qmi_idl_message_table_entry sar_responses[] = {
    {QMI_SAR_RF_SET_STATE_RESP_MSG_V01, kResultOnly, sizeof(sar_rf_set_state_resp_msg_v01), set_state_resp_ei},
    {QMI_SAR_RF_GET_STATE_RESP_MSG_V01, kGetStateRespMax, sizeof(GetResp), get_state_resp_ei},
};

constexpr qmi_idl_service_object sar_service = {
    SAR_V01_IDL_TOOL_VERS,
    SAR_V01_IDL_MAJOR_VERS,
    QMI_SAR_SERVICE_ID_V01,
    8204,
    {2, 2, 0},
    {sar_requests, sar_responses, nullptr},
    SAR_V01_IDL_MINOR_VERS,
    {13, 13, 1},
};

} // namespace

extern "C" qmi_idl_service_object_type sar_get_service_object_internal_v01(int32_t idl_maj_version,
                                                                           int32_t idl_min_version,
                                                                           int32_t library_version)
{
    if (idl_maj_version != SAR_V01_IDL_MAJOR_VERS || idl_min_version != SAR_V01_IDL_MINOR_VERS ||
        library_version != SAR_V01_IDL_TOOL_VERS)
        return nullptr;
    return &sar_service;
}
