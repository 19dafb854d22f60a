/*
 * pelmox_extend_service_v01.cpp - the service object of the vendor "extend"
 * QMI service 0xFFE4: the layout tables of its 3 requests, 3 responses and 5
 * indications, as data for the client library's codec. Nothing here encodes
 * or decodes; adding a message is adding a table.
 */
#include <stddef.h>

#include "pelmox_extend_qmi.h"

/* The record sizes are part of the service description: the client library
 * is handed these lengths, and the modem side was built against them. */
static_assert(sizeof(pelmox_extend_msg_v01) == 524, "extend message record");
static_assert(sizeof(pelmox_extend_msg_ex_v01) == 524, "extend message 0x0004 record");
static_assert(sizeof(pelmox_extend_ind_0005_v01) == 1128, "indication 0x0005 record");
static_assert(sizeof(pelmox_extend_ind_0006_v01) == 1288, "indication 0x0006 record");
static_assert(sizeof(pelmox_extend_pair_v01) == 8, "indication 0x0007 record");
static_assert(sizeof(pelmox_extend_ind_0008_v01) == 32, "indication 0x0008 record");
static_assert(sizeof(pelmox_extend_stats_rec_v01) == 56, "statistics record");
static_assert(sizeof(pelmox_extend_small_rec_v01) == 24, "small record");

/* Largest encoded TLV payload of each message. */
#define EXTEND_MSG_MAX_LEN 529     /* 7 + 7 + 3 + 512 */
#define EXTEND_MSG_EX_MAX_LEN 533  /* EXTEND_MSG_MAX_LEN + 3 + 1 */
#define EXTEND_PAIR_MAX_LEN 14     /* 7 + 7 */
#define EXTEND_IND_0005_MAX_LEN 1137 /* 7 + 7 + 3 + 20 * 56 */
#define EXTEND_IND_0006_MAX_LEN 1227 /* 7 + 7 + 3 + 10 * (1 + 5 * 24) */
#define EXTEND_IND_0008_MAX_LEN 34   /* 7 + 3 + 24 */

/* Row shorthands: a scalar, a static array, the valid flag of an optional TLV. */
#define ROW_U(tlv, width, rec, field) \
    {QMI_IDL_UNSIGNED, QMI_IDL_NO_ARRAY, (tlv), (width), (width), 1, offsetof(rec, field), nullptr}
#define ROW_U_ARRAY(tlv, width, n, rec, field) \
    {QMI_IDL_UNSIGNED, QMI_IDL_STATIC_ARRAY, (tlv), (width), (width), (n), offsetof(rec, field), nullptr}
#define ROW_FLAG(tlv, rec, field) \
    {QMI_IDL_OPT_FLAG, QMI_IDL_NO_ARRAY, (tlv), 0, 1, 1, offsetof(rec, field), nullptr}
#define ROW_END {QMI_IDL_EOTI, QMI_IDL_NO_ARRAY, 0, 0, 0, 0, 0, nullptr}

/* ---- nested records ---- */

static const qmi_idl_elem_info stats_rec_ei[] = {
    ROW_U(0, 8, pelmox_extend_stats_rec_v01, v64),
    ROW_U_ARRAY(0, 4, 12, pelmox_extend_stats_rec_v01, v32),
    ROW_END,
};

static const qmi_idl_elem_info small_rec_ei[] = {
    ROW_U(0, 8, pelmox_extend_small_rec_v01, v64),
    ROW_U_ARRAY(0, 4, 4, pelmox_extend_small_rec_v01, v32),
    ROW_END,
};

static const qmi_idl_elem_info group_ei[] = {
    {QMI_IDL_DATA_LEN, QMI_IDL_NO_ARRAY, 0, 1, 4, 1, offsetof(pelmox_extend_group_v01, rec_len),
     nullptr},
    {QMI_IDL_STRUCT, QMI_IDL_VAR_ARRAY, 0, 0, sizeof(pelmox_extend_small_rec_v01),
     PELMOX_EXTEND_GROUP_REC_MAX_V01, offsetof(pelmox_extend_group_v01, rec), small_rec_ei},
    ROW_END,
};

/* ---- messages ---- */

static const qmi_idl_elem_info extend_msg_ei[] = {
    ROW_U(0x01, 4, pelmox_extend_msg_v01, cmd_id),
    ROW_U(0x02, 4, pelmox_extend_msg_v01, data_len),
    ROW_FLAG(0x10, pelmox_extend_msg_v01, data_valid),
    ROW_U_ARRAY(0x10, 1, PELMOX_EXTEND_DATA_MAX_V01, pelmox_extend_msg_v01, data),
    ROW_END,
};

static const qmi_idl_elem_info extend_msg_ex_ei[] = {
    ROW_U(0x01, 4, pelmox_extend_msg_ex_v01, cmd_id),
    ROW_U(0x02, 4, pelmox_extend_msg_ex_v01, data_len),
    ROW_FLAG(0x10, pelmox_extend_msg_ex_v01, data_valid),
    ROW_U_ARRAY(0x10, 1, PELMOX_EXTEND_DATA_MAX_V01, pelmox_extend_msg_ex_v01, data),
    ROW_FLAG(0x11, pelmox_extend_msg_ex_v01, opt_valid),
    ROW_U(0x11, 1, pelmox_extend_msg_ex_v01, opt),
    ROW_END,
};

static const qmi_idl_elem_info extend_pair_ei[] = {
    ROW_U(0x01, 4, pelmox_extend_pair_v01, value1),
    ROW_U(0x02, 4, pelmox_extend_pair_v01, value2),
    ROW_END,
};

