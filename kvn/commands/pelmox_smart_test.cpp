/*
 * pelmox_smart_test.cpp - command group 11. The modem actions (SSR, full dump,
 * NV sync) are common vendor messages; the modem-side print switches are EFS
 * files written or deleted; the application-side switch and the SSR policy are
 * system properties. Message results are not examined: the modem acts on them
 * or not, and the engineer watches the handset.
 */
#include "pelmox_smart_test.h"

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <cutils/properties.h>

#include "pelmox_extend_cmn.h"
#include "pelmox_extend_nvefs.h"
#include "pelmox_shell.h"
#include "pelmox_trace.h"

#define SMART_GROUP 11

/* Source name shown in this module's log lines. */
static const char k_trace_src[] = "proprietary/modem/hal/kvn/pelmox_smart_test";

/* Common vendor messages. */
#define SMART_MSG_SSR 31
#define SMART_MSG_FULL_DUMP 99
#define SMART_MSG_NV_SYNC 35
#define SMART_SSR_DATA 0x1000u
#define SMART_FULL_DUMP_DATA 0x2000u

/* Properties. */
static const char k_prop_ssr_level[] = "persist.vendor.ssr.restart_level";
static const char k_prop_ssr_level_bak[] = "persist.vendor.ssr.restart_level_bak";
static const char k_prop_ssr_wait_s[] = "persist.radio.ssr_wait_s";
static const char k_prop_print_stats[] = "persist.vendor.radio.print_stats";
static const char k_ssr_enabled[] = "ALL_ENABLE";
static const char k_ssr_disabled[] = "ALL_DISABLE";

/* EFS files, all of subscription 0. */
static const char k_efs_ssr_count[] = "/nv/item_files/modem/pelmox/ssr_update_count";
static const char k_efs_hydra_mask[] = "/hydra/hydra_print_mask";
static const char k_efs_qmi_flag[] = "/nv/item_files/modem/pelmox/qmi_print_flag";
static const char k_efs_rf_mask[] = "/nv/item_files/modem/pelmox/rf_print_mask";

#define SMART_NOTE(...)                 \
    do {                                \
        if (pelmox_trace_shell_on())    \
            printf(__VA_ARGS__);        \
    } while (0)

#define SMART_LOG(...) PELMOX_TRACE(k_trace_src, __VA_ARGS__)

static void smart_put_u32(uint8_t *p, uint32_t v)
{
    for (int i = 0; i < 4; ++i)
        p[i] = (uint8_t)(v >> (8 * i));
}

/* Sends one common message with a zero-filled reply buffer; the result is
 * passed back but nobody looks at it. */
static int smart_send(uint32_t msg, uint32_t len, const uint8_t *data)
{
    uint8_t rsp[PELMOX_CMN_RSP_LEN];
    memset(rsp, 0, sizeof(rsp));
    return pelmox_send_common_qmi_msg(msg, len, data, rsp);
}

/* ---- SSR, full dump, NV sync ---- */

static int pelmox_smart_test_modem_ssr(void)
{
    uint8_t data[4];
    smart_put_u32(data, SMART_SSR_DATA);
    SMART_LOG("Will trigger SSR of modem");
    return smart_send(SMART_MSG_SSR, sizeof(data), data);
}

static int pelmox_smart_test_nv_sync(void)
{
    SMART_LOG("Will trigger NV SYNC");
    return smart_send(SMART_MSG_NV_SYNC, 0, NULL);
}

/*
 * The stored counter is read with a buffer exactly its size, which the EFS
 * read refuses (a read stops when the capacity is used up), so the count
 * starts over at 1 on every full dump. Kept as the modem side expects it.
 */
