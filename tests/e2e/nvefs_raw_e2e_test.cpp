// nvefs_raw_e2e_test.cpp - kvn run as a process against a kvn-sim on a fresh
// state directory: groups 4 (NV/EFS) and 6 (raw vendor message), compared on
// their whole output and on what the sim's journal shows went over the wire.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "../extend/extend_journal.h"
#include "device_tests_e2e.h"

using namespace devtests;
using help_text::for_group;
using kvn_test::masked_out;
using extend_test::extend_requests;
using extend_test::le32;

namespace {

/* ---- expected texts ---- */

const std::string kFailLine = "pelmox_extend_qmi_send_sync fail, REQUEST_ID_EFS\n";
std::string error_note(int code) { return "\nnote: Error happen! error_code(" + std::to_string(code) + ")\n"; }

std::vector<std::string> args_of(std::vector<std::string> head, size_t n, const std::string &value)
{
    for (size_t i = 0; i < n; ++i)
        head.push_back(value);
    return head;
}

const char kScenario[] = R"({
  "nv": {"0": {"550": "08 3a 85 42 00 15 11 11 01"}},
  "efs": {"0": {"/chunked/file": {"hex": "%FILE%"}}},
  "extend_replies": {"5": {"result": 0, "data": "0102030405060708090a0b0c0d0e0f1011121314"}}
})";

std::string scenario(const std::string &extra = "")
{
    std::string s = kScenario;
    std::string file;
    for (int i = 0; i < 400; ++i) {
        char b[3];
        snprintf(b, sizeof(b), "%02x", i & 0xFF);
        file += b;
    }
    s.replace(s.find("%FILE%"), 6, file);
    if (!extra.empty())
        s.insert(s.rfind('}'), "," + extra);
    return s;
}

/* ---- group 4 ---- */

TEST(NvefsE2e, NvReadPrintsTracesAndData)
{
    SimHandset sim(scenario());
    auto r = sim.kvn({"4", "1", "0", "550"});
    EXPECT_EQ(r.exit_code, 0);
    EXPECT_EQ(masked_out(r),
              "RIL[pelmox_nv_read:N]: function entry ------------->\n"
              "RIL[pelmox_nv_read:N]: pelmox_nv_read, sub_id 0, nv_id: 550\n"
              "RIL[pelmox_nv_read:N]: buf_len: 365\n" +
                  k_open + send_ok(444) +
                  "RIL[pelmox_qmi_result_map:N]: pelmox_qmi_result_map, old_result 0, new_result 0\n"
                  "RIL[pelmox_nv_read:N]: result = 0, rsp.result = 0\n"
                  "RIL[pelmox_nv_read:N]: rsp.data_len_all = 9\n"
                  "RIL[pelmox_nv_read:N]: function exit <-------------\n"
                  "\ndata len(9)\ndata:  08 3A 85 42 00 15 11 11 01\n");
}

// Data bytes are decimal and cut to 8 bits: 300 is 44 (0x2C), "0x10" is 0.
// Sub 2 and -1 both mean subscription 1. A deleted item reads as the modem's
// result 5.
TEST(NvefsE2e, NvWriteReadDeleteWithSubFlagAndByteCuts)
{
    SimHandset sim(scenario());
    EXPECT_EQ(masked_out(sim.kvn({"4", "2", "2", "7232", "1", "2", "300", "0x10"}, shell_flag("0"))), k_open + send_ok(444));
    auto w = extend_requests(sim);
    ASSERT_EQ(w.size(), 1u);
    EXPECT_EQ(w[0].cmd_id, 2u);
    EXPECT_EQ(w[0].data[0], 2);
    EXPECT_EQ(w[0].data[1], 1) << "sub 2 sent as 1";
    EXPECT_EQ(le32(w[0].data, 76), 4u);

    EXPECT_EQ(masked_out(sim.kvn({"4", "1", "-1", "7232"}, shell_flag("0"))),
              k_open + send_ok(444) + "\ndata len(4)\ndata:  01 02 2C 00\n");
    EXPECT_EQ(sim.ctl({"nv", "get", "1", "7232"}).out, "01 02 2c 00\n");

    EXPECT_EQ(masked_out(sim.kvn({"4", "3", "5", "7232"}, shell_flag("0"))), k_open + send_ok(444));
    EXPECT_EQ(masked_out(sim.kvn({"4", "1", "1", "7232"}, shell_flag("0"))),
              k_open + send_ok(444) + kFailLine + error_note(5) + for_group(4));
}

