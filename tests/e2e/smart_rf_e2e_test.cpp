// smart_rf_e2e_test.cpp - groups 11 (smart test) and 3 (GPIO/RF tests) against kvn-sim, its counters and EFS.
#include <filesystem>

#include "device_tests_e2e.h"

using namespace devtests;

namespace {

size_t dump_files(const SimHandset &sim)
{
    size_t n = 0;
    std::error_code ec;
    for (const auto &e : std::filesystem::directory_iterator(sim.state_dir() + "/dumps", ec))
        n += e.is_regular_file() && e.file_size() > 0;
    return n;
}

const char kGpioFile[] = "/nv/item_files/modem/pelmox/rf_ant_port_config";
const char kTxFile[] = "/nv/item_files/modem/antenna/ant_tx_config";

// Argument checks (only the notes follow the shell flag; nothing sent), then SSR, NV sync and a default full dump.
TEST(SmartTestE2e, ArgumentChecksSsrNvSyncAndDefaultDump)
{
    SimHandset sim;
    const std::string invalid = "\nnote: the second parameters is invalid, Pls refer to the following cmd:\n";
    const std::string cmd_error = "\nnote: Cmd error, should be: kvn 3 ", bad = error_note(268431370);
    expect_flag_cases(sim, {{{"11"}, "", k_too_few, 11}, {{"11", "5"}, "", k_too_few, 11},
                            {{"11", "4", "2"}, "", "\nnote: opt(2) is invalid:\n", 11},
                            {{"11", "6", "-1"}, "", "\nnote: opt(-1) is invalid:\n", 11},
                            {{"11", "7"}, "invalid par_i = 7\n", "", 11},
                            {{"11", "-1"}, "invalid par_i = -1\n", "", 11}, {{"3"}, "", k_too_few, 3},
                            {{"3", "6"}, "", invalid, 3}, {{"3", "-1"}, "", invalid, 3},
                            {{"3", "3", "1", "4"}, "pelmox_rf_tx_test_set, argc(5)\n",
                             "\nnote: need 5 inputs, Pls refer to the following cmd:\n" + bad, 3},
                            {{"3", "1", "x"}, "pelmox_gpio_test_get\n",
                             cmd_error + "1 , Pls refer to the following cmd:\n" + bad, 3},
                            {{"3", "5", "x"}, "pelmox_rf_tx_test_closed\n",
                             cmd_error + "5 , Pls refer to the following cmd:\n" + bad, 3}});
    EXPECT_EQ(counters(sim), "modem restarts 0, full dumps 0, nv syncs 0");
    EXPECT_TRUE(sim.journal().empty());

    // SSR restarts the modem for 2000 ms (after its reply); NV sync is counted; neither prints beyond the traces.
    auto r = sim.kvn({"11", "0"});
    EXPECT_NE(r.out.find("Will trigger SSR of modem"), std::string::npos);
    EXPECT_EQ(tool_lines(r.out), "");
    EXPECT_EQ(counters(sim), "modem restarts 1, full dumps 0, nv syncs 0");
    EXPECT_NE(sim.ctl({"logcat"}).out.find("modem restart, services back in 2000 ms"), std::string::npos);
    ASSERT_TRUE(wait_modem_up(sim));
    r = sim.kvn({"11", "2"});
    EXPECT_NE(r.out.find("Will trigger NV SYNC"), std::string::npos);
    EXPECT_EQ(counters(sim), "modem restarts 1, full dumps 0, nv syncs 1");
    // On the wire: common message 31 with u32 0x1000, then 35 with no value.
    std::vector<std::string> msgs;
    for (const auto &j : journal_of(sim, "tlvs"))
        for (const auto &t : j["tlvs"])
            if (t["type"] == 0x10)
                msgs.push_back(t["hex"].get<std::string>().substr(0, 40));
    EXPECT_EQ(msgs, (std::vector<std::string>{"02000000000000001f0000000400000000100000",
                                              "0200000000000000230000000000000000000000"}));
    // With no wait property a full dump waits the default 3 seconds first.
    r = sim.kvn({"11", "1"});
    for (const char *line : {"ssr wait_s = 3\n", "modem ssr start to wait 3s to init\n",
                             "modem ssr end to wait 3s to init\n"})
        EXPECT_THAT(r.out, HasSubstr(line)) << line;
    EXPECT_EQ(counters(sim), "modem restarts 2, full dumps 1, nv syncs 1");
}

// Full dumps: a first run saves the policy, closes SSR, writes the counter as 1 (the wait property 0: no wait); a
// second run only dumps; with SSR already closed the policy is stored, no counter, no wait.
TEST(SmartTestE2e, FullDumpRunsAndARawDumpWithSsrEnabled)
{
    SimHandset fresh(R"({"properties": {"persist.radio.ssr_wait_s": "0"}})");
    SimHandset sim(R"({"properties": {"persist.vendor.ssr.restart_level": "ALL_DISABLE"}})");
    const struct {
        const SimHandset &sim;
        std::vector<const char *> has, lacks;
        const char *bak, *count, *counters;
        size_t dumps;
    } runs[] = {
        {fresh,
         {"need to save ssr state", "Will trigger Full Dump, the current state: ALL_ENABLE, the default state: \n",
          "need to close ssr", "PROP_MODEM_SSR_UPDATE_COUNT write ret: 0, new update_cnt: 1", "ssr wait_s = 0",
          "modem ssr will not wait"},
         {}, "ALL_ENABLE", "01000000", "modem restarts 1, full dumps 1, nv syncs 0", 1},
        {fresh,
         {"the current state: ALL_DISABLE, the default state: ALL_ENABLE"},
         {"need to save", "need to close", "PROP_MODEM_SSR_UPDATE_COUNT", "wait_s"}, "ALL_ENABLE", "01000000",
         "modem restarts 2, full dumps 2, nv syncs 0", 2},
        {sim, {"need to save ssr state"}, {"wait_s"}, "ALL_DISABLE", "absent", "modem restarts 1, full dumps 1, nv syncs 0",
         1},
    };
    for (const auto &run : runs) {
        ASSERT_TRUE(wait_modem_up(run.sim));
        const std::string out = run.sim.kvn({"11", "1"}).out;
        for (const char *line : run.has)
            EXPECT_THAT(out, HasSubstr(line));
        for (const char *line : run.lacks)
            EXPECT_THAT(out, Not(HasSubstr(line)));
        EXPECT_EQ(prop(run.sim, "persist.vendor.ssr.restart_level"), "ALL_DISABLE");
        EXPECT_EQ(prop(run.sim, "persist.vendor.ssr.restart_level_bak"), run.bak);
        EXPECT_EQ(efs_hex(run.sim, "/nv/item_files/modem/pelmox/ssr_update_count"), run.count);
        EXPECT_EQ(counters(run.sim), run.counters);
        EXPECT_EQ(dump_files(run.sim), run.dumps);
    }

    // A raw dump request (group 6) with SSR enabled only restarts; the reply comes before the restart.
    ASSERT_TRUE(wait_modem_up(sim));
    ASSERT_EQ(sim.ctl({"prop", "set", "persist.vendor.ssr.restart_level", "ALL_ENABLE"}).exit_code, 0);
    EXPECT_THAT(sim.kvn({"6", "4", "2", "0", "0", "0", "0", "0", "0", "0", "99", "0", "0", "0", "4", "0", "0", "0", "0",
                         "32", "0", "0"})
                    .out,
                HasSubstr("qmi_id = 4, result = 0\n"));
    EXPECT_EQ(counters(sim), "modem restarts 2, full dumps 1, nv syncs 0");
    EXPECT_EQ(dump_files(sim), 1u);
}

// Each switch: its file written or deleted, NV sync then SSR; a failed delete or write stops before both.
TEST(SmartTestE2e, PrintSwitchesOnOffAndFailures)
{
    SimHandset sim;
    const struct {
        const char *sub, *opt, *name, *path, *hex;
    } cases[] = {
        {"4", "1", "bp_hydra_print", "/hydra/hydra_print_mask", "1f000000"},
        {"5", "1", "bp_qmi_print", "/nv/item_files/modem/pelmox/qmi_print_flag", "01"},
        {"6", "1", "bp_rf_print", "/nv/item_files/modem/pelmox/rf_print_mask", "0f000000"},
        {"5", "0", "bp_qmi_print", "/nv/item_files/modem/pelmox/qmi_print_flag", nullptr},
    };
    int restarts = 0;
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.sub) + " " + c.opt);
        ASSERT_TRUE(wait_modem_up(sim));
        auto r = sim.kvn({"11", c.sub, c.opt});
        EXPECT_EQ(tool_lines(r.out), std::string(c.name) + ", opt = " + c.opt + "\nsuccess, pls wait 10 seconds\n");
        EXPECT_EQ(efs_hex(sim, c.path), c.hex ? c.hex : "absent");
        std::string note = std::string("print switch ") + c.path + " of subscription 0 " +
                           (c.hex ? std::string("now ") + c.hex : std::string("deleted"));
        EXPECT_NE(sim.ctl({"logcat"}).out.find(note), std::string::npos) << note;
        ++restarts;
        EXPECT_EQ(counters(sim), "modem restarts " + std::to_string(restarts) + ", full dumps 0, nv syncs " +
                                     std::to_string(restarts));
    }
    ASSERT_TRUE(wait_modem_up(sim));
    auto r = sim.kvn({"11", "5", "0"});
    EXPECT_EQ(tool_lines(r.out), "bp_qmi_print, opt = 0\npelmox_efs_delete failed\n");
    ASSERT_EQ(sim.ctl({"fault", "extend", "2", "qmi-error=5"}).exit_code, 0);
    r = sim.kvn({"11", "6", "1"});
    EXPECT_EQ(tool_lines(r.out), "bp_rf_print, opt = 1\npelmox_efs_write failed\n");
    EXPECT_EQ(counters(sim), "modem restarts 4, full dumps 0, nv syncs 4");

    // The application-side switch: "1" on, "2" off; no modem action.
    for (const auto &[opt, value] : {std::pair{"1", "1"}, std::pair{"0", "2"}}) {
        r = sim.kvn({"11", "3", opt});
        EXPECT_EQ(r.out, std::string("ap_hydra_print, opt = ") + opt + "\nsuccess, need to reboot\n");
        EXPECT_EQ(prop(sim, "persist.vendor.radio.print_stats"), value);
    }
    EXPECT_EQ(counters(sim), "modem restarts 4, full dumps 0, nv syncs 4");
}

