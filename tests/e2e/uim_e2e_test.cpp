// uim_e2e_test.cpp - group 5's SIM card commands and eSIM test (sub-command 10) against kvn-sim.
#include "device_tests_e2e.h"

using namespace devtests;

namespace {

bool once(const std::string &text, const std::string &part)
{
    return contains(text, part) && text.find(part) == text.rfind(part);
}

// The UIM requests of the journal as "msg_id: type=hex type=hex ...".
std::vector<std::string> uim_requests(const SimHandset &sim)
{
    std::vector<std::string> out;
    for (const auto &j : journal_of(sim, "tlvs")) {
        if (j["service"] != 11)
            continue;
        std::string s = hex_of(std::string(1, char(int(j["msg_id"])))) + ":";
        for (const auto &t : j["tlvs"])
            s += " " + hex_of(std::string(1, char(int(t["type"])))) + "=" + std::string(t["hex"]);
        out.push_back(s);
    }
    return out;
}

size_t eid_requests(const SimHandset &sim)
{
    auto reqs = uim_requests(sim);
    return std::count_if(reqs.begin(), reqs.end(), [](const std::string &s) { return s.rfind("65:", 0) == 0; });
}

void fault(const SimHandset &sim, const std::string &msg, const std::string &kind, int count = 1)
{
    auto r = sim.ctl({"fault", "uim", msg, kind, "--count", std::to_string(count)});
    ASSERT_EQ(r.exit_code, 0) << r.err;
}

std::string esim(const SimHandset &sim, int opt, int debug_on)
{
    return masked(sim.kvn({"5", "10", std::to_string(opt), std::to_string(debug_on)}));
}

const std::string kEid = "89049032123451234512345678901235";
const char kEidFile[] = "/nv/item_files/modem/uim/uimdrv/esim_eid";

// A card command's output from its parameter line: the answer block holds the type and, when value >= 0, value.
std::string card_sent(const std::string &head, int type, int param_len, int value)
{
    char block[80];
    if (value < 0)
        snprintf(block, sizeof(block), "\ndata len(8)\ndata: %02X 00 00 00 00 00 00 00\n", type);
    else
        snprintf(block, sizeof(block), "\ndata len(12)\ndata: %02X 00 00 00 04 00 00 00 %02X 00 00 00\n", type,
                 value);
    return head + "pelmox_cmn_cmd_send, t: " + std::to_string(type) + ", l: " + std::to_string(param_len) + "\n" +
           k_open + send_ok(value < 0 ? 16 : 20) + "result = 0, rsp.result = 0\n" + block;
}

// Wrong counts (nothing sent; the dispatcher's error note follows the flag), then commands in order, each row seeing
// what the rows before did to the slots; then a one-slot handset and the vendor service gone.
TEST(UimCardCommands, CountsQueryGetSetTypeAndHotSwapInOrder)
{
    SimHandset sim;
    const struct {
        std::vector<std::string> args;
        int flag;
        std::string head; // output before the help
    } counts[] = {
        {{"5", "2"}, 1,
         "pelmox_cmn_card_status_get\n\nnote: need 4 inputs, Pls refer to the following cmd:\n"
         "\nnote: Error happen! error_code(268431370)\n"},
        {{"5", "3", "1", "0"}, 0, "\nnote: need 6 inputs, Pls refer to the following cmd:\n"},
        {{"5", "1", "0"}, 0, "\nnote: need 3 inputs, Pls refer to the following cmd:\n"},
        {{"5", "6"}, 1,
         "\nnote: need 4 inputs at least, Pls refer to the following cmd:\n"
         "\nnote: Error happen! error_code(268431370)\n"},
        {{"5", "6", "1", "2"}, 0, "opt: 1\n\nnote: need 7 inputs, Pls refer to the following cmd:\n"},
    };
    for (const auto &c : counts)
        EXPECT_EQ(masked(sim.kvn(c.args, shell_flag(c.flag ? "1" : "0"))), c.head + for_group(5)) << c.args.size();
    EXPECT_TRUE(sim.journal().empty());
    const int none = -1; // an answer block without a value
    struct Row {
        std::vector<std::string> args;
        int flag;
        std::string head; // up to the send line
        int type, param_len, value;
    } rows[] = {
        {{"5", "1"}, 1, "pelmox_cmn_card_status_query\nparam(cnt: 0):\n\n", 0x27, 0, 1},
        {{"5", "1"}, 0, "param(cnt: 0):\n\n", 0x27, 0, 1},
        // set_val 5 is sent as 1, sub 1 as 1: slot 2's card in, then out.
        {{"5", "3", "1", "0", "0"}, 1, "pelmox_cmn_card_status_set\nparam(cnt: 3):\n 1 0 0\n", 0x39, 12, none},
        {{"5", "2", "1"}, 1, "pelmox_cmn_card_status_get\nparam(cnt: 1):\n 1\n", 0x37, 4, 0},
        {{"5", "3", "7", "0", "5"}, 0, "param(cnt: 3):\n 1 0 1\n", 0x39, 12, none},
        {{"5", "2", "1"}, 0, "param(cnt: 1):\n 1\n", 0x37, 4, 1},
        // "0x1" is 0 under atoi: slot 1, present.
        {{"5", "2", "0x1"}, 0, "param(cnt: 1):\n 0\n", 0x37, 4, 1},
        {{"5", "4"}, 1, "pelmox_cmn_card_type_query\nparam(cnt: 0):\n\n", 0x38, 0, 2},
        // Hot swap: the values go unchanged; the card is out at once.
        {{"5", "6", "3", "100", "200", "2"}, 1, "opt: 3\nparam(cnt: 4):\n 3 100 200 2\n", 0x50, 16, none},
        {{"5", "1"}, 0, "param(cnt: 0):\n\n", 0x27, 0, 0},
        // Stop: one 0, whatever follows; the card is back.
        {{"5", "6", "0", "9"}, 1, "opt: 0\n", 0x50, 4, none},
        {{"5", "1"}, 0, "param(cnt: 0):\n\n", 0x27, 0, 1},
        // Sub 2 is sent as 1.
        {{"5", "2", "2"}, 0, "param(cnt: 1):\n 1\n", 0x37, 4, 1},
    };
    for (const auto &row : rows)
        EXPECT_EQ(masked(sim.kvn(row.args, shell_flag(row.flag ? "1" : "0"))),
                  card_sent(row.head, row.type, row.param_len, row.value))
            << row.args[1] << " " << row.args.back() << " flag " << row.flag;
    load(sim, R"({"uim": {"slots": {"1": {}}}})");
    EXPECT_EQ(masked(sim.kvn({"5", "4"}, shell_flag("0"))), card_sent("param(cnt: 0):\n\n", 0x38, 0, 1));
    EXPECT_EQ(masked(sim.kvn({"5", "2", "1"}, shell_flag("0"))),
              "param(cnt: 1):\n 1\npelmox_cmn_cmd_send, t: 55, l: 4\n" + k_open + send_ok(16) +
                  "result = 0, rsp.result = 1\nrsp.result fail\n");

    ASSERT_EQ(sim.ctl({"service", "extend", "down"}).exit_code, 0);
    EXPECT_THAT(masked(sim.kvn({"5", "4"}, shell_flag("0"))),
                HasSubstr("result = -2, rsp.result = 0\npelmox_extend_qmi_send_sync fail\n"));
}

TEST(UimEsim, EveryOptionTracesOffWireBytesAndRecovery)
{
    SimHandset sim;
    struct Row {
        int opt;
        std::string out;
    } rows[] = {
        {4, "PRESENT,PRESENT\n"},
        {3, "value=FAILED\n"}, // slot 2 runs on its physical card: no EID
        {1, k_open + send_ok(16) + send_ok(444) + send_ok(444) + "eID=" + kEid + "\n"},
        {4, "PRESENT,PRESENT\n"},
        {3, "eID=" + kEid + "\n"},
        {5, "value=SUCCEED\n"},
        {5, "value=SUCCEED\n"},
        {2, k_open + send_ok(16) + "value=SUCCEED\n"},
        {3, "value=FAILED\n"},
        {0, "value=FAILED\n"},
        {6, "value=FAILED\n"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(esim(sim, row.opt, 0), row.out) << "option " << row.opt;
    std::string out = masked(sim.kvn({"5", "10", "1"}, shell_flag("0")));
    EXPECT_EQ(out.substr(0, out.find(help_text::k_banner)), ""); // the dispatcher's note and help follow

    // Power down/up for the physical card and for the eUICC, reset, status: the bytes sent.
    sim.clear_journal();
    for (int opt : {2, 1, 5, 4})
        esim(sim, opt, 0);
    EXPECT_EQ(uim_requests(sim),
              (std::vector<std::string>{"30: 01=02", "31: 01=02 10=00 11=00", "30: 01=02", "31: 01=02 10=01 11=00",
                                        "65: 01=02", "42: 01=02 10=10a0000005591010ffffffff8900000100 11=01",
                                        "3b: 01=02 02=0d0080e2910007bf3404820205e000 10=01 11=01",
                                        "3f: 01=02 11=01 13=00", "2f: 10=01"}));

    // Three failed EID requests: the third releases the client, the fourth creates a new one and gets the EID.
    fault(sim, "0x65", "truncate", 3);
    out = esim(sim, 1, 1);
    EXPECT_TRUE(once(out, "QMI error, try recovery")) << out;
    size_t release = out.find("RIL[pelmox_uim_request_eid:N]: QMI error, try recovery\n"
                              "RIL[uim_qmi_client_recovery:N]: uim_qmi_client_recovery qmi_client_release P\n"
                              "RIL[uim_qmi_client_recovery:N]: function exit <-------------\n"
                              "RIL[pelmox_uim_request_eid:N]: function exit <-------------\n");
    ASSERT_NE(release, std::string::npos) << out;
    EXPECT_LT(out.find("try get eid loop = 2"), release);
    EXPECT_GT(out.find("try get eid loop = 3"), release);
    EXPECT_THAT(out.substr(release), HasSubstr("pelmox_uim_request_eid try init_uim_qmi_client P\n"));
    EXPECT_THAT(out, HasSubstr("eID=" + kEid + "\n"));
}

// Trace lines of fn; "{" and "}" stand for its entry and exit lines.
std::string ril(const std::string &fn, const std::vector<std::string> &lines)
{
    std::string t;
    for (const auto &l : lines)
        t += "RIL[" + fn + ":N]: " +
             (l == "{" ? "function entry ------------->" : l == "}" ? "function exit <-------------" : l) + "\n";
    return t;
}

TEST(UimEsim, CardStatesResetsAndChannelsAcrossRestarts)
{
    SimHandset sim(R"({"uim": {"slots": {"1": {"card": "absent"},
        "2": {"selected": "euicc", "euicc": {"eid": ")" + kEid + R"(", "profiles": 0}}}}})");
    const std::string test = "pelmox_cmn_esim_test", status = "pelmox_uim_get_card_status";
    const std::string opn = "pelmox_uim_open_channel", apdu = "pelmox_uim_send_apdu";
    const std::string close = "pelmox_uim_close_channel";
    const std::string init = ril("init_uim_qmi_client", {"init_uim_qmi_client P"});
    EXPECT_EQ(esim(sim, 4, 1), ril(test, {"try get simcard status"}) + ril(status, {"{"}) + init +
                                   ril(status, {status + " try init_uim_qmi_client P", status + " uim_qmi_client P",
                                                status + " check response", "SIM[0] State = 0", "SIM[1] State = 1",
                                                "}"}) +
                                   ril(test, {"card_status, [0, 1]"}) + "ABSENT,PRESENT\n");
    EXPECT_EQ(esim(sim, 5, 1),
              ril(test, {"Start eUICC Reset"}) + ril(opn, {"{"}) + init +
                  ril(opn, {opn + " try init_uim_qmi_client P", opn + " uim_qmi_client P", opn + " successfully",
                             "}"}) +
                  ril(test, {opn + " res = 0, channel_id = 1"}) +
                  ril(apdu, {"{", close + " uim_qmi_client P", apdu + " apdu_len = 13", apdu + " successfully", "}"}) +
                  ril(test, {apdu + " res = 0", "apdu=08bf34038001019000", apdu + ", nothing to delete."}) +
                  ril(close, {"{", close + " uim_qmi_client P", close + " successfully", "}"}) +
                  ril(test, {close + " res = 0"}) + "value=SUCCEED\n");
    // A close the card rejects still returns 0, without its success line.
    fault(sim, "0x3f", "qmi-error=48");
    std::string out = esim(sim, 5, 1);
    EXPECT_THAT(out, Not(HasSubstr("pelmox_uim_close_channel successfully")));
    EXPECT_THAT(out, HasSubstr("pelmox_uim_close_channel res = 0\nvalue=SUCCEED\n"));
    for (int opt : {0, 6})
        EXPECT_EQ(esim(sim, opt, 1), ril(test, {"invalid input skip"}) + "value=FAILED\n") << opt;

