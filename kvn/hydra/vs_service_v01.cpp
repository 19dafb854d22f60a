/*
 * vs_service_v01.cpp - the service object of the vendor-specific statistics
 * QMI service 0xE4: layout tables of the messages this program uses, and the
 * largest encoded length of every message of the service. Messages whose
 * layout this program does not know are listed with their lengths and no
 * layout, so that the table answers for the whole service.
 */
#include <stddef.h>

#include "vs_service_v01.h"

static_assert(sizeof(vs_set_feature_status_req_msg_v01) == 8, "feature status request");
static_assert(sizeof(vs_set_feature_status_resp_msg_v01) == 8, "feature status response");
static_assert(sizeof(vs_get_stats_param_req_msg_v01) == 48, "statistics request");
static_assert(sizeof(vs_stats_record_v01) == 712, "statistics record");
static_assert(sizeof(vs_get_stats_param_resp_msg_v01) == 7136, "statistics response");
static_assert(sizeof(vs_feature_status_ind_msg_v01) == 8, "indication 0x0004");
static_assert(sizeof(vs_stats_report_ind_msg_v01) == 10704, "indication 0x0203");
static_assert(sizeof(vs_stats_values_ind_msg_v01) == 112, "indication 0x0204");
static_assert(sizeof(vs_state_ind_msg_v01) == 1, "indication 0x0601");

/* Row shorthands: an unsigned scalar (C width, wire width), the valid flag
 * of an optional TLV, the count of a variable array (wire width), a
 * variable array of unsigned integers or of records. */
#define ROW_U(tlv, cw, ww, rec, field) \
    {QMI_IDL_UNSIGNED, QMI_IDL_NO_ARRAY, (tlv), (ww), (cw), 0, offsetof(rec, field), nullptr}
#define ROW_FLAG(tlv, rec, field) {QMI_IDL_OPT_FLAG, QMI_IDL_NO_ARRAY, (tlv), 0, 1, 0, offsetof(rec, field), nullptr}
#define ROW_COUNT(tlv, ww, rec, field) \
    {QMI_IDL_DATA_LEN, QMI_IDL_NO_ARRAY, (tlv), (ww), 4, 0, offsetof(rec, field), nullptr}
#define ROW_VAR_U(tlv, cw, ww, max, rec, field) \
    {QMI_IDL_UNSIGNED, QMI_IDL_VAR_ARRAY, (tlv), (ww), (cw), (max), offsetof(rec, field), nullptr}
#define ROW_VAR_REC(tlv, max, rec, field) \
    {QMI_IDL_STRUCT, QMI_IDL_VAR_ARRAY, (tlv), 0, sizeof(vs_stats_record_v01), (max), offsetof(rec, field), \
     stats_record_ei}
#define ROW_RESULT(rec)                                                                               \
    {QMI_IDL_UNSIGNED, QMI_IDL_NO_ARRAY, 0x02, 2, 4, 0, offsetof(rec, resp.result), nullptr},        \
    {QMI_IDL_UNSIGNED, QMI_IDL_NO_ARRAY, 0x02, 2, 4, 0, offsetof(rec, resp.error), nullptr}
#define ROW_END {QMI_IDL_EOTI, QMI_IDL_NO_ARRAY, 0, 0, 0, 0, 0, nullptr}

/* ---- nested record ---- */

static const qmi_idl_elem_info stats_record_ei[] = {
    ROW_U(0, 2, 2, vs_stats_record_v01, sub),
    ROW_U(0, 2, 2, vs_stats_record_v01, reserved),
    ROW_U(0, 4, 4, vs_stats_record_v01, id),
    ROW_COUNT(0, 2, vs_stats_record_v01, data_len),
    ROW_VAR_U(0, 1, 1, VS_STATS_DATA_MAX_V01, vs_stats_record_v01, data),
    ROW_END,
};

/* ---- messages ---- */

static const qmi_idl_elem_info set_feature_req_ei[] = {
    ROW_U(0x01, 4, 4, vs_set_feature_status_req_msg_v01, feature),
    ROW_U(0x02, 1, 1, vs_set_feature_status_req_msg_v01, enable),
    ROW_FLAG(0x10, vs_set_feature_status_req_msg_v01, extra_valid),
    ROW_U(0x10, 1, 1, vs_set_feature_status_req_msg_v01, extra),
    ROW_END,
};

