// uim_test.cpp - the SIM layer in-process: EID check digit, card-command dump, recovery and channels on a kvn-sim.

#include <regex>

#include "../extend/extend_journal.h"
#include "pelmox_uim.h"

using namespace extend_test;

namespace {

::testing::Environment *const g_env = ::testing::AddGlobalTestEnvironment(new SimEnvironment);

// The factory line's check digit counts letters as c - '0' ('d' is 52, not 13).
TEST(UimEid, CheckDigitCountsLettersAsTheirCharacterMinusZero)
{
    const std::tuple<const char *, int, const char *> cases[] = { // EID, valid, verdict line
        {"89049032123451234512345678901235", 1, "eid validate pass"},
        {"890490321234512345123456789012d0", 1, "eid validate pass"},              // would fail were 'd' 13
        {"890490321234512345123456789012d2", 0, "eid validate failed, result = 3"}, // would pass were 'd' 13
        {"89049032123451234512345678901234", 0, "eid validate failed, result = 0"},
    };
    const std::string trace = "RIL[is_eid_valid:N]: ";
    for (const auto &[eid, valid, verdict] : cases) {
        int got = -1;
        std::string out = kvn_test::mask_trace_lines(captured([&, eid = eid] { got = is_eid_valid(eid); }, true));
        EXPECT_EQ(std::pair(got, out), std::pair(valid, trace + "check whether eid valid\n\n" + trace + verdict + "\n\n"))
            << eid;
    }
}

// The dump prints the claimed length but reads only what arrived (the block ends its allocation, for ASan).
TEST(UimCardDump, StopsAtTheReceivedBytesWhateverTheBlockClaims)
{
    const std::tuple<uint32_t, int32_t, const char *> cases[] = { // claimed, received, printed
        {4, 20, "\ndata len(12)\ndata: 27 00 00 00 04 00 00 00 01 00 00 00\n"},
        {1000, 20, "\ndata len(1008)\ndata: 27 00 00 00 E8 03 00 00 01 00 00 00\n"},
        {0xFFFFFFF8u, 16, "\ndata len(0)\ndata:\n"},
        {0xFFFFFFFFu, 14, "\ndata len(8)\ndata: 27 00 00 00 FF FF\n"},
    };
    for (const auto &[claimed, received, out] : cases) {
        Bytes block{2, 0, 0, 0, 0, 0, 0, 0, 0x27, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0};
        memcpy(&block[12], &claimed, 4);
        block.resize(size_t(received));
        block.shrink_to_fit(); // capacity == received
        EXPECT_EQ(captured([&, n = received] { pelmox_cmn_dump_block(block.data(), n); }), out) << claimed;
    }
}

// What one power request's traces say about the counter and the client.
struct PowerOutcome {
    bool failed;     // the request returned an error
    int failed_cnt;  // as the trace reports it
    bool released;   // "QMI error, try recovery" ended the request
    bool new_client; // the guard created a client first
    bool operator==(const PowerOutcome &) const = default;
};

PowerOutcome power_down_slot1()
{
    power_request req = {0, 1, 0};
    int res = 0;
    std::string out = captured([&] { res = pelmox_uim_request_uicc_power_ex(&req); }, true);
    std::smatch m;
    static const std::regex cnt(R"(uicc_power_ex res = -?\d+, failed_cnt = (\d+))");
    int failed = std::regex_search(out, m, cnt) ? std::stoi(m[1]) : -1;
    return {res != 0, failed, out.find("QMI error, try recovery") != std::string::npos,
            out.find("try init_uim_qmi_client") != std::string::npos};
}

// Only transport failures count (not the card's refusals), the third releases the client, and only the next
// successful init clears the counter.
TEST(UimRecovery, OnlyTransportFailuresCountAndOnlyInitClears)
{
    ASSERT_TRUE(sim().started());
    const std::pair<const char *, PowerOutcome> steps[] = {
        {nullptr, {false, 0, false, true}},        // first request creates the client
        {"qmi-error=48", {false, 0, false, false}}, // a refusal is not counted
        {"truncate", {true, 1, false, false}},
        {nullptr, {false, 1, false, false}}, // success keeps the count
        {"truncate", {true, 2, false, false}},
        {"truncate", {true, 3, true, false}}, // third failure: released
        {nullptr, {false, 0, false, true}},   // new client, counter cleared
        {"drop", {true, 1, true, false}},     // -2 releases at once
        {nullptr, {false, 0, false, true}},
    };
    for (size_t i = 0; i < std::size(steps); ++i) {
        if (steps[i].first) {
            ASSERT_EQ(sim().ctl({"fault", "uim", "0x30", steps[i].first}).exit_code, 0);
        }
        EXPECT_EQ(power_down_slot1(), steps[i].second) << "step " << i;
    }
    ASSERT_EQ(sim().ctl({"fault", "clear"}).exit_code, 0);
}

// The card's refusals: open and APDU fail with -1, a rejected close returns 0 without its success line. Slot 2
// runs on its physical card until a power cycle moves it to the eUICC.
TEST(UimChannels, RefusalsComeBackAsTheFunctionsPromise)
{
    ASSERT_TRUE(sim().started());
    uint8_t channel = 255;
    auto open = [&](uint8_t slot) {
        pelmox_uim_open_req req = {slot, 1};
        return pelmox_uim_open_channel(&req, &channel);
    };
    EXPECT_EQ(open(2), -1) << "physical card";
    EXPECT_EQ(channel, 255);
    EXPECT_EQ(open(3), -1) << "no such slot";

    ASSERT_EQ(sim().ctl({"fault", "clear"}).exit_code, 0);
    const char *argv[] = {"kvn", "5", "10", "1", "1"}; // the eSIM test moves slot 2 to its eUICC
    std::string out = captured([&] { pelmox_cmn_esim_test(5, const_cast<char **>(argv)); });
    EXPECT_NE(out.find("eID=89049032123451234512345678901235\n"), std::string::npos);

    pelmox_uim_apdu_req apdu = {2, 1, 5, {0x80, 0xCA, 0x9F, 0x7F, 0x00}};
    pelmox_uim_apdu_rsp rsp = {};
    EXPECT_EQ(pelmox_uim_send_apdu(&apdu, &rsp), -1) << "channel 1 is not open yet";
    ASSERT_EQ(open(2), 0);
    EXPECT_EQ(channel, 1);
    apdu.channel_id = 2;
    EXPECT_EQ(pelmox_uim_send_apdu(&apdu, &rsp), -1) << "channel 2 is not open";
    apdu.channel_id = 1;
    ASSERT_EQ(pelmox_uim_send_apdu(&apdu, &rsp), 0);
    EXPECT_EQ(Bytes(rsp.rsp, rsp.rsp + rsp.rsp_len), (Bytes{0x6D, 0x00}));

    for (uint8_t ch : {2, 1}) { // not open, then open
        pelmox_uim_close_req req = {2, ch};
        out = captured([&] { EXPECT_EQ(pelmox_uim_close_channel(&req), 0); }, true);
        EXPECT_EQ(out.find("pelmox_uim_close_channel successfully") != std::string::npos, ch == 1) << out;
    }
    EXPECT_EQ(pelmox_uim_send_apdu(&apdu, &rsp), -1) << "closed";
}

} // namespace
