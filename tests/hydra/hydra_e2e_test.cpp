// hydra_e2e_test.cpp - group 9 and the SAR DSI query run by kvn against a kvn-sim: whole output and wire.

#include "../extend/extend_journal.h"
#include "../shell/help_text.h"

using namespace extend_test;
using kvn_test::ProcessOptions;
using kvn_test::SimHandset;

namespace {

// A statistic record's bytes as hex.
template <typename... T> std::string pack(T... v) { return to_hex(le_bytes(v...)); }

std::string f4g()
{
    std::string hex = pack(uint8_t(1), uint8_t(2), 39150u, uint16_t(65535), uint8_t(1), uint16_t(32769));
    for (int rx = 0; rx < 4; ++rx)
        hex += pack(-90.5f - float(rx), -10.25f, -60.75f - float(rx), 3.5f + float(rx));
    return hex + "ee"; // a byte past the layout, ignored
}
const char k4gLine[] =
    "ASDIV DATA: earfcn: 39150, pci: 65535, rx_valid: 32769, rsrp_rx0: -90.50, rsrq_rx0: -10.25, rssi_rx0: -60.75, "
    "snr_rx0: 3.50, rsrp_rx1: -91.50, rsrq_rx1: -10.25, rssi_rx1: -61.75, snr_rx1: 4.50, rsrp_rx2: -92.50, "
    "rsrq_rx2: -10.25, rssi_rx2: -62.75, snr_rx2: 5.50, rsrp_rx3: -93.50, rsrq_rx3: -10.25, rssi_rx3: -63.75, "
    "snr_rx3: 6.50\n";
const char k5gRsrpLine[] = "ASDIV DATA: rsrp_rx0: -88.50, rsrp_rx1: -89.25, rsrp_rx2: -91.00, rsrp_rx3: -92.75, rsrq: -11.50\n";

struct Option {
    int opt;
    uint32_t id;
    std::string data;
    std::string line;
};

std::vector<Option> options()
{
    std::vector<Option> v;
    const uint32_t ids4g[] = {82, 103, 104, 105, 106, 107, 108};
    for (int o = 0; o < 7; ++o)
        v.push_back({o, ids4g[o], f4g(), k4gLine});
    v.push_back({7, 94, pack(7u, -60.25f, -61.5f, -63.75f, -64.f),
                 "ASDIV DATA: rssi_rx0: -60.25, rssi_rx1: -61.50, rssi_rx2: -63.75, rssi_rx3: -64.00\n"});
    v.push_back({8, 112, pack(7u, 18.5f, 17.25f, -1.f, 0.25f),
                 "ASDIV DATA: snr_rx0: 18.50, snr_rx1: 17.25, snr_rx2: -1.00, snr_rx3: 0.25\n"});
    v.push_back({9, 113, pack(7u) + "000102030405060708090aff",
                 "ASDIV DATA: ant_rx_0_old = 0, ant_rx_0_new = 1, ant_rx_1_old = 2, ant_rx_1_new = 3, ant_rx_2_old = 4, "
                 "ant_rx_2_new = 5, ant_rx_3_old = 6, ant_rx_3_new = 7, ant_tx_0_old = 8, ant_tx_0_new = 9, "
                 "ant_tx_1_old = 10, ant_tx_1_new = 255\n"});
    for (auto [opt, id] : {std::pair{10, 135u}, std::pair{11, 6u}, std::pair{12, 7u}})
        v.push_back({opt, id, pack(7u, -88.5f, -89.25f, -91.f, -92.75f, -11.5f), k5gRsrpLine});
    v.push_back({20, 110, pack(uint8_t(1), -70.5f, -72.25f), "ASDIV DATA: rx_agc_0: -70.50, rx_agc_1: -72.25\n"});
    v.push_back({21, 111, pack(uint8_t(1), -75.f, -77.5f), "ASDIV DATA: rx_prx: -75.00, rx_drx: -77.50\n"});
    v.push_back({30, 100, pack(uint8_t(1), uint8_t(4), uint16_t(513), uint16_t(65535), uint8_t(0), uint8_t(200)),
                 "ANT INFO: ant_num: 4, ant_path: 513, sig_path: 65535, old_config: 0, new_config: 200\n"});
    return v;
}

std::string start_line(const std::string &opt, const std::string &sub, int id = 0)
{
    return "opt = " + opt + ", sub = " + sub + ", g_hydra_client_id = " + std::to_string(id) + "\n";
}

std::string success(int sub, uint32_t id, size_t len)
{
    return "Success to get data, number = 1, sub = " + std::to_string(sub) + ", ret id_num = 1, id = " +
           std::to_string(id) + ", data_len = " + std::to_string(len) + "\n";
}

/* ---- group 9 ---- */

// Every option on both subscriptions: whole output, feature switch, one request (option 30 always asks sub 0).
TEST(Group9, EveryOptionOnBothSubscriptions)
{
    SimHandset sim;
    ASSERT_TRUE(sim.started());
    std::string stats;
    for (const auto &o : options())
        stats += (stats.empty() ? "\"" : ", \"") + std::to_string(o.id) + "\": \"" + o.data + "\"";
    load(sim, R"({"vs_stats": {"0": {)" + stats + R"(}, "1": {)" + stats + "}}}");
    const Request feature{0x0003, {{1, "02000000"}, {2, "01"}, {0x10, "01"}}};
    for (const auto &o : options()) {
        for (int sub : {0, 1}) {
            SCOPED_TRACE(testing::Message() << "option " << o.opt << " sub " << sub);
            sim.clear_journal();
            auto r = sim.kvn({"9", std::to_string(o.opt), std::to_string(sub)});
            uint16_t asked = o.opt == 30 ? 0 : uint16_t(sub);
            EXPECT_EQ(r.out, start_line(std::to_string(o.opt), std::to_string(sub)) +
                                 success(asked, o.id, o.data.size() / 2) + o.line);
            const Request stat{0x0207, {{1, pack(asked)}, {2, "0100"}, {3, "01" + pack(o.id)}}};
            EXPECT_EQ(requests(sim, 0xE4), (std::vector<Request>{feature, stat}));
        }
    }
}

// Statistics refused or cut short, arguments refused, a refused feature switch, usage, then the service absent.
TEST(Group9, RefusalsUsageAndAbsentService)
{
    SimHandset sim;
    ASSERT_TRUE(sim.started());
    auto rec = [](int sub, int id, const std::string &hex) {
        return R"({"sub": )" + std::to_string(sub) + R"(, "id": )" + std::to_string(id) + R"(, "data": ")" + hex + "\"}";
    };
    auto records = [](const std::string &list) { return R"({"records": [)" + list + "]}"; };
    const struct {
        std::string opt, sub;
        std::string value; // vs_stats value of the asked id on subscription 0
        std::string out;   // after the start line
    } cases[] = {
        {"7", "0", "\"" + pack(1u, 1.f, 2.f) + "\"",
         success(0, 94, 12) + "g_hydra_data_left(0) is not enough for rssi2, id(0x5e)\n"},
        {"0", "0", "\"" + f4g().substr(0, 2 * 74) + "\"",
         success(0, 82, 74) + "g_hydra_data_left(3) is not enough for snr_rx3, id(0x52)\n"},
        {"30", "0", "\"01\"", success(0, 100, 1) + "g_hydra_data_left(0) is not enough for ant_number, id(0x64)\n"},
        {"0", "0", records(rec(0, 82, "")),
         "Fail to get data, data_len(0) is invalid, should be in (0, 700], number = 1, sub = 0, ret id_num = 1, "
         "id = 82\n"},
        {"0", "0", records(rec(0, 82, std::string(1402, '1'))),
         "Fail to get data fail, number = 1, ret = 1, sub = 0, id = 82\n"},
        {"0", "0", records(rec(0, 83, "01")),
         "Fail to get data, ret_id(83) is invalid, number = 1, sub = 0, ret id_num = 1, id = 82\n"},
        {"0", "0", records(rec(1, 82, "01")),
         "Fail to get data, ret_sub(1) is invalid, number = 1, sub = 0, ret id_num = 1, id = 82\n"},
        {"0", "0", records(rec(0, 82, "01") + "," + rec(0, 82, "02")),
         "Fail to get data, id num error, number = 1, sub = 0, ret id_num = 2, id = 82\n"},
        {"0", "0", records(""), "Fail to get data, empty, number = 1, sub = 0, ret id_num = 0, id = 82\n"},
        {"0", "2", "\"01\"", "modem_api_get_stats_parameter, sub(2) is invalid\n"},
        {"0", "-1", "\"01\"", "modem_api_get_stats_parameter, sub(-1) is invalid\n"},
        {"13", "1", "\"01\"", "pelmox_test_qmi_modem_stats_hdl: Unknown opt(13), sub(1)\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.value.substr(0, 60));
        const char *id = c.opt == "7" ? "94" : c.opt == "30" ? "100" : "82";
        load(sim, R"({"vs_stats": {"0": {")" + std::string(id) + "\": " + c.value + "}}}");
        sim.clear_journal();
        EXPECT_EQ(sim.kvn({"9", c.opt, c.sub}).out, start_line(c.opt, c.sub) + c.out);
        // The feature switch always goes out, the statistics request only when sub and option pass.
        EXPECT_EQ(requests(sim, 0xE4).size(), c.sub == "0" && c.opt != "13" ? 2u : 1u);
    }
    // The client was freed after the unknown option as after every run.
    auto log = hydra_log(sim);
    ASSERT_FALSE(log.empty());
    EXPECT_EQ(log.back(), "modem_api_operational_status_cb: client type 0, client id 0, operational_status 0");