static int pelmox_smart_test_read_ssr_update_flag(void)
{
    uint8_t buf[4] = {0};
    uint32_t len = sizeof(buf);
    int ret = pelmox_efs_read(0, k_efs_ssr_count, (uint32_t)strlen(k_efs_ssr_count), buf, &len);
    int count = (int)((uint32_t)buf[0] | (uint32_t)buf[1] << 8 | (uint32_t)buf[2] << 16 | (uint32_t)buf[3] << 24);
    SMART_LOG("PROP_MODEM_SSR_UPDATE_COUNT read ret: %d, old update_cnt: %d, len: %d", ret, count, (int)len);
    if (ret != 0) {
        SMART_LOG("pelmox_efs_read failed, maybe empty");
        return 0;
    }
    return count;
}

static void pelmox_smart_test_save_ssr_update_flag(void)
{
    int count = pelmox_smart_test_read_ssr_update_flag() + 1;
    uint8_t buf[4];
    smart_put_u32(buf, (uint32_t)count);
    int ret = pelmox_efs_write(0, k_efs_ssr_count, (uint32_t)strlen(k_efs_ssr_count), buf, sizeof(buf));
    SMART_LOG("PROP_MODEM_SSR_UPDATE_COUNT write ret: %d, new update_cnt: %d", ret, count);
}

/* Waits for the modem to settle after the SSR policy changed. The value is
 * slept as unsigned, so a negative setting blocks for a very long time before
 * the caller gets to see that it was negative. */
static int pelmox_smart_test_ssr_wait_s(void)
{
    char value[PROPERTY_VALUE_MAX];
    property_get(k_prop_ssr_wait_s, value, "3");
    int wait_s = atoi(value);
    SMART_LOG("ssr wait_s = %d", wait_s);
    if (wait_s == 0) {
        SMART_LOG("modem ssr will not wait");
        return wait_s;
    }
    SMART_LOG("modem ssr start to wait %ds to init", wait_s);
    sleep((unsigned int)wait_s);
    SMART_LOG("modem ssr end to wait %ds to init", wait_s);
    return wait_s;
}

/*
 * A full dump needs SSR closed ("ALL_DISABLE"): otherwise the modem restarts
 * instead of dumping. The policy in force the first time is saved once, so a
 * later tool can put it back. The "default state" logged is the saved policy
 * as read before it was stored (empty on the first run).
 */
static int pelmox_smart_test_full_dump(void)
{
    char level[PROPERTY_VALUE_MAX];
    char saved[PROPERTY_VALUE_MAX];
    property_get(k_prop_ssr_level, level, k_ssr_enabled);
    property_get(k_prop_ssr_level_bak, saved, "");
    if (saved[0] == '\0') {
        SMART_LOG("need to save ssr state");
        property_set(k_prop_ssr_level_bak, level);
    }
    SMART_LOG("Will trigger Full Dump, the current state: %s, the default state: %s", level, saved);
    if (strcmp(level, k_ssr_disabled) != 0) {
        SMART_LOG("need to close ssr");
        property_set(k_prop_ssr_level, k_ssr_disabled);
        pelmox_smart_test_save_ssr_update_flag();
        int wait_s = pelmox_smart_test_ssr_wait_s();
        if (wait_s < 0) {
            SMART_LOG("wait_s < 0, ssr is stoped");
            return 0;
        }
    }
    uint8_t data[4];
    smart_put_u32(data, SMART_FULL_DUMP_DATA);
    return smart_send(SMART_MSG_FULL_DUMP, sizeof(data), data);
}

/* ---- print switches ---- */

/* Application-side statistics print; "2" means off (not "0"), and it takes
 * effect after a reboot. */
static int pelmox_smart_test_ap_hydra_switch(int opt)
{
    printf("ap_hydra_print, opt = %d\n", opt);
    property_set(k_prop_print_stats, opt == 1 ? "1" : "2");
    puts("success, need to reboot");
    return 0;
}

/* One modem-side print switch: its name, its EFS file and what "on" writes. */
typedef struct {
    const char *name;     /* printed as "<name>, opt = %d" */
    const char *path;     /* the switch's EFS file */
    const uint8_t *on;    /* content written for "on" */
    uint32_t on_len;      /* its length */
} smart_bp_switch;

