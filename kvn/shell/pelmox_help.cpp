/*
 * pelmox_help.cpp - the tool's help text. Scripts and engineers read it line
 * by line, so every blank, misspelling ("duing", "bi43", "bi63", "blew") and
 * doubled comment closer below is part of the interface and stays as it is.
 * Each group's section is a table of rows; a row either formats its text with
 * up to two numbers (and carries its own line ends) or is a plain line to
 * which a line end is added.
 */
#include "pelmox_shell.h"

#include <stddef.h>
#include <stdio.h>

/* One line (or formatted piece) of a help section. */
typedef struct {
    int nvals;        /* 0: plain line, "\n" added; 1 or 2: printf with v1 (and v2) */
    int v1;           /* first %d */
    int v2;           /* second %d */
    const char *text; /* the text or format */
} pelmox_help_row;

/* ---- help sections, one table per group ---- */

static const pelmox_help_row k_help_sec1[] = {
    {1, 1, 0, "%d: nv option cmd\n"},
    {1, 1, 0, "   kvn %d 1       /* nv test */\n"},
    {1, 1, 0, "   kvn %d 2 0     /* nv backup(no privacy nvs) */\n"},
    {1, 1, 0, "   kvn %d 2 1     /* nv backup(have privacy nvs) */\n"},
    {1, 1, 0, "   kvn %d 3 0     /* nv restore(no goldencopy done after restore) */\n"},
    {1, 1, 0, "   kvn %d 3 1     /* nv restore(do goldencopy done after restore) */\n"},
    {1, 1, 0, "   kvn %d 4 nvid  /* nv delete */\n"},
};
static const pelmox_help_row k_help_sec2[] = {
    {1, 2, 0, "%d: imei option cmd\n"},
    {1, 2, 0, "   kvn %d 0       /* imei_protect disable */\n"},
    {1, 2, 0, "   kvn %d 1       /* imei_protect start */\n"},
};
static const pelmox_help_row k_help_sec3[] = {
    {1, 3, 0, "%d: rf option cmd\n"},
    {2, 3, 0, "   kvn %d %d ...   /* gpio value setting(pls input enough gpio value by notice)*/\n"},
    {0, 0, 0, "                    (need to reboot duing first setting) "},
    {2, 3, 1, "   kvn %d %d       /* get gpio test state */\n"},
    {2, 3, 2, "   kvn %d %d       /* Close gpio test(need to reboot) */\n"},
    {2, 3, 3, "   kvn %d %d v_ant v_sys v_band_list\n"},
    {0, 0, 0, "                 /* fix tx to upper(lower) antenna for given band list */"},
    {0, 0, 0, "                    (need to reboot) "},
    {0, 0, 0, "                    v_ant: 0 - lower antenna, 1 - upper antenna "},
    {0, 0, 0, "                    v_sys: 0 - gsm, 1 - wcdma, 2 - cdma, 3 - tds, 4 - lte "},
    {0, 0, 0, "                    v_band_list: bit0~bi43 - (gsm: 850,900,1800,1900; wcdma: b1,b2,b4,b5,b8; "},
    {0, 0, 0, "                                            cdma: bc0, tds: b34,b39; lte: b1...b44 "},
    {0, 0, 0, "                    v_band_list: bit44~bi63 - (only for lte: b28b,b40b,b41b,b41c,b39b,b252,"},
    {0, 0, 0, "                                            b255,b253,b254,b66,b46,b250,b47,b48,b71,b71b,b38k ...  "},
    {2, 3, 4, "   kvn %d %d       /* get tx test state */\n"},
    {2, 3, 5, "   kvn %d %d       /* Close tx test(need to reboot) */\n"},
};
static const pelmox_help_row k_help_sec4[] = {
    {1, 4, 0, "%d: nvefs option cmd: \n"},
    {2, 4, 1, "   kvn %d %d sub nv_id             /* nv read */\n"},
    {2, 4, 2, "   kvn %d %d sub nv_id nv_data     /* nv write */\n"},
    {2, 4, 3, "   kvn %d %d sub nv_id             /* nv delete */\n"},
    {2, 4, 4, "   kvn %d %d sub efs_path          /* efs read */\n"},
    {2, 4, 5, "   kvn %d %d sub efs_path efs_data /* efs write */\n"},
    {2, 4, 6, "   kvn %d %d sub efs_path          /* efs delete */\n"},
};
static const pelmox_help_row k_help_sec5[] = {
    {1, 5, 0, "%d: cmn option cmd: \n"},
    {2, 5, 0, "   kvn %d %d mode type time_out cmd_cnt\n"},
    {0, 0, 0, "                                 /* diag cmd */"},
    {0, 0, 0, "                                    mode: 0 - callback, 1 - dci; "},
    {0, 0, 0, "                                    type: 0 - with result, 1 - without result; "},
    {0, 0, 0, "                                    time_out: set time - with result, set 0 - without result. unit:ms */"},
    {0, 0, 0, "                                    cmd_cnt: diag cmd bytes */"},
    {2, 5, 1, "   kvn %d %d                       /* card status query: 0 - absent, 1 - present\n"},
    {2, 5, 2, "   kvn %d %d sub                   /* card status get, sub: 0 or 1; ret: 0 - absent, 1 - present */\n"},
    {2, 5, 3, "   kvn %d %d sub mode set_val      /* card status set, sub: 0 or 1; mode: 0 - general, 1 - sim; set_val: 0 - low, 1 - high */\n"},
    {2, 5, 4, "   kvn %d %d                       /* card type query: 0 - err, 1 - single sim, 2 - mult sim */\n"},
    {2, 5, 5, "   kvn %d %d                       /* get sar dsi */\n"},
    {2, 5, 6, "   kvn %d %d opt option_list       /* card slot hotswap test */\n"},
    {0, 0, 0, "                                    opt: 0 - stop hotswap test, 1 - start hotswap test "},
    {0, 0, 0, "                                    option_list(when opt is 1 for blew inputs): "},
    {0, 0, 0, "                                      seconds_after_push : the seconds of waiting after push the card slot "},
    {0, 0, 0, "                                      seconds_after_pull : the seconds of waiting after pull the card slot "},
    {0, 0, 0, "                                      count_push_and_pull: the count of push and pull the card slot "},
    {2, 5, 10, "   kvn %d %d esim_on debug_on     /* set esim state */\n"},
    {0, 0, 0, "                                    esim_on  : 1 - switch to eSIM,2 - switch to PSIM2 "},
    {0, 0, 0, "                                    debug_on : 0 - disable log print,1 - enable log print "},
};
static const pelmox_help_row k_help_sec6[] = {
    {1, 6, 0, "%d: pelmox qmi send_data\n"},
    {1, 6, 0, "   kvn %d qmi_id qmi_data         /* qmi_id: Any binary data you will send */\n"},
    {0, 0, 0, "                                    qmi_data: Any binary data you will send "},
};
static const pelmox_help_row k_help_sec7[] = {
    {1, 7, 0, "%d: pelmox modem stats test\n"},
    {1, 7, 0, "   kvn %d 0 print                 /* modem stats diag-parsed test */\n"},
    {0, 0, 0, "                                    print: 0 - print-off for temp info, 1 - print-on for temp info "},
    {1, 7, 0, "   kvn %d 1 type                  /* get the debug info of modem stats */\n"},
    {0, 0, 0, "                                    type: 0 - check, 1 - debuginfo "},
};
static const pelmox_help_row k_help_sec8[] = {
    {1, 8, 0, "%d: pelmox at command test\n"},
    {1, 8, 0, "   kvn %d atcmd_cxt               /* atcmd_cxt: at command context */\n"},
    {1, 100, 0, "                                    the len of atcmd can not > %d\n"},
};
static const pelmox_help_row k_help_sec9[] = {
    {1, 9, 0, "%d: pelmox modem stats qmi test\n"},
    {2, 9, 0, "   kvn %d %d sub                   /* 4G PCC rssi, sub: 0 - sub0; 1 - sub1 */\n"},
    {2, 9, 1, "   kvn %d %d sub                   /* 4G SCC1 rssi, sub: 0 - sub0; 1 - sub1 */\n"},
    {2, 9, 2, "   kvn %d %d sub                   /* 4G SCC2 rssi, sub: 0 - sub0; 1 - sub1 */\n"},
    {2, 9, 3, "   kvn %d %d sub                   /* 4G SCC3 rssi, sub: 0 - sub0; 1 - sub1 */\n"},
    {2, 9, 4, "   kvn %d %d sub                   /* 4G SCC4 rssi, sub: 0 - sub0; 1 - sub1 */\n"},
    {2, 9, 5, "   kvn %d %d sub                   /* 4G SCC5 rssi, sub: 0 - sub0; 1 - sub1 */\n"},
    {2, 9, 6, "   kvn %d %d sub                   /* 4G SCC6 rssi, sub: 0 - sub0; 1 - sub1 */\n"},
    {2, 9, 7, "   kvn %d %d sub                   /* 5G PCC rssi, sub: 0 - sub0; 1 - sub1 */\n"},
    {2, 9, 8, "   kvn %d %d sub                   /* 5G PCC snr, sub: 0 - sub0; 1 - sub1 */\n"},
    {2, 9, 9, "   kvn %d %d sub                   /* 5G ANT diversity, sub: 0 - sub0; 1 - sub1 */\n"},
    {2, 9, 10, "   kvn %d %d sub                  /* 5G PCC rsrp, sub: 0 - sub0; 1 - sub1 */\n"},
    {2, 9, 11, "   kvn %d %d sub                  /* 5G SCC1 rsrp, sub: 0 - sub0; 1 - sub1 */\n"},
    {2, 9, 12, "   kvn %d %d sub                  /* 5G SCC2 rsrp, sub: 0 - sub0; 1 - sub1 */\n"},
    {2, 9, 20, "   kvn %d %d sub                  /* WCDMA rssi, sub: 0 - sub0; 1 - sub1 */\n"},
    {2, 9, 21, "   kvn %d %d sub                  /* GSM rssi, sub: 0 - sub0; 1 - sub1 */\n"},
    {2, 9, 30, "   kvn %d %d 0                    /* Ant info */\n"},
};
static const pelmox_help_row k_help_sec10[] = {
    {1, 10, 0, "%d: pelmox mbn test\n"},
};
static const pelmox_help_row k_help_sec11[] = {
    {1, 11, 0, "%d: smart test\n"},
    {2, 11, 0, "   kvn %d %d                      /* trigger SSR of modem */\n"},
    {2, 11, 1, "   kvn %d %d                      /* trigger Full Dump */\n"},
    {2, 11, 2, "   kvn %d %d                      /* trigger NV SYNC */\n"},
    {2, 11, 3, "   kvn %d %d opt                  /* ap hydra print(need reboot), opt: 0 - off; 1 - on */\n"},
    {2, 11, 4, "   kvn %d %d opt                  /* bp hydra print, opt: 0 - off; 1 - on */\n"},
    {2, 11, 5, "   kvn %d %d opt                  /* bp qmi print, opt: 0 - off; 1 - on */\n"},
    {2, 11, 6, "   kvn %d %d opt                  /* bp rf print, opt: 0 - off; 1 - on */\n"},
};

