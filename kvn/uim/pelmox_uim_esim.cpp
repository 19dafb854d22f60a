/*
 * pelmox_uim_esim.cpp - the eSIM switch test (group 5 sub-command 10): moves
 * the second subscription between the physical card in slot 2 and the
 * eUICC, reads, checks and stores the EID, reports the card states and
 * resets the eUICC's memory. A factory script reads its one result line;
 * the traces are detail for a person, and debug_on 0 silences them.
 */
#include "pelmox_uim.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "pelmox_conv.h"
#include "pelmox_extend_cmn.h"
#include "pelmox_extend_nvefs.h"
#include "pelmox_trace.h"
#include "pelmox_utils.h"

static const char k_trace_src[] = "proprietary/modem/hal/qmi/pelmox_extend_cmn";

#define UIM_TRACE(...) PELMOX_TRACE(k_trace_src, __VA_ARGS__)
/* The options are steps of the test's entry and trace under its name, which
 * is what log readers look for. */
#define ESIM_TRACE(...) pelmox_trace_emit(k_trace_src, __LINE__, "pelmox_cmn_esim_test", __VA_ARGS__)

#define ESIM_SLOT 2
#define ESIM_EID_POLLS 30           /* EID attempts after switching to the eUICC */
#define ESIM_POLL_WAIT_MS 100       /* before every EID attempt */
#define ESIM_SELECT_MSG 0x54        /* common message: what slot 2 runs on */
#define ESIM_EID_HEX_LEN (2 * PELMOX_UIM_EID_LEN)
#define ESIM_EID_FILE_CAPACITY 17   /* one more than the file, so a 16-byte file reads whole */
#define ESIM_EID_FILE_SUB 1

static const char k_eid_path[] = "/nv/item_files/modem/uim/uimdrv/esim_eid";

/* eUICCMemoryReset (ES10c) in a STORE DATA: delete operational and test
 * profiles, reset the default SM-DP+ address. */
static const uint8_t k_reset_apdu[] = {0x80, 0xE2, 0x91, 0x00, 0x07, 0xBF, 0x34,
                                       0x04, 0x82, 0x02, 0x05, 0xE0, 0x00};

static struct {
    int IS_EID_SAVE; /* the EID is known to be in the EID file (this process only) */
} s_esim;

/* ---- helpers ---- */

static void esim_sleep_ms(long ms)
{
    struct timespec ts = {ms / 1000, (ms % 1000) * 1000000L};
    while (nanosleep(&ts, &ts) != 0) {
    }
}

/* 32 lower-case hex characters and a terminator. */
static void esim_eid_text(const uint8_t *eid, char *text)
{
    pelmox_byte_to_hex(eid, PELMOX_UIM_EID_LEN, text);
    text[ESIM_EID_HEX_LEN] = '\0';
}

static int esim_power(int32_t operation, int32_t ignore_hotswap)
{
    power_request req = {operation, ESIM_SLOT, ignore_hotswap};
    return pelmox_uim_request_uicc_power_ex(&req);
}

/* The selection message; its answer is not checked, the power up follows
 * regardless. */
static void esim_select(uint8_t physical)
{
    uint8_t value[8] = {physical, 0, 0, 0, 0, 0, 0, 0};
    uint8_t rsp[PELMOX_CMN_RSP_LEN];
    (void)pelmox_send_common_qmi_msg(ESIM_SELECT_MSG, sizeof(value), value, rsp);
}

static const char *esim_state_name(uint8_t state)
{
    static const char *const names[] = {"ABSENT", "PRESENT", "ERROR"};
    return state < 3 ? names[state] : "UNKNOWN";
}

/* Prints the two card states as NAME,NAME and a line end. */
static void map_sim_state(const uint8_t *states)
{
    printf("%s,%s\n", esim_state_name(states[0]), esim_state_name(states[1]));
}