    // A modem restart (or the service going down) closes the channels failed resets left open: channel 1 is free.
    load(sim, R"({"uim": {"slots": {"1": {}, "2": {"selected": "euicc", "euicc": {"eid": ")" + kEid + R"("}}}}})");
    for (int channel = 1; channel <= 3; ++channel) {
        fault(sim, "0x3b", "qmi-error=3");
        out = esim(sim, 5, 1);
        EXPECT_THAT(out, HasSubstr("channel_id = " + std::to_string(channel) + "\n"));
        EXPECT_THAT(out, HasSubstr("pelmox_uim_send_apdu failed\n"));
    }
    // All three open: the card refuses a fourth.
    out = esim(sim, 5, 1);
    EXPECT_THAT(out, HasSubstr("pelmox_uim_open_channel failed\n"));
    EXPECT_THAT(out, HasSubstr("pelmox_uim_open_channel res = -1, channel_id = 255\nvalue=FAILED\n"));

    ASSERT_EQ(sim.ctl({"ssr", "300"}).exit_code, 0);
    out = esim(sim, 5, 1);
    EXPECT_THAT(out, HasSubstr("pelmox_uim_open_channel res = 0, channel_id = 1\n"));
    EXPECT_THAT(out, HasSubstr("delete profile successfully.\n"));
    EXPECT_THAT(out, HasSubstr("value=SUCCEED\n"));

