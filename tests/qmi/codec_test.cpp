// The codec against published wire bytes, every message at its maximum, malformed input refused inside the record.
#include <network_access_service_v01.h>
#include <qmi_idl_lib.h>
#include <specific_absorption_rate_v01.h>
#include <user_identity_module_v01.h>

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <numeric>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

Bytes hex(const std::string &s)
{
    Bytes out;
    std::istringstream in(s);
    std::string tok;
    while (in >> tok)
        if (tok != "|")
            out.push_back(static_cast<uint8_t>(std::stoul(tok, nullptr, 16)));
    return out;
}

qmi_idl_service_object_type uim() { return uim_get_service_object_v01(); }
qmi_idl_service_object_type sar() { return sar_get_service_object_v01(); }
qmi_idl_service_object_type nas() { return nas_get_service_object_v01(); }

constexpr auto REQ = QMI_IDL_REQUEST;
constexpr auto RESP = QMI_IDL_RESPONSE;

struct Vector {
    const char *name;
    qmi_idl_service_object_type (*svc)();
    qmi_idl_type_of_message_type kind;
    uint16_t msg_id;
    size_t c_size;
    const char *wire;
    std::function<void(void *)> fill;
};

template <class T, class F>
Vector vec(const char *name, qmi_idl_service_object_type (*svc)(), qmi_idl_type_of_message_type kind, uint16_t id,
           const char *wire, F fill)
{
    return {name, svc, kind, id, sizeof(T), wire, [fill](void *p) { fill(*static_cast<T *>(p)); }};
}

