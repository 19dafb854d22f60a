/*
 * modem_stats_parse.cpp - the cell-information record parser, written as one
 * table of fields with a bit start per record version, and the group-7
 * self-test that runs it over a built-in sample with tracing on or off.
 */
#include "modem_stats_parse.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "modem_stats_unpk.h"
#include "pelmox_trace.h"

#define PARSE_VERSIONS 4
#define PARSE_FIELDS 12

/* The parser's output: one static record and its common type. */
static struct {
    uint8_t record[MODEM_STATS_SINGLE_DATA_LEN]; /* the last parsed record, zero-filled past 38 */
    modem_stats_single_data_common_type common; /* points at record once a parse succeeded */
} s_parse;

/* Record versions, in the column order of k_fields[].start. */
static const uint32_t k_versions[PARSE_VERSIONS] = {4, 0x30000, 0x30001, 0x30002};

/* Output record offsets of the fields. */
enum {
    OUT_MCC = 4, OUT_MNC = 6, OUT_TAC = 8, OUT_CGI = 12, OUT_PCI = 20, OUT_BAND = 22,
    OUT_DL_EARFCN = 24, OUT_DL_BW = 28, OUT_UL_EARFCN = 30, OUT_UL_BW = 34, OUT_ALLOW = 36,
    OUT_NONE = -1 /* unpacked and printed, not stored */
};

/* One field of the record: unpacked in table order, for every version. The
 * bit starts count from byte 4 (after the version word). Version 0x30001 is
 * 0x30000 moved by 10 bits and 0x30002 by 24; version 4 lies 64 bits before
 * 0x30000 except pci. These are the record formats: keep them exact. */
typedef struct {
    const char *name;               /* field name in traces */
    int size;                       /* destination bytes */
    int32_t width;                  /* bits */
    int32_t start[PARSE_VERSIONS];  /* bit start per version */
    int out;                        /* output record offset, or OUT_NONE */
} parse_field;

static const parse_field k_fields[PARSE_FIELDS] = {
    {"mcc", 2, 16, {176, 240, 250, 264}, OUT_MCC},
    {"mnc_num", 1, 8, {192, 256, 266, 280}, OUT_NONE},
    {"mnc", 2, 16, {200, 264, 274, 288}, OUT_MNC},
    {"tac", 4, 32, {224, 288, 298, 312}, OUT_TAC},
    {"cgi", 8, 64, {112, 176, 186, 200}, OUT_CGI},
    {"pci", 2, 16, {0, 0, 10, 24}, OUT_PCI},
    {"freq_band_ind", 2, 16, {256, 320, 330, 344}, OUT_BAND},
    {"dl_earfcn", 4, 32, {16, 80, 90, 104}, OUT_DL_EARFCN},
    {"dl_bw", 2, 16, {80, 144, 154, 168}, OUT_DL_BW},
    {"ul_earfcn", 4, 32, {48, 112, 122, 136}, OUT_UL_EARFCN},
    {"ul_bw", 2, 16, {96, 160, 170, 184}, OUT_UL_BW},
    {"allow_access", 1, 8, {216, 280, 290, 304}, OUT_ALLOW},
};

enum { F_MCC, F_MNC_NUM, F_MNC, F_TAC, F_CGI, F_PCI, F_BAND, F_DL_EARFCN, F_DL_BW, F_UL_EARFCN, F_UL_BW, F_ALLOW };

/* The built-in sample: version 0x30001 with its values 6 bits further than
 * that layout expects, so it parses to odd numbers (mcc 29440). The parser
 * does not adjust for it; the self-test shows what the parser makes of it. */
static const uint8_t k_sample[MODEM_STATS_SAMPLE_LEN] = {
    0x01, 0x00, 0x03, 0x00, 0x01, 0x49, 0x27, 0x03, 0xc7, 0xb4, 0xfc, 0x60, 0x17, 0x01, 0x4f, 0x06,
    0x6e, 0x8b, 0x06, 0x00, 0xe8, 0xeb, 0x05, 0x00, 0x14, 0x00, 0x14, 0x00, 0xc7, 0xb4, 0xfc, 0x60,
    0x07, 0x00, 0x00, 0x00, 0xcc, 0x01, 0x02, 0x0b, 0x00, 0x02, 0x0a, 0x8a, 0x76, 0x00, 0x01, 0x00};

static void put_le(uint8_t *p, uint64_t v, int size)
{
    for (int i = 0; i < size; ++i)
        p[i] = (uint8_t)(v >> (8 * i));
}

/* ---- the parser ---- */