static const uint8_t k_hydra_on[4] = {0x1f, 0, 0, 0}; /* u32 0x1f */
static const uint8_t k_qmi_on[1] = {1};               /* one byte */
static const uint8_t k_rf_on[4] = {0x0f, 0, 0, 0};    /* u32 0xf */

static const smart_bp_switch k_bp_hydra = {"bp_hydra_print", k_efs_hydra_mask, k_hydra_on, sizeof(k_hydra_on)};
static const smart_bp_switch k_bp_qmi = {"bp_qmi_print", k_efs_qmi_flag, k_qmi_on, sizeof(k_qmi_on)};
static const smart_bp_switch k_bp_rf = {"bp_rf_print", k_efs_rf_mask, k_rf_on, sizeof(k_rf_on)};

/* On writes the file, off deletes it; the modem reads it at start, hence
 * the NV sync and restart that follow. */
static int smart_bp_switch_set(const smart_bp_switch *sw, int opt)
{
    printf("%s, opt = %d\n", sw->name, opt);
    uint32_t path_len = (uint32_t)strlen(sw->path);
    if (opt == 1) {
        int ret = pelmox_efs_write(0, sw->path, path_len, sw->on, sw->on_len);
        if (ret != 0) {
            puts("pelmox_efs_write failed");
            return ret;
        }
    } else {
        int ret = pelmox_efs_delete(0, sw->path, path_len);
        if (ret != 0) {
            puts("pelmox_efs_delete failed");
            return ret;
        }
    }
    pelmox_smart_test_nv_sync();
    pelmox_smart_test_modem_ssr();
    puts("success, pls wait 10 seconds");
    return 0;
}

static int pelmox_smart_test_bp_hydra_print_switch(int opt) { return smart_bp_switch_set(&k_bp_hydra, opt); }
static int pelmox_smart_test_bp_qmi_print_switch(int opt) { return smart_bp_switch_set(&k_bp_qmi, opt); }
static int pelmox_smart_test_bp_rf_print_switch(int opt) { return smart_bp_switch_set(&k_bp_rf, opt); }

/* ---- group entry ---- */

int pelmox_smart_test_do(int argc, char *argv[])
{
    if (argc <= 2) {
        SMART_NOTE("\nnote: Too few parameters, Pls refer to the following cmd:\n");
        show_help(SMART_GROUP);
        return 0;
    }
    if (atoi(argv[1]) != SMART_GROUP) {
        SMART_NOTE("\nnote: the first parameters should be %d, Pls refer to the following cmd:\n", SMART_GROUP);
        show_help(SMART_GROUP);
        return 0;
    }
    int sub = atoi(argv[2]);
    int opt = 0;
    if (sub >= 3 && sub <= 6) {
        if (argc <= 3) {
            SMART_NOTE("\nnote: Too few parameters, Pls refer to the following cmd:\n");
            show_help(SMART_GROUP);
            return 0;
        }
        opt = atoi(argv[3]);
        if ((unsigned int)opt > 1) {
            SMART_NOTE("\nnote: opt(%d) is invalid:\n", opt);
            show_help(SMART_GROUP);
            return 0;
        }
    }
    switch (sub) {
    case 0: return pelmox_smart_test_modem_ssr();
    case 1: return pelmox_smart_test_full_dump();
    case 2: return pelmox_smart_test_nv_sync();
    case 3: return pelmox_smart_test_ap_hydra_switch(opt);
    case 4: return pelmox_smart_test_bp_hydra_print_switch(opt);
    case 5: return pelmox_smart_test_bp_qmi_print_switch(opt);
    case 6: return pelmox_smart_test_bp_rf_print_switch(opt);
    default: break; /* an int, not one of the project's enums */
    }
    printf("invalid par_i = %d\n", sub);
    show_help(SMART_GROUP);
    return 0;
}