TEST(NvefsE2e, NvIdAboveTheRangeIsRefusedBeforeSending)
{
    SimHandset sim(scenario());
    auto r = sim.kvn({"4", "1", "0", "7233"});
    EXPECT_EQ(masked_out(r), "RIL[pelmox_nv_read:N]: function entry ------------->\n"
                         "RIL[pelmox_nv_read:N]: pelmox_nv_read, sub_id 0, nv_id: 7233\n"
                         "RIL[pelmox_nv_read:N]: nv_id is out range(7232)\n"
                         "RIL[pelmox_nv_read:N]: function exit <-------------\n" +
                             kFailLine + error_note(-109) + for_group(4));
    EXPECT_TRUE(extend_requests(sim).empty());
}

TEST(NvefsE2e, ArgumentCountNotes)
{
    SimHandset sim(scenario());
    const std::string need5 = "\nnote: need 5 inputs, Pls refer to the following cmd:\n" + error_note(268431370) + for_group(4);
    const std::string few_inputs =
        "\nnote: Too few inputs, Pls refer to the following cmd:\n" + error_note(268431370) + for_group(4);
    struct {
        std::vector<std::string> args;
        std::string out;
    } cases[] = {
        {{"4", "1", "0", "550", "1"}, need5}, // a sixth argument is refused, not ignored
        {{"4", "3", "0"}, need5},
        {{"4", "4", "0", "/a", "x"}, need5},
        {{"4", "2", "0", "550"}, few_inputs},
        {{"4", "5", "0", "/a"}, few_inputs},
        {{"4"}, "\nnote: Too few parameters, Pls refer to the following cmd:\n" + for_group(4)},
        {{"4", "7"}, "\nnote: the second parameters is invalid, Pls refer to the following cmd:\n" + for_group(4)},
        {{"4", "0", "0", "1"}, "\nnote: the second parameters is invalid, Pls refer to the following cmd:\n" + for_group(4)},
    };
    // Group 4's notes do not depend on the shell print flag.
    for (const auto &c : cases)
        EXPECT_EQ(masked_out(sim.kvn(c.args, shell_flag("0"))), c.out) << c.args.size();
    EXPECT_TRUE(extend_requests(sim).empty());
}

// NV write declares every data argument (400) but converts only 365: the
// rest of the declared item goes out as zeros. EFS write declares the 365.
TEST(NvefsE2e, FourHundredDataBytesNvDeclares400EfsDeclares365)
{
    SimHandset sim(scenario());
    auto nv = sim.kvn(args_of({"4", "2", "0", "900"}, 400, "7"), shell_flag("0"));
    EXPECT_EQ(masked_out(nv), k_open + send_ok(444));
    auto efs = sim.kvn(args_of({"4", "5", "0", "/four/hundred"}, 400, "9"), shell_flag("0"));
    EXPECT_EQ(masked_out(efs), k_open + send_ok(444));
    auto w = extend_requests(sim);
    ASSERT_EQ(w.size(), 2u);
    EXPECT_EQ(le32(w[0].data, 76), 400u);
    for (size_t i = 0; i < 424; ++i)
        ASSERT_EQ(w[0].data[88 + i], i < 365 ? 7 : 0) << "NV byte " << i;
    EXPECT_EQ(le32(w[1].data, 76), 365u);
    EXPECT_EQ(le32(w[1].data, 80), 365u);
    EXPECT_EQ(w[1].data[88 + 364], 9);
    EXPECT_EQ(w[1].data[88 + 365], 0);
    EXPECT_EQ(sim.ctl({"efs", "ls", "0", "/four"}).out, "365 /four/hundred\n");

    // Beyond 424 the NV write refuses before sending.
    auto too_long = sim.kvn(args_of({"4", "2", "0", "900"}, 425, "1"), shell_flag("0"));
    EXPECT_EQ(masked_out(too_long), kFailLine + error_note(-108) + for_group(4));
    EXPECT_EQ(extend_requests(sim).size(), 2u);
}

