// uim_test.cpp - the SIM layer in-process: the EID check digit as the
// factory line computes it (letters counted as c - '0'), the failure counter
// and recovery rule of the UIM client against one kvn-sim with faults, and
// the card-command dump against a block length that claims more than arrived.
#include <gtest/gtest.h>

#include <cstdlib>
#include <regex>
#include <string>
#include <vector>

#include "../extend/extend_journal.h"
#include "pelmox_uim.h"

using namespace extend_test;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

::testing::Environment *const g_env = ::testing::AddGlobalTestEnvironment(new SimEnvironment);

// Runs fn with the terminal traces on and returns what it printed.
template <typename F> std::string traced(F fn)
{
    setenv("PELMOX_SHELL_PRINT_FLAG", "1", 1);
    CaptureStdout();
    fn();
    std::string out = GetCapturedStdout();
    setenv("PELMOX_SHELL_PRINT_FLAG", "0", 1);
    return out;
}

TEST(UimEid, CheckDigitCountsLettersAsTheirCharacterMinusZero)
{
    struct Case {
        const char *eid;
        int valid;
        const char *verdict; // the trace line after "check whether eid valid"
    } cases[] = {
        {"89049032123451234512345678901235", 1, "eid validate pass"},
        // 'd' counts as 52: remainder 1 (as a hex digit, 13, it would be 96).
        {"890490321234512345123456789012d0", 1, "eid validate pass"},
        // Valid if 'd' were 13; as 52 the remainder is 3.
        {"890490321234512345123456789012d2", 0, "eid validate failed, result = 3"},
        {"89049032123451234512345678901234", 0, "eid validate failed, result = 0"},
    };
    for (const auto &c : cases) {
        int got = -1;
        std::string out = traced([&] { got = is_eid_valid(c.eid); });
        EXPECT_EQ(got, c.valid) << c.eid;
        EXPECT_EQ(kvn_test::mask_trace_lines(out),
                  std::string("RIL[is_eid_valid:N]: check whether eid valid\n\n") + "RIL[is_eid_valid:N]: " +
                      c.verdict + "\n\n")
            << c.eid;
    }
}

// The dump prints the claimed length but never reads past what arrived: the
// reply sits at the very end of its allocation, so a read past it is caught.
TEST(UimCardDump, StopsAtTheReceivedBytesWhateverTheBlockClaims)
{
    struct Case {
        uint32_t claimed;
        int32_t received;
        const char *out;
    } cases[] = {
        {4, 20, "\ndata len(12)\ndata: 27 00 00 00 04 00 00 00 01 00 00 00\n"},
        {1000, 20, "\ndata len(1008)\ndata: 27 00 00 00 E8 03 00 00 01 00 00 00\n"},
        {0xFFFFFFF8u, 16, "\ndata len(0)\ndata:\n"},
        {0xFFFFFFFFu, 14, "\ndata len(8)\ndata: 27 00 00 00 FF FF\n"},
    };
    for (const auto &c : cases) {
        std::vector<uint8_t> bytes = {2, 0, 0, 0, 0, 0, 0, 0, 0x27, 0, 0, 0};
        for (int i = 0; i < 4; ++i)
            bytes.push_back(uint8_t(c.claimed >> (8 * i)));
        bytes.insert(bytes.end(), {1, 0, 0, 0});
        bytes.resize(size_t(c.received));
        std::vector<uint8_t> exact(bytes); // capacity == received
        exact.shrink_to_fit();
        CaptureStdout();
        pelmox_cmn_dump_block(exact.data(), c.received);
        EXPECT_EQ(GetCapturedStdout(), c.out) << c.claimed << "/" << c.received;
    }
}

// What one power request's traces say about the counter and the client.
struct PowerOutcome {
    int res;
    int failed_cnt;
    bool released;    // "QMI error, try recovery" ended the request
    bool new_client;  // the guard created a client first
};

PowerOutcome power_down_slot1()
{
    power_request req = {0, 1, 0};
    int res = 0;
    std::string out = traced([&] { res = pelmox_uim_request_uicc_power_ex(&req); });
    std::smatch m;
    static const std::regex cnt(R"(uicc_power_ex res = -?\d+, failed_cnt = (\d+))");
    int failed = std::regex_search(out, m, cnt) ? std::stoi(m[1]) : -1;
    return {res, failed, out.find("QMI error, try recovery") != std::string::npos,
            out.find("try init_uim_qmi_client") != std::string::npos};
}

