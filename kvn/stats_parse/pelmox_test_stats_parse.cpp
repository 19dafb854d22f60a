/*
 * pelmox_test_stats_parse.cpp - command group 7. Sub-command 0 is the parser
 * self-test; sub-command 1 fetches the statistics module's debug block from
 * the modem over common request 20 and prints it section by section, or
 * checks it and, when the modem met record versions it cannot parse, lists
 * the diag logs to upgrade from common request 27.
 */
#include "pelmox_test_stats_parse.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "modem_stats_parse.h"
#include "pelmox_extend_cmn.h"
#include "pelmox_shell.h"
#include "pelmox_trace.h"

#define STATS_RSP_RESULT_OFF 4 /* i32 response result in the reply */
#define STATS_RSP_PAYLOAD_OFF 8 /* payload start in the reply */

static const char k_rule[] = "===========================================";

/* ---- fields and sections ---- */

/* One little-endian field of a debug-block section. */
typedef struct {
    uint8_t size;        /* bytes: 1, 2, 4 or 8 */
    uint8_t min_version; /* first block version that has it */
    const char *label;   /* printed name */
} stats_field;

#define STATS_FIELDS(t) (t), (sizeof(t) / sizeof((t)[0]))

static const stats_field k_main_fields[] = {
    {1, 0, "g_modem_stats_feature_enable_status"},
    {8, 0, "g_unpk_version_not_support_num"},
    {8, 0, "g_modem_stats_cmd_ok_count"},
    {8, 0, "g_modem_stats_cmd_fail_count"},
    {8, 2, "hydra_system_heapi_mem_max_num"},
    {8, 2, "hydra_system_heapi_mem_cur_num"},
    {4, 2, "modem_statsi_cmd_q_count"},
    {4, 2, "modem_statsi_cmd_free_q_count"},
    {4, 4, "g_hydra_log_mask"},
    {4, 4, "g_hydra_log_stats_mask"},
};

static const stats_field k_diag_fields[] = {
    {1, 0, "init_state"},
    {4, 0, "listener_event_num"},
    {1, 0, "listener_event_state"},
    {4, 0, "listener_event_call_num"},
    {4, 0, "listener_event_parse_num"},
    {4, 0, "listener_log_num"},
    {1, 0, "listener_log_state"},
    {8, 0, "listener_log_call_num"},
    {8, 0, "listener_log_parse_num"},
    {4, 0, "poll_update_call_num"},
    {4, 0, "poll_update_parse_num"},
    {8, 1, "listener_event_callback_num"},
    {8, 1, "listener_log_callback_num"},
    {4, 1, "lte_cell_id_invalid_num"},
    {4, 1, "nr5g_cell_id_invalid_num"},
    {4, 2, "event_duration_ms_max"},
    {4, 2, "log_duration_ms_max"},
    {4, 2, "do_duration_ms_max"},
    {4, 2, "debug_call_num"},
    {4, 2, "debug_parse_num"},
    {4, 3, "cust_event_call_num"},
    {4, 3, "cust_event_parse_num"},
};

static const stats_field k_cm_fields[] = {
    {1, 0, "init_state"},
    {1, 0, "listener_state"},
    {4, 0, "listener_call_event_call_num"},
    {4, 0, "listener_call_event_parse_num"},
    {4, 0, "listener_subs_event_call_num"},
    {4, 0, "listener_subs_event_parse_num"},
    {4, 0, "listener_ss_event_call_num"},
    {4, 0, "listener_ss_event_parse_num"},
    {4, 0, "listener_stats_event_call_num"},
    {4, 0, "listener_stats_event_parse_num"},
    {4, 0, "poll_update_rf_call_num"},
    {4, 0, "poll_update_rf_parse_num"},
    {4, 0, "poll_update_lte_call_num"},
    {4, 0, "poll_update_lte_parse_num"},
    {4, 0, "poll_update_nr5g_call_num"},
    {4, 0, "poll_update_nr5g_parse_num"},
};

static const stats_field k_uim_fields[] = {
    {1, 0, "init_state"},
    {1, 0, "listener_state"},
    {4, 0, "listener_event_call_num"},
    {4, 0, "listener_event_parse_num"},
};

/* The fields the check reads from the start of the payload. */
static const stats_field k_check_fields[] = {
    {1, 0, "version"},
    {1, 0, "modem_stats_feature_enable_status"},
    {8, 0, "version_not_support_num"},
    {8, 0, "modem_stats_cmd_ok_count"},
    {8, 0, "modem_stats_cmd_fail_count"},
};
enum { CHECK_VERSION, CHECK_ENABLED, CHECK_NOT_SUPPORT, CHECK_OK, CHECK_FAIL, CHECK_FIELDS };