// Each fill sets only what the wire bytes carry; the rest of the record stays 0.
std::vector<Vector> vectors()
{
    using C = uim_extended_card_info_type_v01;
    return {
        vec<uim_send_apdu_req_msg_v01>("apdu_request", uim, REQ, 0x3B,
                                       "01 01 00 01 | 02 07 00 05 00 80 CA 9F 7F 00 | 10 01 00 01",
                                       [](auto &r) { r = {UIM_SLOT_1_V01, 5, {0x80, 0xCA, 0x9F, 0x7F, 0x00}, 1, 1}; }),
        vec<uim_send_apdu_resp_msg_v01>("apdu_response", uim, RESP, 0x3B,
                                        "02 04 00 00 00 00 00 | 10 05 00 03 00 01 90 00",
                                        [](auto &r) { r = {.apdu_valid = 1, .apdu_len = 3, .apdu = {1, 0x90}}; }),
        vec<sar_rf_get_state_resp_msg_v01>("sar_get_state_dsi_3", sar, RESP, 0x02,
                                           "02 04 00 00 00 00 00 | 10 04 00 03 00 00 00",
                                           [](auto &r) { r = {{}, 1, QMI_SAR_RF_STATE_3_V01}; }),
        vec<sar_rf_set_state_resp_msg_v01>("sar_set_state_failure", sar, RESP, 0x01, "02 04 00 01 00 1A 00",
                                           [](auto &r) { r.resp = {QMI_RESULT_FAILURE_V01, QMI_ERR_NO_EFFECT_V01}; }),
        vec<sar_rf_set_state_req_msg_v01>("sar_set_state_request", sar, REQ, 0x01, "01 04 00 08 00 00 00",
                                          [](auto &r) { r.sar_rf_state = QMI_SAR_RF_STATE_8_V01; }),
        vec<uim_power_up_req_msg_v01>("power_up_slot2_ignore_hotswap", uim, REQ, 0x31,
                                      "01 01 00 02 | 10 01 00 01 | 11 01 00 00",
                                      [](auto &r) { r = {UIM_SLOT_2_V01, 1, 1, 1, UIM_CARD_MODE_TELECOM_CARD_V01}; }),
        vec<uim_power_down_req_msg_v01>("power_down_slot2", uim, REQ, 0x30, "01 01 00 02",
                                        [](auto &r) { r.slot = UIM_SLOT_2_V01; }),
        vec<nas_bind_subscription_req_msg_v01>("nas_bind_secondary", nas, REQ, 0x45, "01 01 00 01",
                                               [](auto &r) { r.subs_type = NAS_SECONDARY_SUBSCRIPTION_V01; }),
        // TLVs go out in type order, whatever order the record declares them in.
        vec<nas_indication_register_req_msg_v01>(
            "nas_register_ordered", nas, REQ, 0x03,
            "10 01 00 01 | 13 01 00 00 | 21 02 00 01 00 | 27 01 00 01 | 65 01 00 01", [](auto &r) {
                r.reg_sys_sel_pref_valid = r.reg_sys_sel_pref = 1;
                r.req_serving_system_valid = 1;
                r.network_reject_valid = r.network_reject.reg_network_reject = 1;
                r.reg_lte_sib16_network_time_valid = r.reg_lte_sib16_network_time = 1;
                r.reg_more[NAS_REG_MORE_SWITCHES_V01 - 1][0] = r.reg_more[NAS_REG_MORE_SWITCHES_V01 - 1][1] = 1;
            }),
        vec<uim_open_logical_channel_req_msg_v01>(
            "open_channel_isd_r", uim, REQ, 0x42,
            "01 01 00 02 | 10 11 00 10 A0 00 00 05 59 10 10 FF FF FF FF 89 00 00 01 00 | 11 01 00 01", [](auto &r) {
                r = {UIM_SLOT_2_V01, 1, 16, {0xA0, 0, 0, 5, 0x59, 0x10, 0x10, 0xFF, 0xFF, 0xFF, 0xFF, 0x89, 0, 0, 1},
                     1, UIM_FILE_CONTROL_INFORMATION_FCP_V01};
            }),
        vec<uim_open_logical_channel_resp_msg_v01>(
            "open_channel_response", uim, RESP, 0x42,
            "02 04 00 00 00 00 00 | 10 01 00 02 | 11 02 00 90 00 | 12 03 00 02 62 00",
            [](auto &r) { r = {{}, 1, 2, 1, {0x90, 0}, 1, 2, {0x62}}; }),
        vec<uim_logical_channel_req_msg_v01>("close_channel", uim, REQ, 0x3F,
                                             "01 01 00 02 | 11 01 00 02 | 13 01 00 00", [](auto &r) {
                                                 r = {.slot = UIM_SLOT_2_V01, .channel_id_valid = 1, .channel_id = 2,
                                                      .terminate_application_valid = 1};
                                             }),
        vec<uim_get_card_status_req_msg_v01>("card_status_request", uim, REQ, 0x2F, "10 01 00 01",
                                             [](auto &r) { r = {1, 1}; }),
        vec<uim_get_card_status_resp_msg_v01>(
            "card_status_response", uim, RESP, 0x2F,
            "02 04 00 00 00 00 00 | 11 03 00 02 02 03 | "
            "13 21 00 01 00 01 00 02 "                         // gw 1 x 0x0100, 1x none, 2 cards
            "01 03 03 0A 00 01 "                               // card 1: present, UPIN disabled 3/10, 1 app
            "02 07 02 0B 00 00 02 A0 87 00 02 03 0A 00 00 00 " // USIM ready, AID A0 87, PIN1 verified 3/10
            "00 00 00 00 06 00",                               // card 2: absent, possibly removed
            [](auto &r) {
                r = {.hot_swap_valid = 1,
                     .hot_swap_len = 2,
                     .hot_swap = {UIM_HOT_SWAP_STATUS_PRESENT_V01, UIM_HOT_SWAP_STATUS_NOT_PRESENT_V01},
                     .extended_card_status_valid = 1,
                     .extended_card_status = {1, {0x0100}, 0, {}, 2}}; // gw: slot 1, application 0
                C &c = r.extended_card_status.card_info[0];
                c = {UIM_CARD_STATE_PRESENT_V01, {UIM_PIN_STATE_DISABLED_V01, 3, 10}, {}, 1};
                c.app_info[0] = {UIM_APP_TYPE_USIM_V01, UIM_APP_STATE_READY_V01, uim_perso_state_enum_v01(2),
                                 uim_perso_feature_status_enum_v01(11), 0, 0, 2, {0xA0, 0x87}, {},
                                 {UIM_PIN_STATE_ENABLED_VERIFIED_V01, 3, 10}};
                r.extended_card_status.card_info[1] = {UIM_CARD_STATE_ABSENT_V01, {}, uim_card_error_code_enum_v01(6)};
            }),
        vec<uim_get_eid_resp_msg_v01>(
            "eid_response", uim, RESP, 0x65,
            "02 04 00 00 00 00 00 | 10 11 00 10 89 8A 8B 8C 8D 8E 8F 90 91 92 93 94 95 96 97 98", [](auto &r) {
                r = {.eid_value_valid = 1, .eid_value_len = 16};
                std::iota(r.eid_value, r.eid_value + 16, uint8_t(0x89));
            }),
    };
}

class PublishedBytes : public ::testing::TestWithParam<Vector> {};

