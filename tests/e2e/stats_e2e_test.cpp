// stats_e2e_test.cpp - command group 7 against kvn-sim: the self-test, debug blocks, the check and its failures.
#include "../extend/extend_journal.h"
#include "device_tests_e2e.h"

using namespace devtests;

namespace {

const std::string kSummary =
    "version = 196609, mcc = 29440, mnc_num 128, mnc 704, tac 497189504, cgi 2028284490176, pci 51666\n"
    "freq_band_ind = 64, dl_earfcn = 27450241, dl_bw 1280, ul_earfcn 24836608, ul_bw 1280, allow_access 128, scs 0\n";
const std::string kRule = "===========================================\n";
std::string get(int type) { return "Get the debug info of modem_stats, mask = 0x" + std::to_string(type) + "\n"; }
std::string check_lines(int version, int enabled, uint64_t not_supported)
{
    return "UNPK[size:1], version = " + std::to_string(version) +
           "\nUNPK[size:1], modem_stats_feature_enable_status = " + std::to_string(enabled) +
           "\nUNPK[size:8], version_not_support_num = " + std::to_string(not_supported) +
           "\nUNPK[size:8], modem_stats_cmd_ok_count = 0\nUNPK[size:8], modem_stats_cmd_fail_count = 0\n";
}

std::string scenario(const std::string &modem_stats) { return R"({"modem_stats": )" + modem_stats + "}"; }

// The modem's statistics: a check block (version 4, the enable byte, the 8-byte not-supported count), `more`.
std::string check(int enabled, const std::string &count_hex, const std::string &more = "")
{
    return "{\"debug_info\": \"04 0" + std::to_string(enabled) + " " + count_hex + "\"" + more + "}";
}

// The request types of the extend command-4 requests journalled.
std::vector<uint32_t> request_types(const SimHandset &sim)
{
    std::vector<uint32_t> out;
    for (const auto &r : extend_test::extend_requests(sim))
        if (r.cmd_id == 4)
            out.push_back(extend_test::le32(r.data, 0));
    return out;
}

// The self-test's trace of its built-in sample (version 0x30001) before the summary.
const char kSampleTrace[] =
    "    UNPK_I, name: version, val: 196609(0x010003), val_size: 4, unpk_cnt: 4, data_base: 0, base_bit: 0\n"
    "BASE_WITH_BIT, g_unpk_data_base_bit(32), g_unpk_data_base(4), g_unpk_data_cnt(0), bit(32), id(0x0)UNPK_SET_BIT, g_unpk_data_base_bit(32), g_unpk_data_base(4), g_unpk_data_cnt(31), bit(250), id(0x0)PRINT_CNT, base_bit: 32, base_byte: 4, data_cnt: 31, low: 3, high: 18, param: 250, name: mcc    UNPK_I, name: mcc_tmp1, val: 721138937611013120(0x00CC01020B00020A), val_size: 8, unpk_cnt: 39, data_base: 4, base_bit: 32\n"
    "    UNPK_I, name: mcc_tmp2, val: 16807562(0x8A760001), val_size: 8, unpk_cnt: 47, data_base: 4, base_bit: 32\n"
    "UNPK_HIGH, old_val: 9403656771257529088, new_val: 29440, bit_num: 126, name: mcc, id(0x0)UNPK_LOW, old_val: 29440, new_val: 29440, bit_num: 16, mask_max(0xffff), old_size(2), name: mcc, id(0x0)UNPK_MID, old_val: 29440, new_val: 29440, low: 3, high: 18, name: mcc, id(0x0)\n"
    "    UNPK_AT, name: mcc, val: 29440(0x0073), low: 3, high: 18, bit_start: 250, bit_num: 16\n"
    "UNPK_SET_BIT, g_unpk_data_base_bit(32), g_unpk_data_base(4), g_unpk_data_cnt(33), bit(266), id(0x0)PRINT_CNT, base_bit: 32, base_byte: 4, data_cnt: 33, low: 3, high: 10, param: 266, name: mnc_num    UNPK_I, name: mnc_num_tmp1, val: 8541650646968500737(0x01020B00020A8A76), val_size: 8, unpk_cnt: 41, data_base: 4, base_bit: 32\n"
    "    UNPK_I, name: mnc_num_tmp2, val: 256(0x0001), val_size: 8, unpk_cnt: 49, data_base: 4, base_bit: 32\n"
    "UNPK_HIGH, old_val: 2135412661742125184, new_val: 128, bit_num: 126, name: mnc_num, id(0x0)UNPK_LOW, old_val: 128, new_val: 128, bit_num: 8, mask_max(0xff), old_size(1), name: mnc_num, id(0x0)UNPK_MID, old_val: 128, new_val: 128, low: 3, high: 10, name: mnc_num, id(0x0)\n"
    "    UNPK_AT, name: mnc_num, val: 128(0x80), low: 3, high: 10, bit_start: 266, bit_num: 8\n"
    "UNPK_SET_BIT, g_unpk_data_base_bit(32), g_unpk_data_base(4), g_unpk_data_cnt(34), bit(274), id(0x0)PRINT_CNT, base_bit: 32, base_byte: 4, data_cnt: 34, low: 3, high: 18, param: 274, name: mnc    UNPK_I, name: mnc_tmp1, val: 33365822839720706(0x020B00020A8A76), val_size: 8, unpk_cnt: 42, data_base: 4, base_bit: 32\n"
    "    UNPK_I, name: mnc_tmp2, val: 1(0x01), val_size: 8, unpk_cnt: 50, data_base: 4, base_bit: 32\n"
    "UNPK_HIGH, old_val: 4620027474137318080, new_val: 704, bit_num: 126, name: mnc, id(0x0)UNPK_LOW, old_val: 704, new_val: 704, bit_num: 16, mask_max(0xffff), old_size(2), name: mnc, id(0x0)UNPK_MID, old_val: 704, new_val: 704, low: 3, high: 18, name: mnc, id(0x0)\n"
    "    UNPK_AT, name: mnc, val: 704(0xC002), low: 3, high: 18, bit_start: 274, bit_num: 16\n"
    "UNPK_SET_BIT, g_unpk_data_base_bit(32), g_unpk_data_base(4), g_unpk_data_cnt(37), bit(298), id(0x0)PRINT_CNT, base_bit: 32, base_byte: 4, data_cnt: 37, low: 3, high: 34, param: 298, name: tac    UNPK_I, name: tac_tmp1, val: 1101500385794(0x020A8A760001), val_size: 8, unpk_cnt: 45, data_base: 4, base_bit: 32\n"
    "    UNPK_I, name: tac_tmp2, val: 0(0x), val_size: 8, unpk_cnt: 53, data_base: 4, base_bit: 32\n"
    "UNPK_HIGH, old_val: 275375096448, new_val: 497189504, bit_num: 126, name: tac, id(0x0)UNPK_LOW, old_val: 497189504, new_val: 497189504, bit_num: 32, mask_max(0xffffffff), old_size(4), name: tac, id(0x0)UNPK_MID, old_val: 497189504, new_val: 497189504, low: 3, high: 34, name: tac, id(0x0)\n"
    "    UNPK_AT, name: tac, val: 497189504(0x8082A21D), low: 3, high: 34, bit_start: 298, bit_num: 32\n"
    "UNPK_SET_BIT, g_unpk_data_base_bit(32), g_unpk_data_base(4), g_unpk_data_cnt(23), bit(186), id(0x0)PRINT_CNT, base_bit: 32, base_byte: 4, data_cnt: 23, low: 3, high: 66, param: 186, name: cgi    UNPK_I, name: cgi_tmp1, val: 8113137960704(0x00C7B4FC6007), val_size: 8, unpk_cnt: 31, data_base: 4, base_bit: 32\n"
    "    UNPK_I, name: cgi_tmp2, val: 721138937611013120(0x00CC01020B00020A), val_size: 8, unpk_cnt: 39, data_base: 4, base_bit: 32\n"
    "UNPK_HIGH, old_val: 2028284490176, new_val: 2028284490176, bit_num: 126, name: cgi, id(0x0)UNPK_LOW, old_val: 2028284490176, new_val: 2028284490176, bit_num: 64, mask_max(0xffffffffffffffff), old_size(8), name: cgi, id(0x0)UNPK_MID, old_val: 2028284490176, new_val: 2028284490176, low: 3, high: 66, name: cgi, id(0x0)\n"
    "    UNPK_AT, name: cgi, val: 2028284490176(0xC0312D3FD801), low: 3, high: 66, bit_start: 186, bit_num: 64\n"
    "UNPK_SET_BIT, g_unpk_data_base_bit(32), g_unpk_data_base(4), g_unpk_data_cnt(1), bit(10), id(0x0)PRINT_CNT, base_bit: 32, base_byte: 4, data_cnt: 1, low: 3, high: 18, param: 10, name: pci    UNPK_I, name: pci_tmp1, val: 1684624113999750985(0x492703C7B4FC6017), val_size: 8, unpk_cnt: 9, data_base: 4, base_bit: 32\n"
    "    UNPK_I, name: pci_tmp2, val: 16717369012715409153(0x014F066E8B0600E8), val_size: 8, unpk_cnt: 17, data_base: 4, base_bit: 32\n"
    "UNPK_HIGH, old_val: 5032842046927325650, new_val: 51666, bit_num: 126, name: pci, id(0x0)UNPK_LOW, old_val: 51666, new_val: 51666, bit_num: 16, mask_max(0xffff), old_size(2), name: pci, id(0x0)UNPK_MID, old_val: 51666, new_val: 51666, low: 3, high: 18, name: pci, id(0x0)\n"
    "    UNPK_AT, name: pci, val: 51666(0xD2C9), low: 3, high: 18, bit_start: 10, bit_num: 16\n"
    "UNPK_SET_BIT, g_unpk_data_base_bit(32), g_unpk_data_base(4), g_unpk_data_cnt(41), bit(330), id(0x0)PRINT_CNT, base_bit: 32, base_byte: 4, data_cnt: 41, low: 3, high: 18, param: 330, name: freq_band_ind    UNPK_I, name: freq_band_ind_tmp1, val: 256(0x0001), val_size: 8, unpk_cnt: 49, data_base: 4, base_bit: 32\n"
    "    UNPK_I, name: freq_band_ind_tmp2, val: 0(0x), val_size: 8, unpk_cnt: 57, data_base: 4, base_bit: 32\n"
    "UNPK_HIGH, old_val: 64, new_val: 64, bit_num: 126, name: freq_band_ind, id(0x0)UNPK_LOW, old_val: 64, new_val: 64, bit_num: 16, mask_max(0xffff), old_size(2), name: freq_band_ind, id(0x0)UNPK_MID, old_val: 64, new_val: 64, low: 3, high: 18, name: freq_band_ind, id(0x0)\n"
    "    UNPK_AT, name: freq_band_ind, val: 64(0x40), low: 3, high: 18, bit_start: 330, bit_num: 16\n"
    "UNPK_SET_BIT, g_unpk_data_base_bit(32), g_unpk_data_base(4), g_unpk_data_cnt(11), bit(90), id(0x0)PRINT_CNT, base_bit: 32, base_byte: 4, data_cnt: 11, low: 3, high: 34, param: 90, name: dl_earfcn    UNPK_I, name: dl_earfcn_tmp1, val: 426689676524088838(0x066E8B0600E8EB05), val_size: 8, unpk_cnt: 19, data_base: 4, base_bit: 32\n"
    "    UNPK_I, name: dl_earfcn_tmp2, val: 18209397996515234816(0x0014001400C7B4FC), val_size: 8, unpk_cnt: 27, data_base: 4, base_bit: 32\n"
    "UNPK_HIGH, old_val: 106672419131022209, new_val: 27450241, bit_num: 126, name: dl_earfcn, id(0x0)UNPK_LOW, old_val: 27450241, new_val: 27450241, bit_num: 32, mask_max(0xffffffff), old_size(4), name: dl_earfcn, id(0x0)UNPK_MID, old_val: 27450241, new_val: 27450241, low: 3, high: 34, name: dl_earfcn, id(0x0)\n"
    "    UNPK_AT, name: dl_earfcn, val: 27450241(0x81DBA201), low: 3, high: 34, bit_start: 90, bit_num: 32\n"
    "UNPK_SET_BIT, g_unpk_data_base_bit(32), g_unpk_data_base(4), g_unpk_data_cnt(19), bit(154), id(0x0)PRINT_CNT, base_bit: 32, base_byte: 4, data_cnt: 19, low: 3, high: 18, param: 154, name: dl_bw    UNPK_I, name: dl_bw_tmp1, val: 18209397996515234816(0x0014001400C7B4FC), val_size: 8, unpk_cnt: 27, data_base: 4, base_bit: 32\n"
    "    UNPK_I, name: dl_bw_tmp2, val: 144620963424634720(0x6007000000CC0102), val_size: 8, unpk_cnt: 35, data_base: 4, base_bit: 32\n"
    "UNPK_HIGH, old_val: 4552349499128808704, new_val: 1280, bit_num: 126, name: dl_bw, id(0x0)UNPK_LOW, old_val: 1280, new_val: 1280, bit_num: 16, mask_max(0xffff), old_size(2), name: dl_bw, id(0x0)UNPK_MID, old_val: 1280, new_val: 1280, low: 3, high: 18, name: dl_bw, id(0x0)\n"
    "    UNPK_AT, name: dl_bw, val: 1280(0x0005), low: 3, high: 18, bit_start: 154, bit_num: 16\n"
    "UNPK_SET_BIT, g_unpk_data_base_bit(32), g_unpk_data_base(4), g_unpk_data_cnt(15), bit(122), id(0x0)PRINT_CNT, base_bit: 32, base_byte: 4, data_cnt: 15, low: 3, high: 34, param: 122, name: ul_earfcn    UNPK_I, name: ul_earfcn_tmp1, val: 1441173871090460672(0x00E8EB0500140014), val_size: 8, unpk_cnt: 23, data_base: 4, base_bit: 32\n"
    "    UNPK_I, name: ul_earfcn_tmp2, val: 8113137960704(0x00C7B4FC6007), val_size: 8, unpk_cnt: 31, data_base: 4, base_bit: 32\n"
    "UNPK_HIGH, old_val: 360293467772615168, new_val: 24836608, bit_num: 126, name: ul_earfcn, id(0x0)UNPK_LOW, old_val: 24836608, new_val: 24836608, bit_num: 32, mask_max(0xffffffff), old_size(4), name: ul_earfcn, id(0x0)UNPK_MID, old_val: 24836608, new_val: 24836608, low: 3, high: 34, name: ul_earfcn, id(0x0)\n"
    "    UNPK_AT, name: ul_earfcn, val: 24836608(0x00FA7A01), low: 3, high: 34, bit_start: 122, bit_num: 32\n"
    "UNPK_SET_BIT, g_unpk_data_base_bit(32), g_unpk_data_base(4), g_unpk_data_cnt(21), bit(170), id(0x0)PRINT_CNT, base_bit: 32, base_byte: 4, data_cnt: 21, low: 3, high: 18, param: 170, name: ul_bw    UNPK_I, name: ul_bw_tmp1, val: 531702609392702464(0x001400C7B4FC6007), val_size: 8, unpk_cnt: 29, data_base: 4, base_bit: 32\n"
    "    UNPK_I, name: ul_bw_tmp2, val: 3098431484592128(0x000000CC01020B), val_size: 8, unpk_cnt: 37, data_base: 4, base_bit: 32\n"
    "UNPK_HIGH, old_val: 132925652348175616, new_val: 1280, bit_num: 126, name: ul_bw, id(0x0)UNPK_LOW, old_val: 1280, new_val: 1280, bit_num: 16, mask_max(0xffff), old_size(2), name: ul_bw, id(0x0)UNPK_MID, old_val: 1280, new_val: 1280, low: 3, high: 18, name: ul_bw, id(0x0)\n"
    "    UNPK_AT, name: ul_bw, val: 1280(0x0005), low: 3, high: 18, bit_start: 170, bit_num: 16\n"
    "UNPK_SET_BIT, g_unpk_data_base_bit(32), g_unpk_data_base(4), g_unpk_data_cnt(36), bit(290), id(0x0)PRINT_CNT, base_bit: 32, base_byte: 4, data_cnt: 36, low: 3, high: 10, param: 290, name: allow_access    UNPK_I, name: allow_access_tmp1, val: 281984098763264(0x00020A8A760001), val_size: 8, unpk_cnt: 44, data_base: 4, base_bit: 32\n"
    "    UNPK_I, name: allow_access_tmp2, val: 0(0x), val_size: 8, unpk_cnt: 52, data_base: 4, base_bit: 32\n"
    "UNPK_HIGH, old_val: 70496024690816, new_val: 128, bit_num: 126, name: allow_access, id(0x0)UNPK_LOW, old_val: 128, new_val: 128, bit_num: 8, mask_max(0xff), old_size(1), name: allow_access, id(0x0)UNPK_MID, old_val: 128, new_val: 128, low: 3, high: 10, name: allow_access, id(0x0)\n"
    "    UNPK_AT, name: allow_access, val: 128(0x80), low: 3, high: 10, bit_start: 290, bit_num: 8\n";

// The default handset's block (version 4, 221 bytes) by section, each end line carrying the running cursor.
struct Field {
    int size;
    const char *name;
    int value;
};
const struct {
    const char *name;
    int end;
    std::vector<Field> fields;
} kDefaultBlock[] = {
    {"main", 58, {{1, "g_modem_stats_feature_enable_status", 1}, {8, "g_unpk_version_not_support_num", 0},
                  {8, "g_modem_stats_cmd_ok_count", 1532}, {8, "g_modem_stats_cmd_fail_count", 3},
                  {8, "hydra_system_heapi_mem_max_num", 96}, {8, "hydra_system_heapi_mem_cur_num", 12},
                  {4, "modem_statsi_cmd_q_count", 0}, {4, "modem_statsi_cmd_free_q_count", 16},
                  {4, "g_hydra_log_mask", 31}, {4, "g_hydra_log_stats_mask", 3}}},
    {"diag", 153, {{1, "init_state", 1}, {4, "listener_event_num", 6}, {1, "listener_event_state", 1},
                   {4, "listener_event_call_num", 2210}, {4, "listener_event_parse_num", 2208},
                   {4, "listener_log_num", 9}, {1, "listener_log_state", 1}, {8, "listener_log_call_num", 48211},
                   {8, "listener_log_parse_num", 48190}, {4, "poll_update_call_num", 720},
                   {4, "poll_update_parse_num", 720}, {8, "listener_event_callback_num", 2210},
                   {8, "listener_log_callback_num", 48211}, {4, "lte_cell_id_invalid_num", 2},
                   {4, "nr5g_cell_id_invalid_num", 0}, {4, "event_duration_ms_max", 14}, {4, "log_duration_ms_max", 9},
                   {4, "do_duration_ms_max", 31}, {4, "debug_call_num", 5}, {4, "debug_parse_num", 5},
                   {4, "cust_event_call_num", 40}, {4, "cust_event_parse_num", 40}}},
    {"cm", 211, {{1, "init_state", 1}, {1, "listener_state", 1}, {4, "listener_call_event_call_num", 88},
                 {4, "listener_call_event_parse_num", 88}, {4, "listener_subs_event_call_num", 12},
                 {4, "listener_subs_event_parse_num", 12}, {4, "listener_ss_event_call_num", 301},
                 {4, "listener_ss_event_parse_num", 301}, {4, "listener_stats_event_call_num", 1440},
                 {4, "listener_stats_event_parse_num", 1440}, {4, "poll_update_rf_call_num", 720},
                 {4, "poll_update_rf_parse_num", 720}, {4, "poll_update_lte_call_num", 720},
                 {4, "poll_update_lte_parse_num", 719}, {4, "poll_update_nr5g_call_num", 360},
                 {4, "poll_update_nr5g_parse_num", 360}}},
    {"uim", 221, {{1, "init_state", 1}, {1, "listener_state", 1}, {4, "listener_event_call_num", 7},
                  {4, "listener_event_parse_num", 7}}},
};

std::string section(const std::string &name, int end, const std::string &body)
{
    return "-------- stats " + name + " info start --------\n" + body + "-------- stats " + name + " info end, cnt(" +
           std::to_string(end) + ") --------\n";
}

// No kvn-sim needed. The print flag is the whole atoi value, so 256 traces.
TEST(StatsE2e, SelfTestAndDispatcherLines)
{
    auto run = [](const std::vector<std::string> &args) { return kvn_alone(args).out; };
    EXPECT_EQ(run({"7", "0", "0"}), "length = 48, print_flag = 0\n" + kSummary);
    EXPECT_EQ(run({"7", "0", "1"}), std::string("length = 48, print_flag = 1\n") + kSampleTrace + kSummary);
    EXPECT_EQ(run({"7", "0", "256"}).substr(0, 40), "length = 48, print_flag = 256\n    UNPK_I");
    EXPECT_EQ(run({"7", "0"}), k_too_few + "pelmox_test_modem_stats_parsing_process FAIL\n" + for_group(7));
    EXPECT_EQ(run({"7", "1"}), k_too_few + "pelmox_test_modem_stats_get_debug_info FAIL\n" + for_group(7));
    EXPECT_EQ(run({"7", "2"}), "invalid type = 2\n" + for_group(7));
    EXPECT_EQ(run({"7"}), k_too_few + for_group(7));
    // The notes follow the shell print flag.
    EXPECT_EQ(kvn_alone({"7", "1"}, "0").out, "pelmox_test_modem_stats_get_debug_info FAIL\n" + for_group(7));
}

// The default handset's block whole; then the sections growing at versions 1 to 4.
TEST(StatsE2e, DefaultBlockVersionsAndCursorLines)
{
    const struct {
        int version;
        int ends[4];
        size_t fields;
    } cases[] = {{0, {26, 69, 127, 137}, 36}, {1, {26, 93, 151, 161}, 40}, {2, {50, 137, 195, 205}, 49},
                 {3, {50, 145, 203, 213}, 51}, {4, {58, 153, 211, 221}, 53}, {200, {58, 153, 211, 221}, 53}};
    SimHandset sim;
    std::string block = "UNPK[size:1], version = 4\n";
    for (const auto &s : kDefaultBlock) {
        std::string body;
        for (const auto &f : s.fields)
            body += "UNPK[size:" + std::to_string(f.size) + "], " + f.name + " = " + std::to_string(f.value) + "\n";
        block += section(s.name, s.end, body);
    }
    EXPECT_EQ(masked_out(sim.kvn({"7", "1", "1"}, shell_flag("0"))), get(1) + k_open + send_ok(229) + block);
    EXPECT_EQ(request_types(sim), std::vector<uint32_t>{20});
    for (const auto &c : cases) {
        SCOPED_TRACE(c.version);
        load(sim, scenario(R"({"debug_info": ")" + hex_of(char(c.version) + std::string(220, '\1')) + "\"}"));
        std::istringstream out(sim.kvn({"7", "1", "3"}, shell_flag("0")).out);
        std::string markers, want;
        size_t fields = 0;
        for (std::string l; std::getline(out, l);) {
            markers += l.rfind("--------", 0) == 0 ? l + "\n" : "";
            fields += l.rfind("UNPK[size:", 0) == 0;
        }
        for (int s = 0; s < 4; ++s)
            want += section(std::vector<std::string>{"main", "diag", "cm", "uim"}[s], c.ends[s], "");
        EXPECT_EQ(markers, want);
        EXPECT_EQ(fields, c.fields);
        EXPECT_THAT(out.str(), HasSubstr("UNPK[size:1], version = " + std::to_string(c.version) + "\n"));
    }
}

