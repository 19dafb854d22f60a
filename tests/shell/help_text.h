// help_text.h - the help text as an operator sees it, written out in full so the tests compare the tool's
// output with the text itself rather than with the tool's own tables.
#pragma once

#include <string>

namespace help_text {

inline const std::string k_banner =
    "\n=========== blew: kovrin(kvn) cmd help =======================================================\n";
inline const std::string k_footer =
    "=========== above: kovrin(kvn) cmd help =======================================================\n\n";

inline const char *const k_sections[11] = { // [g - 1]: group g
    "1: nv option cmd\n"
    "   kvn 1 1       /* nv test */\n"
    "   kvn 1 2 0     /* nv backup(no privacy nvs) */\n"
    "   kvn 1 2 1     /* nv backup(have privacy nvs) */\n"
    "   kvn 1 3 0     /* nv restore(no goldencopy done after restore) */\n"
    "   kvn 1 3 1     /* nv restore(do goldencopy done after restore) */\n"
    "   kvn 1 4 nvid  /* nv delete */\n",
    "2: imei option cmd\n"
    "   kvn 2 0       /* imei_protect disable */\n"
    "   kvn 2 1       /* imei_protect start */\n",
    "3: rf option cmd\n"
    "   kvn 3 0 ...   /* gpio value setting(pls input enough gpio value by notice)*/\n"
    "                    (need to reboot duing first setting) \n"
    "   kvn 3 1       /* get gpio test state */\n"
    "   kvn 3 2       /* Close gpio test(need to reboot) */\n"
    "   kvn 3 3 v_ant v_sys v_band_list\n"
    "                 /* fix tx to upper(lower) antenna for given band list */\n"
    "                    (need to reboot) \n"
    "                    v_ant: 0 - lower antenna, 1 - upper antenna \n"
    "                    v_sys: 0 - gsm, 1 - wcdma, 2 - cdma, 3 - tds, 4 - lte \n"
    "                    v_band_list: bit0~bi43 - (gsm: 850,900,1800,1900; wcdma: b1,b2,b4,b5,b8; \n"
    "                                            cdma: bc0, tds: b34,b39; lte: b1...b44 \n"
    "                    v_band_list: bit44~bi63 - (only for lte: b28b,b40b,b41b,b41c,b39b,b252,\n"
    "                                            b255,b253,b254,b66,b46,b250,b47,b48,b71,b71b,b38k ...  \n"
    "   kvn 3 4       /* get tx test state */\n"
    "   kvn 3 5       /* Close tx test(need to reboot) */\n",
    "4: nvefs option cmd: \n"
    "   kvn 4 1 sub nv_id             /* nv read */\n"
    "   kvn 4 2 sub nv_id nv_data     /* nv write */\n"
    "   kvn 4 3 sub nv_id             /* nv delete */\n"
    "   kvn 4 4 sub efs_path          /* efs read */\n"
    "   kvn 4 5 sub efs_path efs_data /* efs write */\n"
    "   kvn 4 6 sub efs_path          /* efs delete */\n",
    "5: cmn option cmd: \n"
    "   kvn 5 0 mode type time_out cmd_cnt\n"
    "                                 /* diag cmd */\n"
    "                                    mode: 0 - callback, 1 - dci; \n"
    "                                    type: 0 - with result, 1 - without result; \n"
    "                                    time_out: set time - with result, set 0 - without result. unit:ms */\n"
    "                                    cmd_cnt: diag cmd bytes */\n"
    "   kvn 5 1                       /* card status query: 0 - absent, 1 - present\n"
    "   kvn 5 2 sub                   /* card status get, sub: 0 or 1; ret: 0 - absent, 1 - present */\n"
    "   kvn 5 3 sub mode set_val      /* card status set, sub: 0 or 1; mode: 0 - general, 1 - sim; set_val: 0 - low, 1 - high */\n"
    "   kvn 5 4                       /* card type query: 0 - err, 1 - single sim, 2 - mult sim */\n"
    "   kvn 5 5                       /* get sar dsi */\n"
    "   kvn 5 6 opt option_list       /* card slot hotswap test */\n"
    "                                    opt: 0 - stop hotswap test, 1 - start hotswap test \n"
    "                                    option_list(when opt is 1 for blew inputs): \n"
    "                                      seconds_after_push : the seconds of waiting after push the card slot \n"
    "                                      seconds_after_pull : the seconds of waiting after pull the card slot \n"
    "                                      count_push_and_pull: the count of push and pull the card slot \n"
    "   kvn 5 10 esim_on debug_on     /* set esim state */\n"
    "                                    esim_on  : 1 - switch to eSIM,2 - switch to PSIM2 \n"
    "                                    debug_on : 0 - disable log print,1 - enable log print \n",
    "6: pelmox qmi send_data\n"
    "   kvn 6 qmi_id qmi_data         /* qmi_id: Any binary data you will send */\n"
    "                                    qmi_data: Any binary data you will send \n",
    "7: pelmox modem stats test\n"
    "   kvn 7 0 print                 /* modem stats diag-parsed test */\n"
    "                                    print: 0 - print-off for temp info, 1 - print-on for temp info \n"
    "   kvn 7 1 type                  /* get the debug info of modem stats */\n"
    "                                    type: 0 - check, 1 - debuginfo \n",
    "8: pelmox at command test\n"
    "   kvn 8 atcmd_cxt               /* atcmd_cxt: at command context */\n"
    "                                    the len of atcmd can not > 100\n",
    "9: pelmox modem stats qmi test\n"
    "   kvn 9 0 sub                   /* 4G PCC rssi, sub: 0 - sub0; 1 - sub1 */\n"
    "   kvn 9 1 sub                   /* 4G SCC1 rssi, sub: 0 - sub0; 1 - sub1 */\n"
    "   kvn 9 2 sub                   /* 4G SCC2 rssi, sub: 0 - sub0; 1 - sub1 */\n"
    "   kvn 9 3 sub                   /* 4G SCC3 rssi, sub: 0 - sub0; 1 - sub1 */\n"
    "   kvn 9 4 sub                   /* 4G SCC4 rssi, sub: 0 - sub0; 1 - sub1 */\n"
    "   kvn 9 5 sub                   /* 4G SCC5 rssi, sub: 0 - sub0; 1 - sub1 */\n"
    "   kvn 9 6 sub                   /* 4G SCC6 rssi, sub: 0 - sub0; 1 - sub1 */\n"
    "   kvn 9 7 sub                   /* 5G PCC rssi, sub: 0 - sub0; 1 - sub1 */\n"
    "   kvn 9 8 sub                   /* 5G PCC snr, sub: 0 - sub0; 1 - sub1 */\n"
    "   kvn 9 9 sub                   /* 5G ANT diversity, sub: 0 - sub0; 1 - sub1 */\n"
    "   kvn 9 10 sub                  /* 5G PCC rsrp, sub: 0 - sub0; 1 - sub1 */\n"
    "   kvn 9 11 sub                  /* 5G SCC1 rsrp, sub: 0 - sub0; 1 - sub1 */\n"
    "   kvn 9 12 sub                  /* 5G SCC2 rsrp, sub: 0 - sub0; 1 - sub1 */\n"
    "   kvn 9 20 sub                  /* WCDMA rssi, sub: 0 - sub0; 1 - sub1 */\n"
    "   kvn 9 21 sub                  /* GSM rssi, sub: 0 - sub0; 1 - sub1 */\n"
    "   kvn 9 30 0                    /* Ant info */\n",
    "10: pelmox mbn test\n",
    "11: smart test\n"
    "   kvn 11 0                      /* trigger SSR of modem */\n"
    "   kvn 11 1                      /* trigger Full Dump */\n"
    "   kvn 11 2                      /* trigger NV SYNC */\n"
    "   kvn 11 3 opt                  /* ap hydra print(need reboot), opt: 0 - off; 1 - on */\n"
    "   kvn 11 4 opt                  /* bp hydra print, opt: 0 - off; 1 - on */\n"
    "   kvn 11 5 opt                  /* bp qmi print, opt: 0 - off; 1 - on */\n"
    "   kvn 11 6 opt                  /* bp rf print, opt: 0 - off; 1 - on */\n",
};

// What show_help(group) prints: banner, the chosen section(s), footer.
inline std::string for_group(int group)
{
    std::string out = k_banner;
    for (int g = 1; g <= 11; ++g)
        if (group == 0 || group == g)
            out += k_sections[g - 1];
    return out + k_footer;
}

} // namespace help_text