TEST(NvefsE2e, EfsWriteReadDeleteAcrossRestart)
{
    SimHandset sim(scenario());
    EXPECT_EQ(masked_out(sim.kvn({"4", "5", "1", "/e2e/persist", "1", "2", "255", "256"}, shell_flag("0"))), k_open + send_ok(444));
    ASSERT_TRUE(sim.restart());
    EXPECT_EQ(masked_out(sim.kvn({"4", "4", "1", "/e2e/persist"}, shell_flag("0"))),
              k_open + send_ok(444) + "\ndata len(4)\ndata:  01 02 FF 00\n");
    EXPECT_EQ(masked_out(sim.kvn({"4", "6", "1", "/e2e/persist"}, shell_flag("0"))), k_open + send_ok(444));
    auto gone = sim.kvn({"4", "4", "1", "/e2e/persist"}, shell_flag("0"));
    EXPECT_NE(gone.out.find(kFailLine + "\nnote: Error happen! error_code(-"), std::string::npos) << gone.out;
}

// A 71-byte path is accepted by read (the modem then looks for it) but
// refused by write and delete.
TEST(NvefsE2e, SeventyOneBytePathReadVersusWriteAndDelete)
{
    SimHandset sim(scenario());
    const std::string p71 = "/" + std::string(70, 'p');
    auto rd = sim.kvn({"4", "4", "0", p71}, shell_flag("0"));
    EXPECT_EQ(extend_requests(sim).size(), 1u);
    EXPECT_EQ(rd.out.find("error_code(-106)"), std::string::npos) << rd.out;
    for (const char *cmd : {"5", "6"}) {
        std::vector<std::string> args = {"4", cmd, "0", p71};
        if (std::string(cmd) == "5")
            args.push_back("1");
        EXPECT_EQ(masked_out(sim.kvn(args, shell_flag("0"))), kFailLine + error_note(-106) + for_group(4)) << cmd;
    }
    EXPECT_EQ(extend_requests(sim).size(), 1u);
}

// With 100-byte chunks the 400-byte file overflows the 365-byte buffer on
// the fourth chunk.
TEST(NvefsE2e, EfsReadIntoSmallerCapacityAborts)
{
    SimHandset sim(scenario(R"("efs_read_chunk": 100)"));
    auto r = sim.kvn({"4", "4", "0", "/chunked/file"});
    const std::string out = masked_out(r);
    EXPECT_NE(out.find("RIL[pelmox_efs_read:N]: path_value: /chunked/file\n"), std::string::npos);
    EXPECT_NE(out.find("RIL[pelmox_efs_read:N]: data_len_all = 400, data_len_send = 100, data_len_recv = 400, "
                       "read_count = 4, data_len_cur = 300\n"
                       "RIL[pelmox_efs_read:N]: abort, buf_len <= data_len_recv\n"
                       "RIL[pelmox_efs_read:N]: function exit <-------------\n" +
                       kFailLine + error_note(-108) + for_group(4)),
              std::string::npos)
        << out;
    EXPECT_EQ(extend_requests(sim).size(), 4u);
}

/* ---- group 6 ---- */

TEST(RawE2e, SendsCommandAndBytesAndShowsTheEmptyReply)
{
    SimHandset sim(scenario());
    auto r = sim.kvn({"6", "5", "1", "2", "0x1FF"});
    // The canned reply has 20 bytes; the capacity offered is 0, so it is cut to nothing.
    EXPECT_EQ(masked_out(r), "px_qmi req data(qmi_id: 5, len: 3[max: 500]):\n0x01 0x02 0xFF " + k_open + send_ok(0) +
                             "qmi_id = 5, result = 0\npx_qmi rsp data(qmi_id: 5, len: 0[max: 500]):\n\n");
    auto w = extend_requests(sim);
    ASSERT_EQ(w.size(), 1u);
    EXPECT_EQ(w[0].cmd_id, 5u);
    EXPECT_EQ(w[0].data_len, 3u);
    std::vector<uint8_t> want(512, 0);
    want[0] = 1;
    want[1] = 2;
    want[2] = 0xFF;
    EXPECT_EQ(w[0].data, want);
}