    // A refused feature switch is reported and the run goes on.
    load(sim, R"({"vs_stats": {"1": {"94": ")" + pack(1u, 1.f, 2.f, 3.f, 4.f) + "\"}}}");
    ASSERT_EQ(sim.ctl({"fault", "vs", "3", "qmi-error=94"}).exit_code, 0);
    EXPECT_EQ(sim.kvn({"9", "7", "1"}).out, "modem_api_set_hydra_feature_status, start fail, result = 4\n" +
                                                start_line("7", "1") + success(1, 94, 20) +
                                                "ASDIV DATA: rssi_rx0: 1.00, rssi_rx1: 2.00, rssi_rx2: 3.00, "
                                                "rssi_rx3: 4.00\n");
    // Too few arguments print the note under the shell flag, and the help always.
    const std::string help = help_text::for_group(9);
    EXPECT_EQ(sim.kvn({"9", "0"}).out, "\nnote: Too few parameters, Pls refer to the following cmd:\n" + help);
    ProcessOptions quiet;
    quiet.env["PELMOX_SHELL_PRINT_FLAG"] = "0";
    EXPECT_EQ(sim.kvn({"9"}, quiet).out, help);

    // Service absent: the client is tried 10 times, reported failed, and the request refused for want of it.
    ASSERT_EQ(sim.ctl({"service", "vs", "down"}).exit_code, 0);
    const size_t before = hydra_log(sim).size();
    EXPECT_EQ(sim.kvn({"9", "0", "0"}).out, "modem_api_set_hydra_feature_status, start fail, result = 7\n" +
                                                start_line("0", "0", -1) + "hydra qmi is not yet inited\n");
    std::vector<std::string> tries, want, after = hydra_log(sim);
    for (const auto &l : std::vector<std::string>(after.begin() + std::ptrdiff_t(before), after.end()))
        if (l.find("Trying") != std::string::npos || l.find("returned failure") != std::string::npos ||
            l.find("operational_status 2") != std::string::npos)
            tries.push_back(l);
    for (int i = 0; i < 10; ++i)
        want.push_back("vs_client_init_client_handles: Trying qmi_client_init_instance() try # " + std::to_string(i) +
                       " port[65535]");
    want.push_back("vs_client_init_client_handles: qmi_client_init_instance returned failure(-3)");
    want.push_back("modem_api_operational_status_cb: client type 0, client id 0, operational_status 2");
    EXPECT_EQ(tries, want);
    // Levels 2, 3 and 4 reach the log as INFO, DEBUG and ERROR.
    const std::string logcat = sim.ctl({"logcat"}).out;
    for (const char *line : {" I HYDRA: vs_client_init_client_handles: Trying qmi_client_init_instance() try # 9",
                             " D HYDRA: vs_client_init_client_handles: qmi_client_init_instance returned (-3)",
                             " E HYDRA: vs_client_init_client_handles: qmi_client_init_instance returned failure(-3)"})
        EXPECT_NE(logcat.find(line), std::string::npos) << line;
}