int is_eid_valid(const char *eid_text)
{
    UIM_TRACE("check whether eid valid\n");
    int32_t r = 0;
    /* Every character counts as c - '0', letters included: EIDs are
     * decimal, and this is the rule the factory line has always applied. */
    for (int i = 0; i < ESIM_EID_HEX_LEN; ++i)
        r = (r * 10 + (eid_text[i] - '0')) % 97;
    if (r == 1) {
        UIM_TRACE("eid validate pass\n");
        return 1;
    }
    UIM_TRACE("eid validate failed, result = %d\n", r);
    return 0;
}

/* Writes the EID file once: not when this process already knows it is there,
 * nor when it can be read (its content is not compared). */
static void save_eid_to_efs(const uint8_t *eid)
{
    if (s_esim.IS_EID_SAVE) {
        UIM_TRACE("EID already saved, skip\n");
        return;
    }
    uint8_t buf[ESIM_EID_FILE_CAPACITY];
    uint32_t len = sizeof(buf);
    int res = pelmox_efs_read(ESIM_EID_FILE_SUB, k_eid_path, (uint32_t)strlen(k_eid_path), buf, &len);
    if (res == 0) {
        UIM_TRACE("EID already exists, set IS_EID_SAVE TRUE\n");
        s_esim.IS_EID_SAVE = 1;
        return;
    }
    UIM_TRACE("efs read failed and try save it. error_code : %d\n", res);
    res = pelmox_efs_write(ESIM_EID_FILE_SUB, k_eid_path, (uint32_t)strlen(k_eid_path), eid, PELMOX_UIM_EID_LEN);
    if (pelmox_trace_shell_on())
        printf("save eid efs result = %d\n", res);
    if (res == 0) {
        UIM_TRACE("save eid successfully, set IS_EID_SAVE TRUE\n");
        s_esim.IS_EID_SAVE = 1;
    }
}

/* ---- options; each returns 1 when it ended as a failure ---- */

static int esim_switch_to_euicc(void)
{
    ESIM_TRACE("switch to eSIM");
    int res = esim_power(0, 0);
    ESIM_TRACE("POWER_DOWN_UIM2 res = %d", res);
    if (res != 0)
        return 1;
    esim_select(0);
    res = esim_power(1, 1);
    ESIM_TRACE("POWER_UP_UIM2 res = %d", res);
    if (res != 0)
        return 1;

    uint8_t slot = ESIM_SLOT;
    uint8_t eid[PELMOX_UIM_EID_LEN] = {0};
    for (int loop = 0; loop < ESIM_EID_POLLS; ++loop) {
        esim_sleep_ms(ESIM_POLL_WAIT_MS);
        ESIM_TRACE("try get eid loop = %d", loop);
        (void)pelmox_uim_request_eid(&slot, eid);
        if (eid[0] != 0)
            break;
    }
    if (eid[0] == 0) {
        ESIM_TRACE("get eid timeout");
        return 1;
    }
    char text[ESIM_EID_HEX_LEN + 1];
    esim_eid_text(eid, text);
    if (!is_eid_valid(text)) {
        printf("value=FAILED - %s\n", text);
        return 0;
    }
    save_eid_to_efs(eid);
    printf("eID=%s\n", text);
    return 0;
}

static int esim_switch_to_physical(void)
{
    ESIM_TRACE("switch to SIM2");
    int res = esim_power(0, 0);
    ESIM_TRACE("POWER_DOWN_UIM2 res = %d", res);
    if (res != 0)
        return 1;
    esim_select(1);
    res = esim_power(1, 0);
    ESIM_TRACE("POWER_UP_UIM2 res = %d", res);
    if (res != 0)
        return 1;
    ESIM_TRACE("SIM2 Power Up successfully");
    printf("value=SUCCEED\n");
    return 0;
}