// Enabled (any non-zero) with a zero count: SUCCES; disabled: CLOSED; a non-zero count (even only its high byte)
// fails and lists the ids of a second request, the 8-bit offset wrapping at the 128th (the count itself).
TEST(StatsE2e, CheckSuccesClosedFailAndIdWrap)
{
    std::string ids130, wrapped;
    for (int i = 0; i < 130; ++i) {
        ids130 += (i ? "," : "") + std::to_string(0x1000 + i);
        char l[32];
        snprintf(l, sizeof(l), "log_id[%d]: 0x%04X\n", i, i < 127 ? 0x1000 + i : i == 127 ? 130 : 0x1000 + i - 128);
        wrapped += l;
    }
    const std::string fail_head = kRule + "================= FAIL ====================\n" + kRule;
    const std::string succes = "================ SUCCES ===================\n";
    const struct {
        const char *name;
        std::string modem_stats;
        std::string tail;
        std::vector<uint32_t> requests;
    } cases[] = {
        {"succes", check(1, "00 00 00 00 00 00 00 00"), check_lines(4, 1, 0) + kRule + succes, {20}},
        {"enabled 0x80", check(8, "00 00 00 00 00 00 00 00"), check_lines(4, 8, 0) + kRule + succes, {20}},
        {"closed", check(0, "05 00 00 00 00 00 00 00"),
         check_lines(4, 0, 5) + kRule + "================ CLOSED ===================\n", {20}},
        {"fail", check(1, "00 00 00 00 00 00 00 01", ", \"unsupported_log_ids\": [45248, 4981]"),
         check_lines(4, 1, 72057594037927936ull) + send_ok(14) + "UNPK[size:2], log_num = 2\n" + fail_head +
             "Diag logs to be upgraded[num:2]:\nlog_id[0]: 0xB0C0\nlog_id[1]: 0x1375\n",
         {20, 27}},
        {"wrap", check(1, "01 00 00 00 00 00 00 00", ", \"unsupported_log_ids\": [" + ids130 + "]"),
         check_lines(4, 1, 1) + send_ok(270) + "UNPK[size:2], log_num = 130\n" + fail_head +
             "Diag logs to be upgraded[num:130]:\n" + wrapped,
         {20, 27}},
    };
    SimHandset sim;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        load(sim, scenario(c.modem_stats));
        sim.clear_journal();
        EXPECT_EQ(masked_out(sim.kvn({"7", "1", "0"}, shell_flag("0"))), get(0) + k_open + send_ok(18) + c.tail);
        EXPECT_EQ(request_types(sim), c.requests);
    }
}

