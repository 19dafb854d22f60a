// nvefs_raw_e2e_test.cpp - groups 4 (NV/EFS) and 6 (raw vendor message) against kvn-sim and its journal.
#include <chrono>

#include "../extend/extend_journal.h"
#include "device_tests_e2e.h"

using namespace devtests;
using extend_test::extend_requests;
using extend_test::le32;

namespace {

const std::string kFailLine = "pelmox_extend_qmi_send_sync fail, REQUEST_ID_EFS\n";
const std::string kReadEntry = "RIL[pelmox_nv_read:N]: function entry ------------->\n"
                               "RIL[pelmox_nv_read:N]: pelmox_nv_read, sub_id 0, nv_id: ";
const std::string kReadExit = "RIL[pelmox_nv_read:N]: function exit <-------------\n";

// NV item 550, a 400-byte EFS file and a 20-byte reply to raw command 5.
std::string scenario()
{
    std::string file;
    for (int i = 0; i < 400; ++i)
        file += hex_of(std::string(1, char(i & 0xFF)));
    return R"({"nv": {"0": {"550": "08 3a 85 42 00 15 11 11 01"}}, "efs": {"0": {"/chunked/file": {"hex": ")" + file +
           R"("}}}, "extend_replies": {"5": {"result": 0, "data": "0102030405060708090a0b0c0d0e0f1011121314"}}})";
}

// A read and an id past the range (traces on), the argument notes (shell flag off): only the read is sent.
TEST(NvefsE2e, ReadRefusalsWriteDelete)
{
    SimHandset sim(scenario());
    const std::string refer = ", Pls refer to the following cmd:\n", help = error_note(268431370) + for_group(4);
    const std::string need5 = "\nnote: need 5 inputs" + refer + help, few = "\nnote: Too few inputs" + refer + help;
    const std::string invalid = "\nnote: the second parameters is invalid" + refer + for_group(4);
    const struct {
        std::vector<std::string> args;
        std::string out;
    } cases[] = {
        {{"4", "1", "0", "550"},
         kReadEntry + "550\nRIL[pelmox_nv_read:N]: buf_len: 365\n" + k_open + send_ok(444) +
             "RIL[pelmox_qmi_result_map:N]: pelmox_qmi_result_map, old_result 0, new_result 0\n"
             "RIL[pelmox_nv_read:N]: result = 0, rsp.result = 0\nRIL[pelmox_nv_read:N]: rsp.data_len_all = 9\n" +
             kReadExit + "\ndata len(9)\ndata:  08 3A 85 42 00 15 11 11 01\n"},
        {{"4", "1", "0", "7233"},
         kReadEntry + "7233\nRIL[pelmox_nv_read:N]: nv_id is out range(7232)\n" + kReadExit + kFailLine +
             error_note(-109) + for_group(4)},
        {{"4", "1", "0", "550", "1"}, need5}, // a sixth argument is refused, not ignored
        {{"4", "3", "0"}, need5}, {{"4", "4", "0", "/a", "x"}, need5},
        {{"4", "2", "0", "550"}, few}, {{"4", "5", "0", "/a"}, few},
        {{"4"}, k_too_few + for_group(4)}, {{"4", "7"}, invalid}, {{"4", "0", "0", "1"}, invalid},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.args.size() > 3 ? c.args[3] : c.args.back());
        EXPECT_EQ(masked_out(sim.kvn(c.args, shell_flag(c.out.rfind("RIL", 0) == 0 ? "1" : "0"))), c.out);
    }
    EXPECT_EQ(extend_requests(sim).size(), 1u);
    sim.clear_journal();

    // Data bytes are atoi cut to 8 bits; sub 2 and -1 mean 1; a deleted item reads as result 5; EFS outlives a restart.
    const std::string sent = k_open + send_ok(444);
    const struct {
        std::vector<std::string> args;
        std::string out; // after the transport's lines
    } steps[] = {
        {{"4", "2", "2", "7232", "1", "2", "300", "0x10"}, ""},
        {{"4", "1", "-1", "7232"}, "\ndata len(4)\ndata:  01 02 2C 00\n"},
        {{"4", "3", "5", "7232"}, ""},
        {{"4", "1", "1", "7232"}, kFailLine + error_note(5) + for_group(4)},
        {{"4", "5", "1", "/e2e/persist", "1", "2", "255", "256"}, ""},
        {{}, ""}, // restart
        {{"4", "4", "1", "/e2e/persist"}, "\ndata len(4)\ndata:  01 02 FF 00\n"},
        {{"4", "6", "1", "/e2e/persist"}, ""},
        {{"4", "4", "1", "/e2e/persist"}, kFailLine + error_note(-2) + for_group(4)},
    };
    for (const auto &s : steps) {
        if (s.args.empty()) {
            ASSERT_TRUE(sim.restart());
            continue;
        }
        SCOPED_TRACE(s.args[1] + " " + s.args[2]);
        EXPECT_EQ(masked_out(sim.kvn(s.args, shell_flag("0"))), sent + s.out);
        if (s.args[1] == "2") {
            auto w = extend_requests(sim);
            ASSERT_EQ(w.size(), 1u);
            EXPECT_EQ(std::vector<uint32_t>({w[0].cmd_id, w[0].data[0], w[0].data[1], le32(w[0].data, 76)}),
                      (std::vector<uint32_t>{2, 2, 1, 4})); // sub 2 sent as 1
            EXPECT_EQ(sim.ctl({"nv", "get", "1", "7232"}).out, "01 02 2c 00\n");
        }
    }
}