/* Two attempts, 100 ms apart; no check and nothing stored. */
static int esim_read_eid(void)
{
    ESIM_TRACE("pelmox get eid");
    uint8_t slot = ESIM_SLOT;
    uint8_t eid[PELMOX_UIM_EID_LEN] = {0};
    esim_sleep_ms(ESIM_POLL_WAIT_MS);
    (void)pelmox_uim_request_eid(&slot, eid);
    if (eid[0] == 0) {
        esim_sleep_ms(ESIM_POLL_WAIT_MS);
        (void)pelmox_uim_request_eid(&slot, eid);
        if (eid[0] == 0)
            return 1;
    }
    char text[ESIM_EID_HEX_LEN + 1];
    esim_eid_text(eid, text);
    printf("eID=%s\n", text);
    return 0;
}

static int esim_card_states(void)
{
    ESIM_TRACE("try get simcard status");
    uint16_t states = 0x0303;
    int res = pelmox_uim_get_card_status(&states);
    if (res != 0)
        return 1;
    uint8_t pair[2] = {(uint8_t)(states & 0xFF), (uint8_t)(states >> 8)};
    ESIM_TRACE("card_status, [%d, %d]", pair[0], pair[1]);
    map_sim_state(pair);
    return 0;
}

static int esim_euicc_reset(void)
{
    ESIM_TRACE("Start eUICC Reset");
    pelmox_uim_open_req open_req = {ESIM_SLOT, 1};
    uint8_t channel_id = 255;
    int res = pelmox_uim_open_channel(&open_req, &channel_id);
    ESIM_TRACE("pelmox_uim_open_channel res = %d, channel_id = %d", res, channel_id);
    if (res != 0)
        return 1;

    pelmox_uim_apdu_req apdu;
    memset(&apdu, 0, sizeof(apdu));
    apdu.slot = ESIM_SLOT;
    apdu.channel_id = channel_id;
    apdu.apdu_len = sizeof(k_reset_apdu);
    memcpy(apdu.apdu, k_reset_apdu, sizeof(k_reset_apdu));
    pelmox_uim_apdu_rsp rsp;
    memset(&rsp, 0, sizeof(rsp));
    res = pelmox_uim_send_apdu(&apdu, &rsp);
    ESIM_TRACE("pelmox_uim_send_apdu res = %d", res);
    if (res != 0)
        return 1;

    /* The length byte and the first 8 response bytes. */
    char text[19];
    pelmox_byte_to_hex((const uint8_t *)&rsp, 9, text);
    text[18] = '\0';
    ESIM_TRACE("apdu=%s", text);
    if (strcmp(text, "08bf34038001009000") == 0) {
        ESIM_TRACE("pelmox_uim_send_apdu, delete profile successfully.");
    } else if (strcmp(text, "08bf34038001019000") == 0) {
        ESIM_TRACE("pelmox_uim_send_apdu, nothing to delete.");
    } else {
        ESIM_TRACE("pelmox_uim_send_apdu, apdu rsp check failed.");
        return 1; /* the channel is left open */
    }

    pelmox_uim_close_req close_req = {ESIM_SLOT, channel_id};
    res = pelmox_uim_close_channel(&close_req);
    ESIM_TRACE("pelmox_uim_close_channel res = %d", res);
    printf("value=SUCCEED\n");
    return 0;
}

/* ---- entry ---- */

typedef int (*esim_option_fn)(void);

/* Options 1 to 5, in order. */
static const esim_option_fn k_esim_options[] = {
    esim_switch_to_euicc, esim_switch_to_physical, esim_read_eid, esim_card_states, esim_euicc_reset,
};

int pelmox_cmn_esim_test(int argc, char *argv[])
{
    if (argc < 5) {
        UIM_TRACE("invalid input\n");
        return -1;
    }
    int esim_on = atoi(argv[3]);
    int debug_on = atoi(argv[4]);
    if (debug_on == 0) {
        g_pelmox_shell_print_flag = 0;
        g_pelmox_print_flag = 0;
    }
    int failed = 1;
    if (esim_on >= 1 && esim_on <= (int)(sizeof(k_esim_options) / sizeof(k_esim_options[0])))
        failed = k_esim_options[esim_on - 1]();
    else
        UIM_TRACE("invalid input skip");
    if (failed)
        printf("value=FAILED\n");
    return 0;
}