static const qmi_idl_elem_info extend_ind_0005_ei[] = {
    ROW_U(0x01, 4, pelmox_extend_ind_0005_v01, value1),
    ROW_U(0x02, 4, pelmox_extend_ind_0005_v01, value2),
    {QMI_IDL_STRUCT, QMI_IDL_STATIC_ARRAY, 0x03, 0, sizeof(pelmox_extend_stats_rec_v01),
     PELMOX_EXTEND_STATS_REC_NUM_V01, offsetof(pelmox_extend_ind_0005_v01, rec), stats_rec_ei},
    ROW_END,
};

static const qmi_idl_elem_info extend_ind_0006_ei[] = {
    ROW_U(0x01, 4, pelmox_extend_ind_0006_v01, value1),
    ROW_U(0x02, 4, pelmox_extend_ind_0006_v01, value2),
    {QMI_IDL_STRUCT, QMI_IDL_STATIC_ARRAY, 0x03, 0, sizeof(pelmox_extend_group_v01),
     PELMOX_EXTEND_GROUP_NUM_V01, offsetof(pelmox_extend_ind_0006_v01, group), group_ei},
    ROW_END,
};

static const qmi_idl_elem_info extend_ind_0008_ei[] = {
    ROW_U(0x01, 4, pelmox_extend_ind_0008_v01, value1),
    {QMI_IDL_STRUCT, QMI_IDL_NO_ARRAY, 0x02, 0, sizeof(pelmox_extend_small_rec_v01), 1,
     offsetof(pelmox_extend_ind_0008_v01, rec), small_rec_ei},
    ROW_END,
};

/* ---- tables per message kind, ordered by message id ---- */

static const qmi_idl_message_table_entry extend_req_table[] = {
    {PELMOX_EXTEND_MSG_ID_0002_V01, EXTEND_MSG_MAX_LEN, sizeof(pelmox_extend_msg_v01), extend_msg_ei},
    {PELMOX_EXTEND_MSG_ID_0003_V01, EXTEND_MSG_MAX_LEN, sizeof(pelmox_extend_msg_v01), extend_msg_ei},
    {PELMOX_EXTEND_MSG_ID_0004_V01, EXTEND_MSG_EX_MAX_LEN, sizeof(pelmox_extend_msg_ex_v01),
     extend_msg_ex_ei},
};

static const qmi_idl_message_table_entry extend_resp_table[] = {
    {PELMOX_EXTEND_MSG_ID_0002_V01, EXTEND_MSG_MAX_LEN, sizeof(pelmox_extend_msg_v01), extend_msg_ei},
    {PELMOX_EXTEND_MSG_ID_0003_V01, EXTEND_MSG_MAX_LEN, sizeof(pelmox_extend_msg_v01), extend_msg_ei},
    {PELMOX_EXTEND_MSG_ID_0004_V01, EXTEND_PAIR_MAX_LEN, sizeof(pelmox_extend_pair_v01),
     extend_pair_ei},
};

static const qmi_idl_message_table_entry extend_ind_table[] = {
    {PELMOX_EXTEND_MSG_ID_0003_V01, EXTEND_MSG_MAX_LEN, sizeof(pelmox_extend_msg_v01), extend_msg_ei},
    {PELMOX_EXTEND_IND_ID_0005_V01, EXTEND_IND_0005_MAX_LEN, sizeof(pelmox_extend_ind_0005_v01),
     extend_ind_0005_ei},
    {PELMOX_EXTEND_IND_ID_0006_V01, EXTEND_IND_0006_MAX_LEN, sizeof(pelmox_extend_ind_0006_v01),
     extend_ind_0006_ei},
    {PELMOX_EXTEND_IND_ID_0007_V01, EXTEND_PAIR_MAX_LEN, sizeof(pelmox_extend_pair_v01),
     extend_pair_ei},
    {PELMOX_EXTEND_IND_ID_0008_V01, EXTEND_IND_0008_MAX_LEN, sizeof(pelmox_extend_ind_0008_v01),
     extend_ind_0008_ei},
};

#define TABLE_LEN(t) ((uint16_t)(sizeof(t) / sizeof((t)[0])))

static const struct qmi_idl_service_object pelmox_extend_qmi_idl_service_object_v01 = {
    PELMOX_EXTEND_IDL_TOOL_VERS_V01,
    PELMOX_EXTEND_IDL_MAJOR_V01,
    PELMOX_EXTEND_SERVICE_ID_V01,
    PELMOX_EXTEND_MAX_MSG_LEN_V01,
    {TABLE_LEN(extend_req_table), TABLE_LEN(extend_resp_table), TABLE_LEN(extend_ind_table)},
    {extend_req_table, extend_resp_table, extend_ind_table},
    PELMOX_EXTEND_IDL_MINOR_V01,
    {TABLE_LEN(extend_req_table), TABLE_LEN(extend_resp_table), TABLE_LEN(extend_ind_table)},
};

qmi_idl_service_object_type pelmox_extend_get_service_object_internal_v01(int32_t idl_maj_version,
                                                                          int32_t idl_min_version,
                                                                          int32_t library_version)
{
    if (idl_maj_version != PELMOX_EXTEND_IDL_MAJOR_V01 ||
        idl_min_version != PELMOX_EXTEND_IDL_MINOR_V01 ||
        library_version != PELMOX_EXTEND_IDL_TOOL_VERS_V01)
        return nullptr;
    return &pelmox_extend_qmi_idl_service_object_v01;
}