// Each failure line is printed once, with no line end, and ends the output.
TEST(StatsE2e, BothRequestsFail)
{
    const std::string fail = "02 00 00 00 00 00 00 00";
    const struct {
        const char *name;
        std::string modem_stats;
        std::vector<std::string> before; // a kvn-sim command before the run ("status" where none is needed)
        std::string type;
        std::string last; // the end of the output
    } cases[] = {
        {"20 by result, kept across a modem restart", "{\"debug_info_result\": -5}", {"ssr", "100"}, "1",
         "qmi response fail, result = -5, rsp.result = -5"},
        {"27 by result", check(1, fail, ", \"unsupported_log_ids_result\": 3"), {"status"}, "0",
         "qmi response fail, result = 3, rsp_not_support.result = 3"},
        {"20 by fault", "{}", {"fault", "extend", "2", "qmi-error=3"}, "1",
         "pelmox_common_qmi_req fail, REQUEST_ID_COMMON, result = -3, rsp.result = 0"},
        {"27 by fault after 1", check(1, fail), {"fault", "extend", "2", "drop", "--after", "1"}, "0",
         "pelmox_common_qmi_req fail, result = -3, rsp_not_support.result = 0"},
        {"20 service down", "{}", {"service", "extend", "down"}, "1",
         "pelmox_common_qmi_req fail, REQUEST_ID_COMMON, result = -2, rsp.result = 0"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        SimHandset sim(scenario(c.modem_stats));
        ASSERT_EQ(sim.ctl(c.before).exit_code, 0);
        std::string out = sim.kvn({"7", "1", c.type}, shell_flag("0")).out;
        EXPECT_EQ(out.find(c.last), out.size() - c.last.size()) << out; // once, at the end
    }
}

} // namespace