// 60 GPIO values: count 60, 50 values sent, 60 bytes stored; none: count 0, refused. Then set, get and close in
// order with the state file each leaves (path nullptr: not checked); the band list is strtoul in base 0.
TEST(RfTestE2e, GpioAndTxSetGetClose)
{
    SimHandset sim;
    std::vector<std::string> args{"3", "0"};
    std::string expect_file;
    for (int i = 1; i <= 60; ++i) {
        args.push_back(std::to_string(i));
        expect_file += i <= 50 ? hex_of(std::string(1, static_cast<char>(i))) : "00";
    }
    auto r = sim.kvn(args);
    EXPECT_NE(r.out.find("gpio_v[49]: 50\n"), std::string::npos);
    EXPECT_EQ(r.out.find("gpio_v[50]"), std::string::npos);
    EXPECT_EQ(efs_hex(sim, kGpioFile), expect_file);
    std::string payload = nlohmann::json::parse(sim.journal().back())["tlvs"][2]["hex"];
    EXPECT_EQ(payload.substr(0, 24), "00000000000000003c000000"); // type 0, 0, count 60
    EXPECT_EQ(payload.substr(24 + 49 * 8, 16), "3200000000000000");

    sim.clear_journal();
    r = sim.kvn({"3", "0"});
    EXPECT_EQ(tool_lines(r.out), "pelmox_gpio_test_set\npelmox_extend_qmi_send_sync fail, REQUEST_ID_COMMON\n" +
                                     error_note(-3) + for_group(3));
    payload = nlohmann::json::parse(sim.journal().back())["tlvs"][2]["hex"];
    EXPECT_EQ(payload.substr(0, 24), "000000000000000000000000");
    EXPECT_EQ(efs_hex(sim, kGpioFile), expect_file);

    const std::string tx_set = "pelmox_rf_tx_test_set, argc(6)\n v_ant(1)\n v_sys(4)\n v_band_list(";
    const struct {
        std::vector<std::string> args;
        std::string out;
        const char *path, *hex;
    } steps[] = {
        {{"3", "0", "1", "2", "300"},
         "pelmox_gpio_test_set\npelmox_gpio_test_set, gpio_v[0]: 1\npelmox_gpio_test_set, gpio_v[1]: 2\n"
         "pelmox_gpio_test_set, gpio_v[2]: 300\n",
         kGpioFile, "01022c"},
        {{"3", "1"}, "pelmox_gpio_test_get\n\ndata len(3)\ndata:  01 02 2C\n", nullptr, nullptr},
        {{"3", "2"}, "pelmox_gpio_test_closed\n", kGpioFile, "absent"},
        {{"3", "1"},
         "pelmox_gpio_test_get\npelmox_extend_qmi_send_sync fail, REQUEST_ID_EFS\n" + error_note(-2) + for_group(3),
         nullptr, nullptr},
        {{"3", "3", "1", "4", "0x1"}, tx_set + "1)\n", kTxFile, "01000000040000000100000000000000"},
        {{"3", "3", "1", "4", "010"}, tx_set + "8)\n", kTxFile, "01000000040000000800000000000000"},
        {{"3", "3", "1", "4", "0x100000000000"}, tx_set + "17592186044416)\n", kTxFile,
         "01000000040000000000000000100000"},
        {{"3", "3", "1", "4", "-1"}, tx_set + "18446744073709551615)\n", kTxFile, "0100000004000000ffffffffffffffff"},
        {{"3", "4"}, "pelmox_rf_tx_test_get\n\ndata len(16)\ndata:  01 00 00 00 04 00 00 00 FF FF FF FF FF FF FF FF\n",
         nullptr, nullptr},
        {{"3", "5"}, "pelmox_rf_tx_test_closed\n", kTxFile, "absent"},
    };
    for (const auto &step : steps) {
        SCOPED_TRACE(step.args[1] + " " + step.args.back());
        EXPECT_EQ(tool_lines(sim.kvn(step.args).out), step.out);
        EXPECT_EQ(step.path ? efs_hex(sim, step.path) : "", step.path ? step.hex : "");
    }
    ASSERT_EQ(sim.ctl({"ssr", "60000"}).exit_code, 0);
    EXPECT_EQ(tool_lines(sim.kvn({"3", "4"}).out),
              "pelmox_rf_tx_test_get\npelmox_extend_qmi_send_sync fail, REQUEST_ID_EFS\n" + error_note(-102) +
                  for_group(3));
}

} // namespace