    fault(sim, "0x3b", "qmi-error=3");
    EXPECT_EQ(esim(sim, 5, 0), "value=FAILED\n");
    ASSERT_EQ(sim.ctl({"service", "uim", "down"}).exit_code, 0);
    ASSERT_EQ(sim.ctl({"service", "uim", "up"}).exit_code, 0);
    out = esim(sim, 5, 1);
    EXPECT_THAT(out, HasSubstr("channel_id = 1\n"));
}

TEST(UimEsim, EidAttemptsCheckFileTimeoutAndCardStatus)
{
    SimHandset sim(R"({"uim": {"slots": {"1": {}, "2": {"selected": "euicc",
        "euicc": {"eid": "89049032123451234512345678901234", "eid_ready_after": 2}}}}})");
    // Option 3: two attempts, both not ready; nothing stored.
    sim.clear_journal();
    EXPECT_EQ(esim(sim, 3, 0), "value=FAILED\n");
    EXPECT_EQ(eid_requests(sim), 2u);
    // The third request since power up is answered: remainder 0 fails the check.
    EXPECT_EQ(esim(sim, 3, 0), "eID=89049032123451234512345678901234\n");
    std::string out = esim(sim, 1, 0);
    EXPECT_EQ(out.substr(out.rfind("\n", out.size() - 2) + 1),
              "value=FAILED - 89049032123451234512345678901234\n");
    EXPECT_NE(sim.ctl({"efs", "get", "1", kEidFile}).exit_code, 0);

    // An eUICC answering on the fifth attempt: five polls, one check, one file write, none on the next run.
    load(sim, R"({"uim": {"slots": {"1": {}, "2": {"euicc": {"eid": ")" + kEid + R"(", "eid_ready_after": 4}}}}})");
    sim.clear_journal();
    out = esim(sim, 1, 1);
    for (int i = 0; i < 5; ++i)
        EXPECT_THAT(out, HasSubstr("try get eid loop = " + std::to_string(i) + "\n")) << i;
    EXPECT_THAT(out, Not(HasSubstr("try get eid loop = 5")));
    EXPECT_TRUE(once(out, "check whether eid valid"));
    EXPECT_THAT(out, HasSubstr("RIL[save_eid_to_efs:N]: efs read failed and try save it. error_code : -2\n\n"
                               "RIL[pelmox_efs_write:N]: function entry"));
    EXPECT_THAT(out, HasSubstr("save eid efs result = 0\n"
                               "RIL[save_eid_to_efs:N]: save eid successfully, set IS_EID_SAVE TRUE\n\neID=" + kEid +
                               "\n"));
    EXPECT_EQ(eid_requests(sim), 5u);
    EXPECT_EQ(sim.ctl({"efs", "get", "1", kEidFile}).out, std::string("\x89\x04\x90\x32\x12\x34\x51\x23\x45\x12\x34\x56\x78\x90\x12\x35", 16));

    // Next run: the file reads back, nothing is written; traces off leave only the transport and result lines.
    out = esim(sim, 1, 0);
    EXPECT_EQ(out, k_open + send_ok(16) + send_ok(444) + "eID=" + kEid + "\n");

    // Never ready: 30 attempts, then the timeout.
    load(sim, R"({"uim": {"slots": {"1": {}, "2": {"euicc": {"eid": ")" + kEid + R"(", "eid_ready_after": 1000}}}}})");
    sim.clear_journal();
    out = esim(sim, 1, 1);
    EXPECT_THAT(out, HasSubstr("try get eid loop = 29\n"));
    EXPECT_THAT(out, HasSubstr("RIL[pelmox_cmn_esim_test:N]: get eid timeout\nvalue=FAILED\n"));
    EXPECT_EQ(eid_requests(sim), 30u);

    // Card status: only TLV 0x13 counts; a refusal reads UNKNOWN, only a transport failure fails; a powered-down
    // slot reports an error.
    load(sim, R"({"uim": {"slots": {"1": {"power": "down"}}, "extended_card_status": false}})");
    EXPECT_EQ(esim(sim, 4, 0), "UNKNOWN,UNKNOWN\n");
    load(sim, R"({"uim": {"extended_card_status": true}})");
    EXPECT_EQ(esim(sim, 4, 0), "ERROR,UNKNOWN\n");
    fault(sim, "0x2f", "qmi-error=3");
    EXPECT_EQ(esim(sim, 4, 0), "UNKNOWN,UNKNOWN\n");
    fault(sim, "0x2f", "truncate");
    EXPECT_EQ(esim(sim, 4, 0), "value=FAILED\n");
}

} // namespace