static uint64_t get_le(const uint8_t *p, uint32_t size)
{
    uint64_t v = 0;
    for (uint32_t i = size; i > 0; --i)
        v = (v << 8) | p[i - 1];
    return v;
}

static void print_field(uint32_t size, const char *label, uint64_t v)
{
    printf("UNPK[size:%d], %s = %llu\n", (int)size, label, (unsigned long long)v);
}

/* Prints the fields a block of this version has, in order, with values[] (if
 * not null) receiving them; returns the bytes they take. */
static uint32_t unpk_fields(const uint8_t *p, const stats_field *f, size_t n, uint8_t version, uint64_t *values)
{
    uint32_t off = 0;
    for (size_t i = 0; i < n; ++i) {
        if (version < f[i].min_version)
            break;
        uint64_t v = get_le(p + off, f[i].size);
        print_field(f[i].size, f[i].label, v);
        if (values)
            values[i] = v;
        off += f[i].size;
    }
    return off;
}

static uint32_t unpk_section(const uint8_t *p, const stats_field *f, size_t n, uint8_t version)
{
    if (!p) {
        printf("ptr is null\n");
        return 0;
    }
    return unpk_fields(p, f, n, version, NULL);
}

uint32_t pelmox_modem_stats_main_info_unpk(const uint8_t *p, uint8_t version)
{
    return unpk_section(p, STATS_FIELDS(k_main_fields), version);
}

uint32_t pelmox_modem_stats_diag_info_unpk(const uint8_t *p, uint8_t version)
{
    return unpk_section(p, STATS_FIELDS(k_diag_fields), version);
}

uint32_t pelmox_modem_stats_cm_info_unpk(const uint8_t *p)
{
    return unpk_section(p, STATS_FIELDS(k_cm_fields), 0);
}

uint32_t pelmox_modem_stats_uim_info_unpk(const uint8_t *p)
{
    return unpk_section(p, STATS_FIELDS(k_uim_fields), 0);
}

/* ---- the check ---- */

static int32_t rsp_result(const uint8_t *rsp)
{
    return (int32_t)(uint32_t)get_le(rsp + STATS_RSP_RESULT_OFF, 4);
}

/* Lists the diag log ids the modem cannot parse. The offset of each id runs
 * in an 8-bit counter, as on the modem side: from the 128th id on it wraps to
 * the start of the list (the 128th "id" is the count itself). */
static void stats_list_not_supported(void)
{
    uint8_t rsp[PELMOX_CMN_RSP_LEN];
    memset(rsp, 0, sizeof(rsp));
    int result = pelmox_common_qmi_req(PELMOX_REQ_STATS_NOT_SUPPORT, 0, NULL, rsp);
    if (result != 0) {
        printf("pelmox_common_qmi_req fail, result = %d, rsp_not_support.result = %d", result, rsp_result(rsp));
        return;
    }
    if (rsp_result(rsp) != 0) {
        printf("qmi response fail, result = %d, rsp_not_support.result = %d", rsp_result(rsp), rsp_result(rsp));
        return;
    }
    const uint8_t *list = rsp + STATS_RSP_PAYLOAD_OFF;
    uint32_t log_num = (uint32_t)get_le(list, 2);
    print_field(2, "log_num", log_num);
    printf("%s\n================= FAIL ====================\n%s\n", k_rule, k_rule);
    printf("Diag logs to be upgraded[num:%d]:\n", (int)log_num);
    for (uint32_t i = 0; i < log_num; ++i) {
        uint8_t off = (uint8_t)(2 + 2 * i);
        printf("log_id[%d]: 0x%04X\n", (int)i, (unsigned)get_le(list + off, 2));
    }
}

void pelmox_modem_stats_support_status_check(const uint8_t *payload)
{
    if (!payload) {
        printf("pelmox_modem_stats_support_status_check, ptr is null\n");
        return;
    }
    uint64_t v[CHECK_FIELDS] = {0};
    (void)unpk_fields(payload, STATS_FIELDS(k_check_fields), 0, v);
    /* The count is 8 bytes: non-zero only in its high bytes still fails. */
    if (v[CHECK_ENABLED] != 0 && v[CHECK_NOT_SUPPORT] == 0) {
        printf("%s\n================ SUCCES ===================\n", k_rule); /* "SUCCES" as scripts match it */
    } else if (v[CHECK_ENABLED] == 0) {
        printf("%s\n================ CLOSED ===================\n", k_rule);
    } else {
        stats_list_not_supported();
    }
}