static const qmi_idl_elem_info set_feature_resp_ei[] = {
    ROW_RESULT(vs_set_feature_status_resp_msg_v01),
    ROW_END,
};

static const qmi_idl_elem_info get_stats_req_ei[] = {
    ROW_U(0x01, 2, 2, vs_get_stats_param_req_msg_v01, sub),
    ROW_U(0x02, 2, 2, vs_get_stats_param_req_msg_v01, number),
    ROW_COUNT(0x03, 1, vs_get_stats_param_req_msg_v01, id_num),
    ROW_VAR_U(0x03, 4, 4, VS_STATS_ID_MAX_V01, vs_get_stats_param_req_msg_v01, ids),
    ROW_END,
};

static const qmi_idl_elem_info get_stats_resp_ei[] = {
    ROW_RESULT(vs_get_stats_param_resp_msg_v01),
    ROW_FLAG(0x10, vs_get_stats_param_resp_msg_v01, records_valid),
    ROW_COUNT(0x10, 1, vs_get_stats_param_resp_msg_v01, records_len),
    ROW_VAR_REC(0x10, VS_STATS_REC_MAX_V01, vs_get_stats_param_resp_msg_v01, records),
    ROW_END,
};

static const qmi_idl_elem_info feature_status_ind_ei[] = {
    ROW_U(0x01, 4, 4, vs_feature_status_ind_msg_v01, value),
    ROW_U(0x02, 1, 1, vs_feature_status_ind_msg_v01, flag_1),
    ROW_U(0x03, 1, 1, vs_feature_status_ind_msg_v01, flag_2),
    ROW_END,
};

static const qmi_idl_elem_info stats_report_ind_ei[] = {
    ROW_U(0x01, 4, 4, vs_stats_report_ind_msg_v01, value),
    ROW_COUNT(0x02, 1, vs_stats_report_ind_msg_v01, records_len),
    ROW_VAR_REC(0x02, VS_STATS_REC_MAX_V01, vs_stats_report_ind_msg_v01, records),
    ROW_FLAG(0x10, vs_stats_report_ind_msg_v01, extra_valid),
    ROW_COUNT(0x10, 1, vs_stats_report_ind_msg_v01, extra_len),
    ROW_VAR_REC(0x10, VS_STATS_EXTRA_REC_MAX_V01, vs_stats_report_ind_msg_v01, extra),
    ROW_FLAG(0x11, vs_stats_report_ind_msg_v01, tail_valid),
    ROW_U(0x11, 4, 4, vs_stats_report_ind_msg_v01, tail),
    ROW_END,
};

static const qmi_idl_elem_info stats_values_ind_ei[] = {
    ROW_U(0x01, 4, 4, vs_stats_values_ind_msg_v01, value),
    ROW_COUNT(0x02, 1, vs_stats_values_ind_msg_v01, values_len),
    ROW_VAR_U(0x02, 1, 1, VS_VALUES_MAX_V01, vs_stats_values_ind_msg_v01, values),
    ROW_U(0x03, 2, 2, vs_stats_values_ind_msg_v01, first),
    ROW_U(0x04, 2, 2, vs_stats_values_ind_msg_v01, second),
    ROW_END,
};

static const qmi_idl_elem_info state_ind_ei[] = {
    ROW_U(0x01, 1, 1, vs_state_ind_msg_v01, state),
    ROW_END,
};

/* ---- tables per message kind, ordered by message id ---- */

/* A message of the service without a known layout: its largest length only. */
#define MSG_UNDESCRIBED(id, max) {(id), (max), 0, nullptr}