// Only transport failures count; a success does not clear the counter; the
// third failure releases the client; only the next successful init clears
// it. A failed QMI result (the card's refusal) never counts.
TEST(UimRecovery, OnlyTransportFailuresCountAndOnlyInitClears)
{
    ASSERT_TRUE(sim().started());
    struct Step {
        const char *fault; // fault on the next power off, or nullptr
        bool transport_failure;
        int failed_cnt;
        bool released;
        bool new_client;
    } steps[] = {
        {nullptr, false, 0, false, true},        // first request creates the client
        {"qmi-error=48", false, 0, false, false}, // a refusal is not counted
        {"truncate", true, 1, false, false},
        {nullptr, false, 1, false, false},        // success keeps the count
        {"truncate", true, 2, false, false},
        {"truncate", true, 3, true, false},       // third failure: released
        {nullptr, false, 0, false, true},         // new client, counter cleared
        {"drop", true, 1, true, false},           // -2 releases at once
        {nullptr, false, 0, false, true},
    };
    int i = 0;
    for (const auto &s : steps) {
        if (s.fault) {
            auto r = sim().ctl({"fault", "uim", "0x30", s.fault});
            ASSERT_EQ(r.exit_code, 0) << r.err;
        }
        PowerOutcome o = power_down_slot1();
        EXPECT_EQ(o.res != 0, s.transport_failure) << "step " << i << " res " << o.res;
        EXPECT_EQ(o.failed_cnt, s.failed_cnt) << "step " << i;
        EXPECT_EQ(o.released, s.released) << "step " << i;
        EXPECT_EQ(o.new_client, s.new_client) << "step " << i;
        ++i;
    }
    ASSERT_EQ(sim().ctl({"fault", "clear"}).exit_code, 0);
}

// The card's refusals as the request functions report them: the open and
// the APDU fail with -1, a rejected close still returns 0 without its
// success line. The default handset's slot 2 runs on its physical card
// until a power cycle moves it to the eUICC.
TEST(UimChannels, RefusalsComeBackAsTheFunctionsPromise)
{
    ASSERT_TRUE(sim().started());
    uint8_t channel = 255;
    pelmox_uim_open_req on_physical = {2, 1};
    EXPECT_EQ(pelmox_uim_open_channel(&on_physical, &channel), -1);
    EXPECT_EQ(channel, 255);
    pelmox_uim_open_req no_slot = {3, 1};
    EXPECT_EQ(pelmox_uim_open_channel(&no_slot, &channel), -1);

    // Switch slot 2 to its eUICC, as the eSIM test does.
    ASSERT_EQ(sim().ctl({"fault", "clear"}).exit_code, 0);
    const char *argv[] = {"kvn", "5", "10", "1", "1"}; // debug_on 1: flags kept
    CaptureStdout();
    pelmox_cmn_esim_test(5, const_cast<char **>(argv));
    EXPECT_NE(GetCapturedStdout().find("eID=89049032123451234512345678901235\n"), std::string::npos);

    pelmox_uim_apdu_req apdu = {2, 1, 5, {0x80, 0xCA, 0x9F, 0x7F, 0x00}};
    pelmox_uim_apdu_rsp rsp = {};
    EXPECT_EQ(pelmox_uim_send_apdu(&apdu, &rsp), -1) << "channel 1 is not open yet";
    pelmox_uim_open_req open = {2, 1};
    ASSERT_EQ(pelmox_uim_open_channel(&open, &channel), 0);
    EXPECT_EQ(channel, 1);
    apdu.channel_id = 2;
    EXPECT_EQ(pelmox_uim_send_apdu(&apdu, &rsp), -1) << "channel 2 is not open";
    apdu.channel_id = 1;
    ASSERT_EQ(pelmox_uim_send_apdu(&apdu, &rsp), 0);
    EXPECT_EQ(rsp.rsp_len, 2);
    EXPECT_EQ(rsp.rsp[0], 0x6D);

    pelmox_uim_close_req wrong = {2, 2};
    std::string out = traced([&] { EXPECT_EQ(pelmox_uim_close_channel(&wrong), 0); });
    EXPECT_EQ(out.find("pelmox_uim_close_channel successfully"), std::string::npos) << out;
    pelmox_uim_close_req right = {2, 1};
    out = traced([&] { EXPECT_EQ(pelmox_uim_close_channel(&right), 0); });
    EXPECT_NE(out.find("pelmox_uim_close_channel successfully"), std::string::npos) << out;
    EXPECT_EQ(pelmox_uim_send_apdu(&apdu, &rsp), -1) << "closed";
}

} // namespace