/* One group's section. */
typedef struct {
    const pelmox_help_row *rows; /* the section's rows, in print order */
    size_t count;                /* number of rows */
} pelmox_help_section;

#define PELMOX_HELP_SECTION(rows) {rows, sizeof(rows) / sizeof((rows)[0])}

/* Sections of groups 1..11, in the order they are printed. */
static const pelmox_help_section k_help_sections[] = {
    PELMOX_HELP_SECTION(k_help_sec1), PELMOX_HELP_SECTION(k_help_sec2), PELMOX_HELP_SECTION(k_help_sec3),
    PELMOX_HELP_SECTION(k_help_sec4), PELMOX_HELP_SECTION(k_help_sec5), PELMOX_HELP_SECTION(k_help_sec6),
    PELMOX_HELP_SECTION(k_help_sec7), PELMOX_HELP_SECTION(k_help_sec8), PELMOX_HELP_SECTION(k_help_sec9),
    PELMOX_HELP_SECTION(k_help_sec10), PELMOX_HELP_SECTION(k_help_sec11),
};

#define PELMOX_HELP_GROUPS ((int)(sizeof(k_help_sections) / sizeof(k_help_sections[0])))

/* ---- printing ---- */

static void pelmox_help_print_section(const pelmox_help_section *sec)
{
    for (size_t i = 0; i < sec->count; ++i) {
        const pelmox_help_row *row = &sec->rows[i];
        if (row->nvals == 0) {
            fputs(row->text, stdout);
            fputc('\n', stdout);
        } else if (row->nvals == 1) {
            printf(row->text, row->v1);
        } else {
            printf(row->text, row->v1, row->v2);
        }
    }
}

void show_help(int group)
{
    /* The banner starts with a line end (an empty line first); the footer
     * ends with one of its own, so an empty line follows it too. */
    puts("\n=========== blew: kovrin(kvn) cmd help =======================================================");
    for (int g = 1; g <= PELMOX_HELP_GROUPS; ++g) {
        if (group == 0 || group == g)
            pelmox_help_print_section(&k_help_sections[g - 1]);
    }
    puts("=========== above: kovrin(kvn) cmd help =======================================================\n");
}