// The record size found by lookup is the one callers allocate: the table and the C header agree on it too.
TEST_P(PublishedBytes, EncodesExactlyAndDecodesBack)
{
    const Vector &v = GetParam();
    uint32_t looked_up = 0;
    ASSERT_EQ(QMI_IDL_LIB_NO_ERR, qmi_idl_get_message_c_struct_len(v.svc(), v.kind, v.msg_id, &looked_up));
    EXPECT_EQ(v.c_size, looked_up);

    std::vector<uint8_t> rec(v.c_size, 0);
    v.fill(rec.data());
    const Bytes want = hex(v.wire);
    Bytes out(4096, 0xEE);
    uint32_t len = 0;
    ASSERT_EQ(QMI_IDL_LIB_NO_ERR, qmi_idl_message_encode(v.svc(), v.kind, v.msg_id, rec.data(), uint32_t(rec.size()),
                                                         out.data(), uint32_t(out.size()), &len));
    out.resize(len);
    EXPECT_EQ(want, out);

    std::vector<uint8_t> back(v.c_size, 0x5A); // decode must clear it first
    ASSERT_EQ(QMI_IDL_LIB_NO_ERR, qmi_idl_message_decode(v.svc(), v.kind, v.msg_id, want.data(), uint32_t(want.size()),
                                                         back.data(), uint32_t(back.size())));
    EXPECT_EQ(0, std::memcmp(rec.data(), back.data(), rec.size()));
}

INSTANTIATE_TEST_SUITE_P(Messages, PublishedBytes, ::testing::ValuesIn(vectors()),
                         [](const auto &info) { return std::string(info.param.name); });

/* ---- every message at its maximum ---- */

// Every valid flag set, every variable array at its maximum count, every integer 1: the longest encoding.
void fill_max(const qmi_idl_elem_info *ei, uint8_t *base)
{
    for (const qmi_idl_elem_info *r = ei; r && r->data_type != QMI_IDL_EOTI; ++r) {
        uint8_t *at = base + r->offset;
        size_t n = r->array_type == QMI_IDL_STATIC_ARRAY ? r->elem_len : 1;
        if (r->data_type == QMI_IDL_OPT_FLAG) {
            *at = 1;
            continue;
        }
        if (r->data_type == QMI_IDL_DATA_LEN) {
            const uint32_t count = (r + 1)->elem_len;
            std::memcpy(at, &count, 4);
            ++r;
            at = base + r->offset;
            n = count;
        }
        for (size_t i = 0; i < n; ++i) {
            uint8_t *el = at + i * r->c_size;
            if (r->data_type == QMI_IDL_STRUCT)
                fill_max(r->ei_array, el);
            else
                el[0] = 1; // 1 fits every width; the higher bytes stay 0
        }
    }
}

TEST(MaximumLength, EveryMessageFitsItsDeclaredLargestLength)
{
    for (qmi_idl_service_object_type svc : {uim(), sar(), nas()}) {
        ASSERT_NE(nullptr, svc);
        for (int kind = 0; kind < QMI_IDL_NUM_MSG_TYPES; ++kind) {
            for (uint16_t i = 0; i < svc->n_msgs[kind]; ++i) {
                const qmi_idl_message_table_entry &e = svc->msgid_to_msg[kind][i];
                SCOPED_TRACE(testing::Message() << "service " << svc->service_id << " kind " << kind << " msg 0x"
                                                << std::hex << e.msg_id);
                const auto k = qmi_idl_type_of_message_type(kind);
                std::vector<uint8_t> rec(e.c_struct_len + 1, 0), back(e.c_struct_len + 1, 0);
                fill_max(e.ei, rec.data());
                Bytes out(e.max_msg_len + 64);
                uint32_t len = 0;
                ASSERT_EQ(QMI_IDL_LIB_NO_ERR, qmi_idl_message_encode(svc, k, e.msg_id, rec.data(), e.c_struct_len,
                                                                     out.data(), uint32_t(out.size()), &len));
                EXPECT_EQ(e.max_msg_len, len) << "declared largest length is not the real one";
                EXPECT_LE(len, svc->max_msg_len);
                ASSERT_EQ(QMI_IDL_LIB_NO_ERR,
                          qmi_idl_message_decode(svc, k, e.msg_id, out.data(), len, back.data(), e.c_struct_len));
                EXPECT_EQ(0, std::memcmp(rec.data(), back.data(), e.c_struct_len));
            }
        }
    }
}