/* ---- SAR DSI (group 5, sub-command 5) ---- */

// Shell flag off: nothing sent or printed. On: traces (logged too under the log flag) and the value, 0 when the
// modem leaves it out; with the SAR service absent -1 and no exit trace.
TEST(SarDsi, QueryAsTheShellFlagSays)
{
    SimHandset sim;
    ASSERT_TRUE(sim.started());
    ProcessOptions quiet;
    quiet.env["PELMOX_SHELL_PRINT_FLAG"] = "0";
    sim.clear_journal();
    EXPECT_EQ(sim.kvn({"5", "5"}, quiet).out, "");
    EXPECT_TRUE(sim.journal().empty());

    const std::string head = "RIL[pelmox_get_sar_dsi:N]: ", entry = head + "function entry ------------->\n";
    const std::string exit = head + "function exit <-------------\n";
    const std::tuple<const char *, bool, std::string> cases[] = { // scenario, service down, output
        {R"({"sar_dsi": 7})", false, entry + head + "dsi vailid = 1 , dsi value = 7\n" + exit + "SAR DSI: 7\n"},
        {R"({"sar_dsi": null})", false, entry + head + "dsi vailid = 0 , dsi value = 0\n" + exit + "SAR DSI: 0\n"},
        {R"({"sar_dsi": 0})", true,
         entry + head + "qmi_client_init_instance failed, qmi_client_error = -3\nSAR DSI: -1\n"},
    };
    for (const auto &[scenario, down, out] : cases) {
        load(sim, scenario);
        ASSERT_EQ(sim.ctl({"service", "sar", down ? "down" : "up"}).exit_code, 0);
        sim.clear_journal();
        ProcessOptions logged;
        logged.env["PELMOX_PRINT_FLAG"] = "1";
        EXPECT_EQ(kvn_test::mask_trace_lines(sim.kvn({"5", "5"}, logged).out), out) << scenario;
        const std::vector<Request> query{{2, {}}};
        EXPECT_EQ(requests(sim, 0x11), down ? std::vector<Request>() : query) << scenario;
    }
    auto log = hydra_log(sim, "pelmox");
    ASSERT_FALSE(log.empty());
    EXPECT_EQ(kvn_test::mask_trace_lines(log.back()),
              "SUB[shell][pelmox_extend_cmn:N] pelmox_get_sar_dsi: qmi_client_init_instance failed, "
              "qmi_client_error = -3");
}

} // namespace