/* ---- sub-command 1: debug info ---- */

typedef uint32_t (*stats_section_fn)(const uint8_t *p, uint8_t version);

static uint32_t cm_section(const uint8_t *p, uint8_t version)
{
    (void)version;
    return pelmox_modem_stats_cm_info_unpk(p);
}

static uint32_t uim_section(const uint8_t *p, uint8_t version)
{
    (void)version;
    return pelmox_modem_stats_uim_info_unpk(p);
}

/* The sections of the block, in order after the version byte. */
static const struct {
    const char *name;    /* in the start and end marker lines */
    stats_section_fn fn; /* prints it and returns its length */
} k_sections[] = {
    {"main", pelmox_modem_stats_main_info_unpk},
    {"diag", pelmox_modem_stats_diag_info_unpk},
    {"cm", cm_section},
    {"uim", uim_section},
};

void pelmox_test_modem_stats_get_debug_info_do(uint32_t type)
{
    uint8_t rsp[PELMOX_CMN_RSP_LEN];
    memset(rsp, 0, sizeof(rsp));
    printf("Get the debug info of modem_stats, mask = 0x%x\n", type);
    int result = pelmox_common_qmi_req(PELMOX_REQ_STATS_DEBUG_INFO, 0, NULL, rsp);
    /* Neither failure line ends in a line end: that is how the tool prints them. */
    if (result != 0) {
        printf("pelmox_common_qmi_req fail, REQUEST_ID_COMMON, result = %d, rsp.result = %d", result,
               rsp_result(rsp));
        return;
    }
    if (rsp_result(rsp) != 0) {
        printf("qmi response fail, result = %d, rsp.result = %d", rsp_result(rsp), rsp_result(rsp));
        return;
    }
    const uint8_t *payload = rsp + STATS_RSP_PAYLOAD_OFF;
    if (type == 0)
        pelmox_modem_stats_support_status_check(payload);
    else
        pelmox_modem_stats_debug_info_print(payload);
}

void pelmox_modem_stats_debug_info_print(const uint8_t *payload)
{
    uint8_t version = payload[0];
    print_field(1, "version", version);
    /* The cursor is 8 bits wide, as on the modem side; the largest block
     * (221 bytes) never wraps it, and no section read goes past payload
     * byte 255 + 95. */
    uint8_t cnt = 1;
    for (size_t i = 0; i < sizeof(k_sections) / sizeof(k_sections[0]); ++i) {
        printf("-------- stats %s info start --------\n", k_sections[i].name);
        cnt = (uint8_t)(cnt + k_sections[i].fn(payload + cnt, version));
        printf("-------- stats %s info end, cnt(%d) --------\n", k_sections[i].name, cnt);
    }
}

int pelmox_test_modem_stats_get_debug_info(int argc, char *argv[])
{
    if (argc <= 3) {
        if (pelmox_trace_shell_on())
            puts("\nnote: Too few parameters, Pls refer to the following cmd:");
        return 0;
    }
    pelmox_test_modem_stats_get_debug_info_do((uint32_t)atoi(argv[3]));
    return 1;
}

/* ---- group 7 dispatcher ---- */

int pelmox_test_modem_stats_do(int argc, char *argv[])
{
    int notes = pelmox_trace_shell_on();
    if (argc <= 2) {
        if (notes)
            puts("\nnote: Too few parameters, Pls refer to the following cmd:");
    } else if (atoi(argv[1]) != PELMOX_MODEM_STATS_GROUP) {
        if (notes)
            printf("\nnote: the first parameters should be %d, Pls refer to the following cmd:\n",
                   PELMOX_MODEM_STATS_GROUP);
    } else {
        int sub = atoi(argv[2]);
        if (sub == 1) {
            int r = pelmox_test_modem_stats_get_debug_info(argc, argv);
            if (r != 0)
                return r;
            puts("pelmox_test_modem_stats_get_debug_info FAIL");
        } else if (sub == 0) {
            int r = pelmox_test_modem_stats_parsing_process(argc, argv);
            if ((r & 0xFF) != 0)
                return r;
            puts("pelmox_test_modem_stats_parsing_process FAIL");
        } else {
            printf("invalid type = %d\n", sub);
        }
    }
    show_help(PELMOX_MODEM_STATS_GROUP);
    return 0;
}