TEST(RawE2e, QmiIdOutOfRangeAndTooFewArguments)
{
    SimHandset sim(scenario());
    const std::string range = "\nnote: the second parameters(qmi_id) should be >= 0 && < 6\n" + for_group(6);
    EXPECT_EQ(sim.kvn({"6", "6", "1"}).out, range);
    EXPECT_EQ(sim.kvn({"6", "-1", "1"}).out, range);
    EXPECT_EQ(sim.kvn({"6", "1"}).out, "\nnote: Too few parameters, Pls refer to the following cmd:\n" + for_group(6));
    // The notes follow the shell print flag; the help does not.
    EXPECT_EQ(sim.kvn({"6", "6", "1"}, shell_flag("0")).out, for_group(6));
    EXPECT_TRUE(extend_requests(sim).empty());
}

TEST(RawE2e, SixHundredArgumentsSendFiveHundredBytes)
{
    SimHandset sim(scenario());
    auto r = sim.kvn(args_of({"6", "5"}, 600, "0x7f"));
    EXPECT_EQ(r.out.rfind("px_qmi req data(qmi_id: 5, len: 600[max: 500]):\n", 0), 0u) << r.out;
    auto w = extend_requests(sim);
    ASSERT_EQ(w.size(), 1u);
    EXPECT_EQ(w[0].data_len, 500u);
    EXPECT_EQ(w[0].data[499], 0x7F);
    EXPECT_EQ(w[0].data[500], 0);
}

TEST(RawE2e, ModemRefusalShowsFailAndHelp)
{
    SimHandset sim(scenario());
    // Command 3 has no handler in the sim: the modem refuses it with result 1.
    EXPECT_EQ(masked_out(sim.kvn({"6", "3", "9"})),
              "px_qmi req data(qmi_id: 3, len: 1[max: 500]):\n0x09 " + k_open +
                  "1 QMI service framework error. Check client\npelmox_extend_qmi_handle_req_cb result:-3\n"
                  "qmi_id = 3, result = -3\npelmox_extend_qmi_send_sync fail\n" +
                  for_group(6));
}

TEST(RawE2e, NoReplyTimesOutWithMinus3)
{
    SimHandset sim(scenario());
    ASSERT_EQ(sim.ctl({"fault", "extend", "2", "no-reply"}).exit_code, 0);
    auto t0 = std::chrono::steady_clock::now();
    auto r = sim.kvn({"6", "0", "1"}, shell_flag("0"));
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0).count();
    EXPECT_EQ(masked_out(r), k_open + "send msg sync failed:-3\npelmox_extend_qmi_handle_req_cb result:-3\n" + for_group(6));
    EXPECT_GE(ms, 2900) << "the send waits out its 3-second timeout";
    EXPECT_EQ(extend_requests(sim).size(), 1u);
}

TEST(RawE2e, NoHandsetFailsWithMinus2AfterPollingAboutASecond)
{
    kvn_test::TempDir dir;
    ProcessOptions opt;
    opt.env["KVN_SIM_SOCKET"] = dir.path() + "/nobody.sock";
    opt.env["PELMOX_SHELL_PRINT_FLAG"] = "1";
    opt.env["PELMOX_PRINT_FLAG"] = "0";
    auto t0 = std::chrono::steady_clock::now();
    auto argv = kvn_test::kvn_command();
    argv.insert(argv.end(), {"6", "1", "1"});
    auto r = kvn_test::run_process(argv, opt);
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0).count();
    std::string polls;
    for (int i = 0; i < 50; ++i)
        polls += "PELMOX_QMI_NV: qmi_client_get_service_list() returned -2 num_services = 0\n";
    const std::string out = masked_out(r);
    EXPECT_EQ(out.rfind("px_qmi req data(qmi_id: 1, len: 1[max: 500]):\n0x01 " + polls +
                            "qmi_client_get_service_list, err = -2, num_entries = 0, num_services = 0"
                            "qmi_client_init, err = ",
                        0),
              0u)
        << out;
    EXPECT_NE(out.find(" QMI client init failed\npelmox_extend_qmi_handle_req_cb result:-2\n"
                       "qmi_id = 1, result = -2\npelmox_extend_qmi_send_sync fail\n" +
                       for_group(6)),
              std::string::npos)
        << out;
    EXPECT_GE(ms, 900) << "fifty polls 20 ms apart";
}

} // namespace