int modem_stats_parse_xxxx_diag_xxxx(int32_t unused, modem_stats_data_id_e_type *id,
                                     modem_stats_single_data_common_type **out)
{
    (void)unused;
    (void)id;
    modem_stats_unpk_state *st = modem_stats_unpk_get_state();
    uint32_t version = 0;
    uint64_t val[PARSE_FIELDS] = {0};

    if (UNPK_I("version", &version, 4) != 0) {
        printf("\n");
        return -1;
    }
    BASE_WITH_BIT(32);

    int col = -1;
    for (int i = 0; i < PARSE_VERSIONS; ++i)
        if (version == k_versions[i])
            col = i;
    if (col < 0) {
        st->g_unpk_version_not_support_num++;
        printf("VERSION_NOT_SUPPORT, version(%d), not_support_num(%llu), name(%s), id(0x%x)\n", (int)version,
               (unsigned long long)st->g_unpk_version_not_support_num, "modem_stats_parse_xxxx_diag_xxxx",
               st->g_unpk_id);
        return -1;
    }

    for (int f = 0; f < PARSE_FIELDS; ++f) {
        const parse_field *pf = &k_fields[f];
        if (UNPK_AT(pf->name, pf->start[col], pf->width, &val[f], pf->size) != 0) {
            printf("\n");
            return -1;
        }
    }

    /* The uneven separators (" = " and blank-only) are the lines scripts read. */
    printf("version = %d, mcc = %d, mnc_num %d, mnc %d, tac %d, cgi %llu, pci %d\n", (int)version, (int)val[F_MCC],
           (int)val[F_MNC_NUM], (int)val[F_MNC], (int)(uint32_t)val[F_TAC], (unsigned long long)val[F_CGI],
           (int)val[F_PCI]);
    printf("freq_band_ind = %d, dl_earfcn = %d, dl_bw %d, ul_earfcn %d, ul_bw %d, allow_access %d, scs %d\n",
           (int)val[F_BAND], (int)(uint32_t)val[F_DL_EARFCN], (int)val[F_DL_BW], (int)(uint32_t)val[F_UL_EARFCN],
           (int)val[F_UL_BW], (int)val[F_ALLOW], 0);

    memset(s_parse.record + 36, 0, sizeof(s_parse.record) - 36);
    put_le(s_parse.record, version, 4);
    for (int f = 0; f < PARSE_FIELDS; ++f)
        if (k_fields[f].out != OUT_NONE)
            put_le(s_parse.record + k_fields[f].out, val[f], k_fields[f].size);
    s_parse.record[37] = 0; /* scs: never unpacked */
    s_parse.common.data = s_parse.record;
    s_parse.common.len = MODEM_STATS_CELL_RECORD_LEN;
    if (out)
        *out = &s_parse.common;
    return 0;
}

const modem_stats_single_data_common_type *modem_stats_parse_last(void)
{
    return &s_parse.common;
}

/* ---- group 7, sub-command 0 ---- */

void pelmox_test_modem_stats_parsing_process_do(uint32_t id, const uint8_t *payload, uint32_t size)
{
    modem_stats_unpk_state *st = modem_stats_unpk_get_state();
    if (!payload) {
        printf("MODEM_STATS_DATA_UNPK_START, payload is NULL, id(0x%x)\n", st->g_unpk_id);
        return;
    }
    modem_stats_unpk_reset(id, payload, size);
    modem_stats_data_id_e_type data_id = (modem_stats_data_id_e_type)id;
    modem_stats_single_data_common_type *out = NULL;
    (void)modem_stats_parse_xxxx_diag_xxxx(0, &data_id, &out);
}

int pelmox_test_modem_stats_parsing_process(int argc, char *argv[])
{
    if (argc <= 3) {
        if (pelmox_trace_shell_on())
            puts("\nnote: Too few parameters, Pls refer to the following cmd:");
        return 0;
    }
    int print_flag = atoi(argv[3]);
    printf("length = %d, print_flag = %d\n", MODEM_STATS_SAMPLE_LEN, print_flag);
    modem_stats_unpk_get_state()->g_unpk_print_flag = print_flag;

    /* The last field's window runs 16 bytes past its first byte, beyond the
     * sample: the copy carries zero padding for it. */
    uint8_t buf[MODEM_STATS_SAMPLE_LEN + MODEM_STATS_UNPK_PAD];
    memset(buf, 0, sizeof(buf));
    memcpy(buf, k_sample, sizeof(k_sample));
    pelmox_test_modem_stats_parsing_process_do(0, buf, sizeof(buf));
    return 1;
}
