// nas_service_object.cpp - the service object of the standard QMI NAS service
// (revision 1.378) as the host client library uses it: indication
// registration (a long run of optional one-byte switches) and subscription
// binding (a 32-bit enum sent as one byte). The header figures (largest
// message 36643, 219 / 219 / 77 messages) are those of the whole revision.
// Published sources: Register Indications 0x0003 from libqmi's
// data/qmi-service-nas.json (switches 0x10-0x21, each u8 but 0x21, two u8),
// with the Gobi API 2013 structs for 0x22-0x27; Bind Subscription 0x0045
// from the Gobi API 2013 structs only (TLV 0x01, eQMINASSubscriptionType
// with a UINT8 base: 0 primary, 1 secondary, 2 tertiary; libqmi has no NAS
// bind, and its WDS/QOS binds are u32 with other values). The switches from
// 0x28 on are the IDL revision's, in no published layout.
#include <network_access_service_v01.h>

#include "idl_rows.h"

#include <array>
#include <cstddef>

namespace {

using namespace qmi_rows;
using RegReq = nas_indication_register_req_msg_v01;

static_assert(sizeof(nas_bind_subscription_req_msg_v01) == 4);
static_assert(sizeof(nas_bind_subscription_resp_msg_v01) == 8);
static_assert(sizeof(RegReq) == 169);
static_assert(sizeof(nas_indication_register_resp_msg_v01) == 8);

constexpr uint16_t kResultOnly = 7;

/* ---- indication registration layout ---- */

// One optional u8 switch: valid flag at off, value right after it.
struct Switch {
    uint8_t tlv;
    size_t off;
};

constexpr Switch kNamedSwitches[] = {
    {0x10, offsetof(RegReq, reg_sys_sel_pref_valid)},
    {0x12, offsetof(RegReq, reg_ddtm_events_valid)},
    {0x13, offsetof(RegReq, req_serving_system_valid)},
    {0x14, offsetof(RegReq, dual_standby_pref_valid)},
    {0x15, offsetof(RegReq, subscription_info_valid)},
    {0x17, offsetof(RegReq, reg_network_time_valid)},
    {0x18, offsetof(RegReq, sys_info_valid)},
    {0x19, offsetof(RegReq, sig_info_valid)},
    {0x1A, offsetof(RegReq, err_rate_valid)},
    {0x1B, offsetof(RegReq, reg_hdr_uati_valid)},
    {0x1C, offsetof(RegReq, reg_hdr_session_close_valid)},
    {0x1D, offsetof(RegReq, reg_managed_roaming_valid)},
    {0x1E, offsetof(RegReq, reg_current_plmn_name_valid)},
    {0x1F, offsetof(RegReq, reg_embms_status_valid)},
    {0x20, offsetof(RegReq, reg_rf_band_info_valid)},
    {0x22, offsetof(RegReq, reg_operator_name_data_valid)},
    {0x23, offsetof(RegReq, reg_csp_plmn_mode_bit_valid)},
    {0x24, offsetof(RegReq, reg_rtre_cfg_valid)},
    {0x25, offsetof(RegReq, reg_ims_pref_status_valid)},
    {0x26, offsetof(RegReq, reg_e911_state_ready_valid)},
    {0x27, offsetof(RegReq, reg_lte_sib16_network_time_valid)},
};
constexpr size_t kNamed = sizeof(kNamedSwitches) / sizeof(kNamedSwitches[0]);
constexpr uint8_t kFirstMore = 0x28;
constexpr size_t kRows = 2 * kNamed + 3 + 2 * NAS_REG_MORE_SWITCHES_V01 + 1;

// Rows in TLV order: the named switches up to 0x20, the two-byte 0x21, the
// named switches from 0x22, then the generic ones from 0x28.
constexpr std::array<Row, kRows> make_register_rows()
{
    std::array<Row, kRows> rows{};
    size_t n = 0;
    auto add_switch = [&](uint8_t tlv, size_t off) {
        rows[n++] = opt(tlv, off);
        rows[n++] = u(tlv, 1, 1, off + 1);
    };
    for (size_t i = 0; i < kNamed && kNamedSwitches[i].tlv < 0x21; ++i)
        add_switch(kNamedSwitches[i].tlv, kNamedSwitches[i].off);
    rows[n++] = opt(0x21, offsetof(RegReq, network_reject_valid));
    rows[n++] = u(0x21, 1, 1, offsetof(RegReq, network_reject.reg_network_reject));
    rows[n++] = u(0x21, 1, 1, offsetof(RegReq, network_reject.suppress_sys_info));
    for (size_t i = 0; i < kNamed; ++i)
        if (kNamedSwitches[i].tlv > 0x21)
            add_switch(kNamedSwitches[i].tlv, kNamedSwitches[i].off);
    for (size_t i = 0; i < NAS_REG_MORE_SWITCHES_V01; ++i)
        add_switch(uint8_t(kFirstMore + i), offsetof(RegReq, reg_more) + 2 * i);
    rows[n++] = end();
    return rows;
}

constexpr std::array<Row, kRows> register_req_ei = make_register_rows();
static_assert(register_req_ei[kRows - 2].offset == sizeof(RegReq) - 1, "last switch ends the record");
static_assert(register_req_ei[kRows - 2].tlv_type == 0x65);

// Every switch TLV is 4 bytes on the wire, 0x21 is 5.
constexpr uint16_t kRegisterReqMax = uint16_t(4 * (kNamed + NAS_REG_MORE_SWITCHES_V01) + 5);

constexpr Row bind_req_ei[] = {
    u(0x01, 4, 1, offsetof(nas_bind_subscription_req_msg_v01, subs_type)),
    end(),
};

template <typename Resp> constexpr Row result_only_ei[] = {
    result_row(offsetof(Resp, resp)),
    error_row(offsetof(Resp, resp)),
    end(),
};

constexpr qmi_idl_message_table_entry nas_requests[] = {
    {QMI_NAS_INDICATION_REGISTER_REQ_MSG_V01, kRegisterReqMax, sizeof(RegReq), register_req_ei.data()},
    {QMI_NAS_BIND_SUBSCRIPTION_REQ_MSG_V01, 4, sizeof(nas_bind_subscription_req_msg_v01), bind_req_ei},
};

constexpr qmi_idl_message_table_entry nas_responses[] = {
    {QMI_NAS_INDICATION_REGISTER_RESP_MSG_V01, kResultOnly, sizeof(nas_indication_register_resp_msg_v01),
     result_only_ei<nas_indication_register_resp_msg_v01>},
    {QMI_NAS_BIND_SUBSCRIPTION_RESP_MSG_V01, kResultOnly, sizeof(nas_bind_subscription_resp_msg_v01),
     result_only_ei<nas_bind_subscription_resp_msg_v01>},
};

constexpr qmi_idl_service_object nas_service = {
    NAS_V01_IDL_TOOL_VERS,
    NAS_V01_IDL_MAJOR_VERS,
    QMI_NAS_SERVICE_ID_V01,
    36643,
    {2, 2, 0},
    {nas_requests, nas_responses, nullptr},
    NAS_V01_IDL_MINOR_VERS,
    {219, 219, 77},
};

} // namespace

extern "C" qmi_idl_service_object_type nas_get_service_object_internal_v01(int32_t idl_maj_version,
                                                                           int32_t idl_min_version,
                                                                           int32_t library_version)
{
    if (idl_maj_version != NAS_V01_IDL_MAJOR_VERS || idl_min_version != NAS_V01_IDL_MINOR_VERS ||
        library_version != NAS_V01_IDL_TOOL_VERS)
        return nullptr;
    return &nas_service;
}
