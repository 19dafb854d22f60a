// sim_modem_stats_test.cpp - kvn-sim's statistics answers in-process: command
// 4 request types 20 and 27 at the payload level, the `modem_stats` scenario
// key (merging sub-key by sub-key, and its bounds), and faults that wait for
// `after` matching requests before they apply.
#include <gtest/gtest.h>

#include "handset.h"
#include "process.h"
#include "scenario.h"
#include "services/services.h"

using namespace kvn_sim;

namespace {

struct Sim {
    kvn_test::TempDir dir;
    Handset h{dir.path()};
    Sim()
    {
        std::string err;
        EXPECT_TRUE(h.init(&err)) << err;
        register_all_services(h);
    }
    Bytes request(uint32_t type) const
    {
        uint8_t payload[512] = {static_cast<uint8_t>(type)};
        ExtendReply r = h.extend4.dispatch(payload, sizeof(payload), 1);
        EXPECT_EQ(r.result, 0u);
        return r.data;
    }
    bool load(const std::string &text, std::string *err) { return apply_scenario(h, nlohmann::json::parse(text), err); }
};

TEST(ModemStats, DefaultsAndMergedAnswers)
{
    Sim s;
    Bytes block = s.request(20);
    ASSERT_EQ(block.size(), 8u + 221u);
    EXPECT_EQ(Bytes(block.begin(), block.begin() + 11), (Bytes{20, 0, 0, 0, 0, 0, 0, 0, 4, 1, 0}));
    EXPECT_EQ(s.request(27), (Bytes{27, 0, 0, 0, 0, 0, 0, 0, 0, 0}));

    std::string err;
    ASSERT_TRUE(s.load(R"({"modem_stats": {"unsupported_log_ids": [45248, 4981], "debug_info_result": -5}})", &err))
        << err;
    ASSERT_TRUE(s.load(R"({"modem_stats": {"debug_info": "02 01", "unsupported_log_ids_result": 7}})", &err)) << err;
    EXPECT_EQ(s.request(20), (Bytes{20, 0, 0, 0, 0xfb, 0xff, 0xff, 0xff, 2, 1}));
    EXPECT_EQ(s.request(27), (Bytes{27, 0, 0, 0, 7, 0, 0, 0, 2, 0, 0xc0, 0xb0, 0x75, 0x13}));
}

TEST(ModemStats, ScenarioBounds)
{
    std::string ids249, ids250;
    for (int i = 0; i < 250; ++i)
        (i < 249 ? ids249 : ids250) += std::to_string(i) + ",";
    ids250 = ids249 + "0";
    ids249.pop_back();
    const struct {
        std::string modem_stats;
        bool ok;
        const char *names;
    } cases[] = {
        {"{\"debug_info\": \"" + std::string(1000, 'a') + "\"}", true, ""},
        {"{\"debug_info\": \"" + std::string(1002, 'a') + "\"}", false, "\"modem_stats.debug_info\""},
        {R"({"debug_info": ""})", false, "\"modem_stats.debug_info\""},
        {"{\"unsupported_log_ids\": [" + ids249 + "]}", true, ""},
        {"{\"unsupported_log_ids\": [" + ids250 + "]}", false, "\"modem_stats.unsupported_log_ids\""},
        {R"({"unsupported_log_ids": [65536]})", false, "\"modem_stats.unsupported_log_ids[0]\""},
        {R"({"debug_info_result": -2147483648, "unsupported_log_ids_result": 2147483647})", true, ""},
        {R"({"debug_info_result": 2147483648})", false, "\"modem_stats.debug_info_result\""},
        {R"({"unsupported_log_ids_result": "1"})", false, "\"modem_stats.unsupported_log_ids_result\""},
        {R"({"debug": "00"})", false, "\"modem_stats.debug\""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.modem_stats.substr(0, 60));
        Sim s;
        std::string err;
        EXPECT_EQ(s.load("{\"modem_stats\": " + c.modem_stats + "}", &err), c.ok) << err;
        EXPECT_NE(err.find(c.names), std::string::npos) << err;
        if (!c.ok) {
            EXPECT_EQ(s.request(20).size(), 8u + 221u) << "a refused document changes nothing";
        }
    }
}

// Faults of one message: every matching request counts down each waiting
// `after`; the first fault not waiting applies for its count.
TEST(Faults, AfterServesTheFirstMatchingRequests)
{
    Faults f;
    f.add({kServiceExtend, 2, FaultKind::Drop, 0, 2, 1});
    f.add({kServiceExtend, 2, FaultKind::NoReply, 0, 1, 4});
    std::string seen;
    for (int i = 0; i < 6; ++i) {
        EXPECT_FALSE(f.take(kServiceExtend, 3)) << "another message does not count";
        auto hit = f.take(kServiceExtend, 2);
        seen += hit ? fault_kind_text(*hit) + " " : "- ";
    }
    EXPECT_EQ(seen, "- drop drop - no-reply - ");
    EXPECT_TRUE(f.all().empty());

    Sim s;
    std::string err;
    ASSERT_TRUE(s.load(R"({"faults": [{"service": "extend", "msg": 2, "kind": "drop", "after": 3}]})", &err)) << err;
    ASSERT_EQ(s.h.faults.all().size(), 1u);
    EXPECT_EQ(s.h.faults.all()[0].after, 3u);
}

} // namespace