// Only the exact version triple gives a service object; unknown messages are not found.
TEST(ServiceObjects, OnlyTheExactVersionTripleAndKnownMessages)
{
    using Get = qmi_idl_service_object_type (*)(int32_t, int32_t, int32_t);
    const Get u = uim_get_service_object_internal_v01, s = sar_get_service_object_internal_v01,
              n = nas_get_service_object_internal_v01;
    const struct {
        Get get;
        int32_t major, minor, idl;
        bool found;
    } rows[] = {{u, 1, 102, 6, true}, {u, 1, 101, 6, false}, {u, 2, 102, 6, false}, {u, 1, 102, 5, false},
                {s, 1, 14, 6, true},  {s, 1, 15, 6, false},  {n, 1, 378, 6, true},  {n, 1, 378, 7, false}};
    for (const auto &r : rows)
        EXPECT_EQ(r.found, r.get(r.major, r.minor, r.idl) != nullptr) << r.major << "." << r.minor << "." << r.idl;
    uint32_t len = 0;
    EXPECT_EQ(QMI_IDL_LIB_MESSAGE_ID_NOT_FOUND,
              qmi_idl_get_message_c_struct_len(uim(), QMI_IDL_INDICATION, 0x32, &len));
    EXPECT_EQ(QMI_IDL_LIB_MESSAGE_ID_NOT_FOUND, qmi_idl_get_message_c_struct_len(sar(), REQ, 0x03, &len));
}

/* ---- malformed input ---- */

#define RES_OK "02 04 00 00 00 00 00 " // a success result TLV

struct Bad {
    const char *name;
    qmi_idl_type_of_message_type kind;
    uint16_t msg_id;
    size_t c_size;
    int want;
    const char *wire;
    const char *same_as = nullptr; // accepted input that must decode to the same record as this one
};

class MalformedInput : public ::testing::TestWithParam<Bad> {};

TEST_P(MalformedInput, RefusedInsideTheRecord)
{
    const Bad &b = GetParam();
    constexpr size_t kGuard = 64; // bytes on both sides of the record that decode must never touch
    Bytes buf(b.c_size + 2 * kGuard, 0xA5);
    const Bytes in = hex(b.wire);
    EXPECT_EQ(b.want, qmi_idl_message_decode(uim(), b.kind, b.msg_id, in.data(), uint32_t(in.size()),
                                             buf.data() + kGuard, uint32_t(b.c_size)));
    EXPECT_EQ(Bytes(kGuard, 0xA5), Bytes(buf.begin(), buf.begin() + kGuard));
    EXPECT_EQ(Bytes(kGuard, 0xA5), Bytes(buf.end() - kGuard, buf.end()));
    if (b.same_as) {
        const Bytes ref = hex(b.same_as);
        std::vector<uint8_t> want(b.c_size);
        ASSERT_EQ(0, qmi_idl_message_decode(uim(), b.kind, b.msg_id, ref.data(), uint32_t(ref.size()), want.data(),
                                            uint32_t(want.size())));
        EXPECT_EQ(0, std::memcmp(want.data(), buf.data() + kGuard, b.c_size));
    }
}

constexpr size_t kEid = sizeof(uim_get_eid_resp_msg_v01);
constexpr size_t kApdu = sizeof(uim_send_apdu_req_msg_v01);
constexpr size_t kStatus = sizeof(uim_get_card_status_resp_msg_v01);