// NV write declares all 400 data arguments but converts 365, EFS write declares 365; a 71-byte path goes out in a
// read; an EFS read stops at the buffer's end.
TEST(NvefsE2e, LengthLimits)
{
    SimHandset sim(scenario());
    const std::string p71 = "/" + std::string(70, 'p');
    const std::string sent = k_open + send_ok(444);
    EXPECT_EQ(masked_out(sim.kvn(args_of({"4", "2", "0", "900"}, 400, "7"), shell_flag("0"))), sent);
    EXPECT_EQ(masked_out(sim.kvn(args_of({"4", "5", "0", "/four/hundred"}, 400, "9"), shell_flag("0"))), sent);
    auto w = extend_requests(sim);
    ASSERT_EQ(w.size(), 2u);
    EXPECT_EQ(le32(w[0].data, 76), 400u);
    for (size_t i = 0; i < 424; ++i)
        ASSERT_EQ(w[0].data[88 + i], i < 365 ? 7 : 0) << "NV byte " << i;
    EXPECT_EQ(std::vector<uint32_t>({le32(w[1].data, 76), le32(w[1].data, 80), w[1].data[88 + 364], w[1].data[453]}),
              (std::vector<uint32_t>{365, 365, 9, 0}));
    EXPECT_EQ(sim.ctl({"efs", "ls", "0", "/four"}).out, "365 /four/hundred\n");
    EXPECT_THAT(sim.kvn({"4", "4", "0", p71}, shell_flag("0")).out, Not(HasSubstr("error_code(-106)")));
    EXPECT_EQ(extend_requests(sim).size(), 3u);

    // With 100-byte chunks the 400-byte file overflows the 365-byte buffer on the fourth chunk.
    load(sim, R"({"efs_read_chunk": 100})");
    sim.clear_journal();
    const std::string out = masked_out(sim.kvn({"4", "4", "0", "/chunked/file"}));
    EXPECT_THAT(out, HasSubstr("RIL[pelmox_efs_read:N]: path_value: /chunked/file\n"));
    EXPECT_THAT(out, HasSubstr("RIL[pelmox_efs_read:N]: data_len_all = 400, data_len_send = 100, data_len_recv = 400, "
                               "read_count = 4, data_len_cur = 300\n"
                               "RIL[pelmox_efs_read:N]: abort, buf_len <= data_len_recv\n"
                               "RIL[pelmox_efs_read:N]: function exit <-------------\n" +
                               kFailLine + error_note(-108) + for_group(4)));
    EXPECT_EQ(extend_requests(sim).size(), 4u);
}