static const qmi_idl_message_table_entry vs_req_table[] = {
    MSG_UNDESCRIBED(0x0000, 517),
    MSG_UNDESCRIBED(0x0001, 8),
    MSG_UNDESCRIBED(0x0002, 7),
    {VS_SET_FEATURE_STATUS_MSG_V01, 15, sizeof(vs_set_feature_status_req_msg_v01), set_feature_req_ei},
    MSG_UNDESCRIBED(0x0100, 16),
    MSG_UNDESCRIBED(0x0101, 277),
    MSG_UNDESCRIBED(0x0102, 16),
    MSG_UNDESCRIBED(0x0103, 12),
    MSG_UNDESCRIBED(0x0104, 273),
    MSG_UNDESCRIBED(0x0105, 12),
    MSG_UNDESCRIBED(0x0106, 112),
    MSG_UNDESCRIBED(0x0107, 373),
    MSG_UNDESCRIBED(0x0108, 112),
    MSG_UNDESCRIBED(0x0109, 7),
    MSG_UNDESCRIBED(0x010A, 268),
    MSG_UNDESCRIBED(0x010B, 7),
    MSG_UNDESCRIBED(0x010C, 16),
    MSG_UNDESCRIBED(0x0200, 11),
    MSG_UNDESCRIBED(0x0201, 4321),
    MSG_UNDESCRIBED(0x0202, 421),
    {VS_GET_STATS_PARAM_MSG_V01, 54, sizeof(vs_get_stats_param_req_msg_v01), get_stats_req_ei},
    MSG_UNDESCRIBED(0x0208, 54),
    MSG_UNDESCRIBED(0x0400, 0),
    MSG_UNDESCRIBED(0x0401, 0),
};

static const qmi_idl_message_table_entry vs_resp_table[] = {
    MSG_UNDESCRIBED(0x0000, 528),
    MSG_UNDESCRIBED(0x0001, 11),
    MSG_UNDESCRIBED(0x0002, 19),
    {VS_SET_FEATURE_STATUS_MSG_V01, 11, sizeof(vs_set_feature_status_resp_msg_v01), set_feature_resp_ei},
    MSG_UNDESCRIBED(0x0100, 272),
    MSG_UNDESCRIBED(0x0101, 11),
    MSG_UNDESCRIBED(0x0102, 11),
    MSG_UNDESCRIBED(0x0103, 272),
    MSG_UNDESCRIBED(0x0104, 11),
    MSG_UNDESCRIBED(0x0105, 11),
    MSG_UNDESCRIBED(0x0106, 272),
    MSG_UNDESCRIBED(0x0107, 11),
    MSG_UNDESCRIBED(0x0108, 11),
    MSG_UNDESCRIBED(0x0109, 272),
    MSG_UNDESCRIBED(0x010A, 11),
    MSG_UNDESCRIBED(0x010B, 11),
    MSG_UNDESCRIBED(0x010C, 11),
    MSG_UNDESCRIBED(0x0200, 18),
    MSG_UNDESCRIBED(0x0201, 11),
    MSG_UNDESCRIBED(0x0202, 11),
    {VS_GET_STATS_PARAM_MSG_V01, 7115, sizeof(vs_get_stats_param_resp_msg_v01), get_stats_resp_ei},
    MSG_UNDESCRIBED(0x0208, 11),
    MSG_UNDESCRIBED(0x0400, 11),
    MSG_UNDESCRIBED(0x0401, 11),
};

static const qmi_idl_message_table_entry vs_ind_table[] = {
    {VS_FEATURE_STATUS_IND_V01, 15, sizeof(vs_feature_status_ind_msg_v01), feature_status_ind_ei},
    {VS_STATS_REPORT_IND_V01, 10672, sizeof(vs_stats_report_ind_msg_v01), stats_report_ind_ei},
    {VS_STATS_VALUES_IND_V01, 121, sizeof(vs_stats_values_ind_msg_v01), stats_values_ind_ei},
    {VS_STATE_IND_V01, 4, sizeof(vs_state_ind_msg_v01), state_ind_ei},
};

#define TABLE_LEN(t) ((uint16_t)(sizeof(t) / sizeof((t)[0])))

static const struct qmi_idl_service_object vs_qmi_idl_service_object_v01 = {
    VS_V01_IDL_TOOL_VERS,
    VS_V01_IDL_MAJOR_VERS,
    VS_SERVICE_ID_V01,
    VS_MAX_MSG_LEN_V01,
    {TABLE_LEN(vs_req_table), TABLE_LEN(vs_resp_table), TABLE_LEN(vs_ind_table)},
    {vs_req_table, vs_resp_table, vs_ind_table},
    VS_V01_IDL_MINOR_VERS,
    {24, 24, 4},
};

qmi_idl_service_object_type vs_get_service_object_internal_v01(int32_t idl_maj_version, int32_t idl_min_version,
                                                               int32_t library_version)
{
    if (idl_maj_version != VS_V01_IDL_MAJOR_VERS || idl_min_version != VS_V01_IDL_MINOR_VERS ||
        library_version != VS_V01_IDL_TOOL_VERS)
        return nullptr;
    return &vs_qmi_idl_service_object_v01;
}