INSTANTIATE_TEST_SUITE_P(
    Cases, MalformedInput,
    ::testing::Values(
        Bad{"tlv_runs_past_end", RESP, 0x65, kEid, QMI_IDL_LIB_MESSAGE_DATA_ERROR, RES_OK "10 11 00 10 01 02 03"},
        Bad{"cut_inside_tlv_header", RESP, 0x65, kEid, QMI_IDL_LIB_MESSAGE_DATA_ERROR, RES_OK "10 11"},
        Bad{"count_above_maximum", RESP, 0x65, kEid, QMI_IDL_LIB_ARRAY_TOO_BIG,
            RES_OK "10 12 00 11 00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F 10"},
        Bad{"count_beyond_tlv", RESP, 0x65, kEid, QMI_IDL_LIB_LENGTH_INCONSISTENCY, RES_OK "10 03 00 05 01 02"},
        Bad{"tlv_longer_than_field", REQ, 0x30, 4, QMI_IDL_LIB_TLV_TOO_LONG, "01 02 00 02 00"},
        Bad{"result_tlv_too_short", RESP, 0x30, 8, QMI_IDL_LIB_LENGTH_INCONSISTENCY, "02 03 00 00 00 00"},
        Bad{"missing_mandatory_apdu", REQ, 0x3B, kApdu, QMI_IDL_LIB_MISSING_TLV, "01 01 00 01 10 01 00 01"},
        Bad{"missing_result", RESP, 0x65, kEid, QMI_IDL_LIB_MISSING_TLV, "10 01 00 00"},
        Bad{"duplicated_tlv", REQ, 0x30, 4, QMI_IDL_LIB_MESSAGE_DATA_ERROR, "01 01 00 01 01 01 00 02"},
        Bad{"apdu_u16_count_above_1024", REQ, 0x3B, kApdu, QMI_IDL_LIB_ARRAY_TOO_BIG, "01 01 00 01 02 02 00 01 04"},
        // Three cards where the legacy status holds two; then an application whose AID runs past its card.
        Bad{"nested_card_count", RESP, 0x2F, kStatus, QMI_IDL_LIB_ARRAY_TOO_BIG,
            RES_OK "10 09 00 FF FF FF FF FF FF FF FF 03"},
        Bad{"nested_aid_past_tlv", RESP, 0x2F, kStatus, QMI_IDL_LIB_LENGTH_INCONSISTENCY,
            RES_OK "10 14 00 FF FF FF FF FF FF FF FF 01 01 00 00 00 00 01 02 07 00 00 00 00 20 A0"},
        Bad{"record_too_small", RESP, 0x65, kEid - 1, QMI_IDL_LIB_BUFFER_TOO_SMALL, RES_OK},
        // Accepted: unknown TLVs are skipped, even past the message's largest length; TLVs come in any order.
        Bad{"unknown_tlv_skipped", REQ, 0x30, 4, 0, "7F 03 00 AA BB CC 01 01 00 02", "01 01 00 02"},
        Bad{"unknown_tlv_beyond_message_length", RESP, 0x30, 8, 0, RES_OK "7F 04 00 01 02 03 04", RES_OK},
        Bad{"order_reversed", REQ, 0x3B, kApdu, 0, "10 01 00 01 02 07 00 05 00 80 CA 9F 7F 00 7E 00 00 01 01 00 01",
            "01 01 00 01 02 07 00 05 00 80 CA 9F 7F 00 10 01 00 01"}),
    [](const auto &info) { return std::string(info.param.name); });

TEST(Malformed, NothingLongerThanTheServicesLargestMessageIsRead)
{
    Bytes in = hex(RES_OK);
    const size_t fill = uim()->max_msg_len;
    in.insert(in.end(), {0x7F, uint8_t(fill), uint8_t(fill >> 8)});
    in.resize(in.size() + fill, 0);
    uim_power_down_resp_msg_v01 r;
    EXPECT_EQ(QMI_IDL_LIB_MESSAGE_TOO_LONG,
              qmi_idl_message_decode(uim(), RESP, 0x30, in.data(), uint32_t(in.size()), &r, sizeof(r)));
}

/* ---- encoder refusals ---- */

TEST(EncodeRefusals, CountsValuesAndRoom)
{
    uint8_t out[2048];
    uint32_t len = 0;
    auto encode = [&](qmi_idl_service_object_type svc, uint16_t id, const void *rec, size_t rec_len, uint32_t room) {
        return qmi_idl_message_encode(svc, REQ, id, rec, uint32_t(rec_len), out, room, &len);
    };

    // A slot that does not fit the one wire byte is an error, not a silent cut.
    uim_power_down_req_msg_v01 down{static_cast<uim_slot_enum_v01>(0x102)};
    EXPECT_EQ(QMI_IDL_LIB_PARAMETER_ERROR, encode(uim(), 0x30, &down, sizeof(down), 2048));

    down.slot = UIM_SLOT_2_V01;
    EXPECT_EQ(QMI_IDL_LIB_BUFFER_TOO_SMALL, encode(uim(), 0x30, &down, sizeof(down), 3));
    EXPECT_EQ(QMI_IDL_LIB_PARAMETER_ERROR, encode(uim(), 0x30, &down, 2, 2048));
    EXPECT_EQ(QMI_IDL_LIB_MESSAGE_ID_NOT_FOUND, encode(uim(), 0x99, &down, sizeof(down), 2048));

    // The SAR get-state request is a message without TLVs and without a record.
    EXPECT_EQ(QMI_IDL_LIB_NO_ERR, encode(sar(), 0x02, nullptr, 0, 2048));
    EXPECT_EQ(0u, len);
}

} // namespace