// Argument checks, a 20-byte canned reply cut to the capacity 0 offered, 600 arguments sending 500 bytes, a command
// with no handler, no reply, no handset.
TEST(RawE2e, SendsAndRefusals)
{
    SimHandset sim(scenario());
    const std::string range = "\nnote: the second parameters(qmi_id) should be >= 0 && < 6\n";
    expect_flag_cases(sim, {{{"6", "6", "1"}, "", range, 6}, {{"6", "-1", "1"}, "", range, 6},
                            {{"6", "1"}, "", k_too_few, 6}});
    EXPECT_TRUE(extend_requests(sim).empty());

    EXPECT_EQ(masked_out(sim.kvn({"6", "5", "1", "2", "0x1FF"})),
              "px_qmi req data(qmi_id: 5, len: 3[max: 500]):\n0x01 0x02 0xFF " + k_open + send_ok(0) +
                  "qmi_id = 5, result = 0\npx_qmi rsp data(qmi_id: 5, len: 0[max: 500]):\n\n");
    auto w = extend_requests(sim);
    ASSERT_EQ(w.size(), 1u);
    std::vector<uint8_t> want{1, 2, 0xFF};
    want.resize(512);
    EXPECT_EQ(std::vector<uint32_t>({w[0].cmd_id, w[0].data_len}), (std::vector<uint32_t>{5, 3}));
    EXPECT_EQ(w[0].data, want);

    sim.clear_journal();
    auto r = sim.kvn(args_of({"6", "5"}, 600, "0x7f"));
    EXPECT_THAT(r.out, StartsWith("px_qmi req data(qmi_id: 5, len: 600[max: 500]):\n"));
    w = extend_requests(sim);
    ASSERT_EQ(w.size(), 1u);
    EXPECT_EQ(std::vector<uint32_t>({w[0].data_len, w[0].data[499], w[0].data[500]}),
              (std::vector<uint32_t>{500, 0x7F, 0}));

    EXPECT_EQ(masked_out(sim.kvn({"6", "3", "9"})),
              "px_qmi req data(qmi_id: 3, len: 1[max: 500]):\n0x09 " + k_open +
                  "1 QMI service framework error. Check client\npelmox_extend_qmi_handle_req_cb result:-3\n"
                  "qmi_id = 3, result = -3\npelmox_extend_qmi_send_sync fail\n" + for_group(6));

    // No reply: the send waits out its 3-second timeout.
    ASSERT_EQ(sim.ctl({"fault", "extend", "2", "no-reply"}).exit_code, 0);
    sim.clear_journal();
    auto t0 = std::chrono::steady_clock::now();
    r = sim.kvn({"6", "0", "1"}, shell_flag("0"));
    EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(2900));
    EXPECT_EQ(masked_out(r),
              k_open + "send msg sync failed:-3\npelmox_extend_qmi_handle_req_cb result:-3\n" + for_group(6));
    EXPECT_EQ(extend_requests(sim).size(), 1u);

    // No handset: fifty polls 20 ms apart, then the client init fails.
    t0 = std::chrono::steady_clock::now();
    const std::string out = masked_out(kvn_alone({"6", "1", "1"}));
    EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(900));
    std::string polls;
    for (int i = 0; i < 50; ++i)
        polls += "PELMOX_QMI_NV: qmi_client_get_service_list() returned -2 num_services = 0\n";
    EXPECT_THAT(out, StartsWith("px_qmi req data(qmi_id: 1, len: 1[max: 500]):\n0x01 " + polls +
                                "qmi_client_get_service_list, err = -2, num_entries = 0, num_services = 0"
                                "qmi_client_init, err = "));
    EXPECT_THAT(out, HasSubstr(" QMI client init failed\npelmox_extend_qmi_handle_req_cb result:-2\n"
                               "qmi_id = 1, result = -2\npelmox_extend_qmi_send_sync fail\n" +
                               for_group(6)));
}

} // namespace
