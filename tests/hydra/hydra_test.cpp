// hydra_test.cpp - the hydra modem API in-process: the pure parts alone, the service clients against one kvn-sim.

#include <mutex>

#include "../extend/extend_journal.h"
#include "hydra_clients.h"
#include "hydra_log.h"
#include "modem_api.h"
#include "network_access_service_v01.h"
#include "pelmox_test_modem_stats.h"
#include "vs_client.h"
#include "vs_service_v01.h"

using namespace extend_test;

namespace {

::testing::Environment *const g_env = ::testing::AddGlobalTestEnvironment(new SimEnvironment);

// What the callbacks saw, under g_mu.
std::mutex g_mu;
std::vector<std::pair<uint32_t, Bytes>> g_events;
std::vector<std::pair<int, int>> g_statuses; // (code, client type)

void record_event(uint32_t id, void *rec, uint32_t len)
{
    std::lock_guard<std::mutex> l(g_mu);
    auto *p = static_cast<uint8_t *>(rec);
    g_events.push_back({id, Bytes(p, p + len)});
}

void record_status(int code, int type)
{
    std::lock_guard<std::mutex> l(g_mu);
    g_statuses.push_back({code, type});
}

size_t events_seen()
{
    std::lock_guard<std::mutex> l(g_mu);
    return g_events.size();
}

// HYDRA log lines since the current test began (the tests share one handset).
size_t g_log_base = 0;
std::vector<std::string> fresh_log()
{
    auto all = hydra_log(sim());
    return std::vector<std::string>(all.begin() + std::ptrdiff_t(std::min(g_log_base, all.size())), all.end());
}

class HydraSimTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(sim().started());
        ASSERT_EQ(sim().ctl({"service", "all", "up"}).exit_code, 0);
        g_log_base = hydra_log(sim()).size();
        {
            std::lock_guard<std::mutex> l(g_mu);
            g_events.clear();
            g_statuses.clear();
        }
        modem_api_init();
    }
    void TearDown() override
    {
        for (int id = 0; id < MODEM_API_MAX_CLIENTS; ++id)
            modem_api_free_client(id);
        modem_api_release();
    }
    uint32_t open(uint32_t type)
    {
        uint32_t id = 0xFFFF;
        EXPECT_EQ(modem_api_init_client(type, record_event, record_status, &id), 0u) << "type " << type;
        return id;
    }
};

/* ---- pure functions ---- */

TEST(ModemApiErrorMap, TransportAndQmiErrors)
{
    const struct {
        int32_t transport;
        uint32_t result, error, code;
    } cases[] = {
        {0, 0, 0, 0},   {-2, 0, 0, 0},  {0, 0, 0x34, 0}, {0, 2, 0, 1},   {1, 0, 0, 1},   {-6, 0, 0, 1},  {-51, 0, 0, 1},
        {-5, 0, 0, 12}, {-4, 0, 0, 1},  {-3, 0, 0, 11},  {-1, 0, 0, 12}, {0, 1, 0, 0},   {0, 1, 26, 0},  {0, 1, 4, 10},
        {0, 1, 17, 5},  {0, 1, 19, 5},  {-2, 1, 48, 5},  {0, 1, 49, 5},  {0, 1, 24, 4},  {0, 1, 42, 4},  {0, 1, 77, 4},
        {0, 1, 94, 4},  {0, 1, 52, 8},  {0, 1, 1, 1},    {0, 1, 71, 1},  {0, 1, 95, 1},  {0, 1, 0x10000, 1},
    };
    for (const auto &c : cases) {
        qmi_response_type_v01 resp{qmi_result_type_v01(c.result), qmi_error_type_v01(c.error)};
        EXPECT_EQ(modem_api_map_qmi_error_to_modem_api(c.transport, &resp), c.code)
            << c.transport << " " << c.result << " " << c.error;
    }
    EXPECT_EQ(modem_api_map_qmi_error_to_modem_api(0, nullptr), 1u) << "no response to read";
}

// Only the exact versions give the object; each message used, at its fullest, encodes within its largest length.
// The event builder clamps counts and lengths to the event records' arrays; no TLV 0x11 gives 0xFFFFFFFF.
TEST(VsMessages, FullestEncodeWithinTheLargestLengthsAndEventsClamp)
{
    using V = std::vector<uint32_t>;
    EXPECT_EQ(vs_get_service_object_internal_v01(1, 1, 6), nullptr);
    EXPECT_EQ(vs_get_service_object_internal_v01(1, 2, 5), nullptr);
    auto *obj = vs_get_service_object_internal_v01(1, 2, 6);
    ASSERT_NE(obj, nullptr);
    EXPECT_EQ(obj->max_msg_len, 10672u) << "the fullest report below";

    vs_set_feature_status_req_msg_v01 feat{0xFFFFFFFF, 0xFF, 1, 0xFF};
    vs_get_stats_param_req_msg_v01 req{};
    req.id_num = 10;
    auto resp = std::make_unique<vs_get_stats_param_resp_msg_v01>();
    auto report = std::make_unique<vs_stats_report_ind_msg_v01>();
    resp->records_valid = report->extra_valid = report->tail_valid = 1;
    resp->records_len = report->records_len = 10;
    report->extra_len = 5;
    for (auto *recs : {resp->records, report->records, report->extra})
        for (size_t i = 0; i < (recs == report->extra ? 5 : 10); ++i)
            recs[i].data_len = 700;
    vs_stats_values_ind_msg_v01 values{};
    values.values_len = 100;
    vs_feature_status_ind_msg_v01 fs{};
    vs_state_ind_msg_v01 st{};
    const std::tuple<qmi_idl_type_of_message_type, uint16_t, const void *, uint32_t, uint32_t> cases[] = {
        {QMI_IDL_REQUEST, 0x0003, &feat, sizeof(feat), 15},
        {QMI_IDL_REQUEST, 0x0207, &req, sizeof(req), 54},
        {QMI_IDL_RESPONSE, 0x0207, resp.get(), sizeof(*resp), 7111},
        {QMI_IDL_INDICATION, 0x0004, &fs, sizeof(fs), 15},
        {QMI_IDL_INDICATION, 0x0203, report.get(), sizeof(*report), 10672},
        {QMI_IDL_INDICATION, 0x0204, &values, sizeof(values), 121},
        {QMI_IDL_INDICATION, 0x0601, &st, sizeof(st), 4},
    };
    Bytes wire(20000);
    for (const auto &[kind, id, rec, rec_len, encoded] : cases) {
        uint32_t n = 0;
        ASSERT_EQ(qmi_idl_message_encode(obj, kind, id, rec, rec_len, wire.data(), uint32_t(wire.size()), &n), 0)
            << std::hex << id;
        EXPECT_EQ(n, encoded) << std::hex << id;
    }

    report->tail_valid = 0;
    report->records_len = 12;
    report->records[9] = {1, 0, 82, 1000, {}};
    report->records[9].data[699] = 0x5A;
    report->extra_len = 9;
    auto out = std::make_unique<vs_event_stats_report>();
    uint32_t len = 0;
    ASSERT_EQ(vs_client_build_event(0x0203, report.get(), out.get(), &len), 3u);
    const auto &r9 = out->records[9];
    EXPECT_EQ((V{len, out->records_num, r9.data_len, r9.data[699], r9.sub, r9.id, out->extra_num, out->tail}),
              (V{10696, 10, 700, 0x5A, 1, 82, 5, 0xFFFFFFFF}));
    report->extra_valid = 0;
    report->tail_valid = 1;
    report->tail = 9;
    vs_client_build_event(0x0203, report.get(), out.get(), &len);
    EXPECT_EQ((V{out->extra_num, out->tail}), (V{0, 9}));

    values.values_len = 150;
    values.values[99] = 200;
    values.first = 3;
    vs_event_stats_values ev{};
    ASSERT_EQ(vs_client_build_event(0x0204, &values, &ev, &len), 4u);
    EXPECT_EQ((V{len, ev.values_num, ev.values[99], uint32_t(ev.first)}), (V{412, 100, 200, 3}));
    EXPECT_EQ(vs_client_build_event(0x0005, &values, &ev, &len), 0u);
}

// Each statistic with a layout prints at its full length (the lines: hydra_e2e_test) and is refused one byte
// short; an id without a layout prints nothing.
TEST(ModemStatsLayouts, EachIdNeedsItsWholeLayout)
{
    const std::pair<uint32_t, size_t> cases[] = {{82, 75}, {103, 75}, {108, 75}, {94, 20}, {112, 20}, {113, 16},
                                                 {135, 24}, {6, 24},  {7, 24},   {110, 9},  {111, 9}, {100, 8}};
    const Bytes zeros(700, 0);
    auto print = [&](uint32_t id, size_t len, int &rc) {
        auto id_type = modem_stats_data_id_e_type(id);
        return captured([&] { rc = pelmox_test_qmi_modem_stats_print_data(id_type, zeros.data(), len); });
    };
    int rc = -1;
    for (const auto &[id, whole] : cases) {
        EXPECT_EQ(print(id, whole, rc).substr(0, 1), "A") << id;
        EXPECT_EQ(rc, 0) << id;
        EXPECT_EQ(print(id, whole - 1, rc).substr(0, 18), "g_hydra_data_left(") << id;
        EXPECT_EQ(rc, 1) << id;
    }
    EXPECT_EQ(print(5, 700, rc), "");
    EXPECT_EQ(rc, 1);
}

/* ---- against the simulated handset ---- */

// A second vs client is refused without disturbing the first; bad arguments and ids are refused unsent; up to
// ten ids go out behind their count; freeing an empty slot only logs.
TEST_F(HydraSimTest, RefusalsLeaveTheOpenClientWorking)
{
    EXPECT_EQ(open(MODEM_API_CLIENT_VS), 0u);
    uint32_t other = 77;
    EXPECT_EQ(modem_api_init_client(MODEM_API_CLIENT_VS, nullptr, nullptr, &other), 15u);
    EXPECT_EQ(other, 77u);
    EXPECT_EQ(modem_api_init_client(4, nullptr, nullptr, &other), 4u);
    uint32_t ids[11] = {82};
    modem_stats_param_result result{};
    sim().clear_journal();
    EXPECT_EQ(modem_api_get_stats_parameter(0, 0, 1, 0, ids, &result), 5u);
    EXPECT_EQ(modem_api_get_stats_parameter(0, 0, 1, 1, nullptr, &result), 5u);
    EXPECT_EQ(modem_api_get_stats_parameter(0, 0, 1, 1, ids, nullptr), 5u);
    EXPECT_EQ(modem_api_get_stats_parameter(-1, 0, 1, 1, ids, &result), 7u);
    EXPECT_EQ(modem_api_get_stats_parameter(3, 0, 1, 1, ids, &result), 7u);
    EXPECT_EQ(modem_api_set_hydra_feature_status(3, 2, 1, 1, 1), 7u);
    EXPECT_TRUE(requests(sim(), 0xE4).empty());
    EXPECT_EQ(modem_api_util_enable_networking_indications(0, 0), 7u) << "not a NAS client";
    EXPECT_EQ(modem_api_util_enable_networking_indications(0, 2), 7u);
    EXPECT_TRUE(requests(sim(), 3).empty());
    for (int32_t bad : {-1, 5, 10})
        EXPECT_EQ(modem_api_client_status(bad), -1) << bad;
    EXPECT_EQ(modem_api_free_client(-1), 7u);
    EXPECT_EQ(modem_api_free_client(5), 0u);
    EXPECT_EQ(modem_api_free_client(10), 0u);
    EXPECT_TRUE(wait_until([] { return count_lines(fresh_log(), "modem_api_free_client: client already freed") == 2; }));

    ASSERT_EQ(modem_api_get_stats_parameter(0, 1, 9, 2, (const uint32_t[]){82, 94}, &result), 0u);
    EXPECT_EQ((std::vector<uint32_t>{result.id_num, result.entries[0].id, result.entries[0].sub,
                                     result.entries[0].data_len, result.entries[1].id}),
              (std::vector<uint32_t>{2, 82, 1, 75, 94}));

    // The id count's bound: nine and ten go out behind their count, eleven are refused.
    for (int32_t n : {9, 10, 11}) {
        std::vector<uint32_t> many(static_cast<size_t>(n));
        std::string tlv = n == 9 ? "09" : "0a";
        for (int32_t i = 0; i < n; ++i) {
            many[size_t(i)] = uint32_t(82 + i);
            tlv += to_hex({uint8_t(82 + i), 0, 0, 0});
        }
        sim().clear_journal();
        EXPECT_EQ(modem_api_get_stats_parameter(0, 0, 1, n, many.data(), &result), n <= 10 ? 0u : 5u) << n;
        auto reqs = requests(sim(), 0xE4);
        ASSERT_EQ(reqs.size(), n <= 10 ? 1u : 0u) << n;
        if (n <= 10) {
            EXPECT_EQ(reqs[0].tlvs[3], tlv);
        }
    }

    // A SAR client is not a statistics client.
    uint32_t sar = open(MODEM_API_CLIENT_SAR);
    EXPECT_EQ(modem_api_get_stats_parameter(int32_t(sar), 0, 1, 1, ids, &result), 7u);
}

// Replies the codec refuses (over 10 records, data over 700 bytes) are code 1, the caller's result untouched;
// the modem's refusals go through the error map.
TEST_F(HydraSimTest, UndecodableRepliesAndModemRefusals)
{
    std::string twelve;
    for (int i = 0; i < 12; ++i)
        twelve += std::string(i ? "," : "") + R"({"sub": 0, "id": 82, "data": "01"})";
    load(sim(), R"({"vs_stats": {"0": {"82": {"records": [)" + twelve + R"(]},
                   "94": {"records": [{"sub": 0, "id": 94, "data": ")" + std::string(2000, 'a') + R"("}]}}}})");
    uint32_t id = open(MODEM_API_CLIENT_VS);
    auto result = std::make_unique<modem_stats_param_result>();
    memset(result.get(), 0xAB, sizeof(*result));
    for (uint32_t stat : {82u, 94u}) {
        EXPECT_EQ(modem_api_get_stats_parameter(int32_t(id), 0, 1, 1, &stat, result.get()), 1u) << stat;
        EXPECT_EQ(result->id_num, 0xABABABABu);
    }
    const std::pair<const char *, uint32_t> refusals[] = {{"qmi-error=26", 0}, {"qmi-error=4", 10},
                                                          {"qmi-error=52", 8}, {"qmi-error=94", 4},
                                                          {"qmi-error=48", 5}, {"qmi-error=71", 1},
                                                          {"truncate", 1}};
    for (const auto &[fault, code] : refusals) {
        ASSERT_EQ(sim().ctl({"fault", "vs", "3", fault}).exit_code, 0);
        EXPECT_EQ(modem_api_set_hydra_feature_status(int32_t(id), 2, 1, 1, 1), code) << fault;
    }
}

// Indications reach the event callback as event records; one the codec refuses (150 values) is logged, dropped.
TEST_F(HydraSimTest, IndicationsBecomeEvents)
{
    open(MODEM_API_CLIENT_VS);
    const std::pair<const char *, std::string> inds[] = {
        {"0x0204", "0104000100000002970096" + std::string(300, '1') + "03020003000402000400"},
        {"0x0004", "010400785634120201000503010000"},
        {"0x0601", "01010007"},
        // TLV 0x01 = 9; TLV 0x02 one record {sub 1, id 82, 2 bytes}; no TLV 0x11.
        {"0x0203", "01040009000000020d00010100000052000000" "0200aabb"},
    };
    for (const auto &[msg, hex] : inds)
        EXPECT_EQ(sim().ctl({"indicate", "vs", msg, hex}).out, "indication sent to 1 client(s)\n") << msg;
    ASSERT_TRUE(wait_until([] { return events_seen() >= 3; })) << sim().ctl({"logcat"}).out;
    std::lock_guard<std::mutex> l(g_mu);
    ASSERT_EQ(g_events.size(), 3u);
    EXPECT_EQ(g_events[0], std::make_pair(2u, Bytes{0x78, 0x56, 0x34, 0x12, 1, 0, 0, 0}));
    EXPECT_EQ(g_events[1], std::make_pair(5u, Bytes{7}));
    ASSERT_EQ(g_events[2].first, 3u);
    ASSERT_EQ(g_events[2].second.size(), sizeof(vs_event_stats_report));
    const auto *rep = reinterpret_cast<const vs_event_stats_report *>(g_events[2].second.data());
    const auto &r0 = rep->records[0];
    EXPECT_EQ((std::vector<uint32_t>{rep->value, rep->records_num, r0.id, r0.sub, r0.data_len, r0.data[1], rep->tail}),
              (std::vector<uint32_t>{9, 1, 82, 1, 2, 0xBB, 0xFFFFFFFF}));
    EXPECT_EQ(count_lines(fresh_log(), "vs_client_unsol_ind_cb: Indication decode failed for msg 0x204 with error -51"),
              1u);
}

// The status codes of one client type as the log shows them, in order.
std::vector<int> statuses_logged(int type)
{
    std::vector<int> out;
    std::string key = "modem_api_operational_status_cb: client type " + std::to_string(type) + ", client id ";
    for (const auto &l : fresh_log())
        if (l.rfind(key, 0) == 0)
            out.push_back(std::stoi(l.substr(l.rfind(' ') + 1)));
    return out;
}

// SAR and both NAS clients connect (NAS binds its subscription, registers only TLV 0x13), go through 4, 5, 6
// and 3 when the modem restarts, and bind again.
TEST_F(HydraSimTest, SarAndNasSurviveAModemRestart)
{
    sim().clear_journal();
    uint32_t ids[3] = {open(MODEM_API_CLIENT_SAR), open(MODEM_API_CLIENT_NAS_0), open(MODEM_API_CLIENT_NAS_1)};
    // Per client: bind, the connect's registration, the API's registration.
    std::vector<Request> want;
    for (const char *sub : {"00", "01"})
        want.insert(want.end(), {{0x45, {{1, sub}}}, {0x03, {{0x13, "00"}}}, {0x03, {{0x13, "00"}}}});
    EXPECT_EQ(requests(sim(), 3), want);
    for (uint32_t id : ids)
        EXPECT_EQ(modem_api_client_status(int32_t(id)), 3);

    ASSERT_EQ(sim().ctl({"ssr", "300"}).exit_code, 0);
    ASSERT_TRUE(wait_until([&] {
        std::lock_guard<std::mutex> l(g_mu);
        return g_statuses.size() >= 9;
    }));
    for (uint32_t id : ids)
        EXPECT_TRUE(wait_until([id] { return modem_api_client_status(int32_t(id)) == 3; }));
    for (int type = 1; type <= 3; ++type) {
        EXPECT_TRUE(wait_until([type] { return statuses_logged(type).size() >= 6; }));
        EXPECT_EQ(statuses_logged(type), (std::vector<int>{1, 3, 4, 5, 6, 3})) << "type " << type;
        std::lock_guard<std::mutex> l(g_mu);
        std::vector<int> codes;
        for (auto &[code, t] : g_statuses)
            if (t == type)
                codes.push_back(code);
        EXPECT_EQ(codes, (std::vector<int>{0x10002, 0x10001, 0x10002})) << "type " << type;
    }
    auto reqs = requests(sim(), 3);
    EXPECT_EQ(std::count_if(reqs.begin(), reqs.end(), [](const Request &r) { return r.msg_id == 0x45; }), 4);

    // Each NAS member's synchronous send goes out on its own reconnected client.
    sim().clear_journal();
    for (auto send : {nas_0_client_send_msg_sync, nas_1_client_send_msg_sync}) {
        nas_bind_subscription_req_msg_v01 req{};
        qmi_response_type_v01 resp{QMI_RESULT_FAILURE_V01, QMI_ERR_INTERNAL_V01};
        EXPECT_EQ(send(QMI_NAS_BIND_SUBSCRIPTION_REQ_MSG_V01, &req, sizeof(req), &resp, sizeof(resp)), 0);
        EXPECT_EQ(resp.result, QMI_RESULT_SUCCESS_V01);
    }
    EXPECT_EQ(requests(sim(), 3).size(), 2u);
}

// A second down event while suspended only registers the up callback again; an up event other than "count
// increased" changes nothing; the service coming back reconnects, and the next outage arms a new notifier.
TEST_F(HydraSimTest, TwoDownEventsArmOneNotifier)
{
    uint32_t id = open(MODEM_API_CLIENT_SAR);
    const std::string armed = "sar_client_release_qmi_client_thread: qmi_client_register_notify_cb 0";
    ASSERT_EQ(sim().ctl({"service", "sar", "down"}).exit_code, 0);
    ASSERT_TRUE(wait_until([&] { return count_lines(fresh_log(), armed) == 1; }));
    sar_client_service_down_event(nullptr, QMI_SERVICE_ERR, nullptr);
    ASSERT_TRUE(wait_until([&] { return count_lines(fresh_log(), armed) == 2; }));
    const std::string notifier = "sar_client_release_qmi_client_thread: qmi_client_notifier_init return 0";
    EXPECT_EQ(count_lines(fresh_log(), notifier), 1u);
    EXPECT_EQ(modem_api_client_status(int32_t(id)), 5);
    // A second SAR client is refused while the first is suspended.
    uint32_t other = 77;
    EXPECT_EQ(modem_api_init_client(MODEM_API_CLIENT_SAR, nullptr, nullptr, &other), 9u);
    EXPECT_EQ(other, 77u);
    EXPECT_EQ(count_lines(fresh_log(), "modem_api_init_client: Another client init sar client with operational status 5"),
              1u);

    const std::string resumed = "sar_client_enter_resume: function entry";
    sar_client_service_up_event(nullptr, nullptr, QMI_CLIENT_SERVICE_COUNT_DEC, nullptr);
    EXPECT_EQ(modem_api_client_status(int32_t(id)), 5);
    EXPECT_EQ(count_lines(fresh_log(), resumed), 0u);
    ASSERT_EQ(sim().ctl({"service", "sar", "up"}).exit_code, 0);
    EXPECT_TRUE(wait_until([id] { return modem_api_client_status(int32_t(id)) == 3; }));
    EXPECT_EQ(count_lines(fresh_log(), resumed), 1u);
    ASSERT_EQ(sim().ctl({"service", "sar", "down"}).exit_code, 0);
    EXPECT_TRUE(wait_until([&] { return count_lines(fresh_log(), notifier) == 2; }));
    ASSERT_EQ(sim().ctl({"service", "sar", "up"}).exit_code, 0);
    EXPECT_TRUE(wait_until([id] { return modem_api_client_status(int32_t(id)) == 3; }));
}

// Logged and dropped: indications the SAR and NAS objects do not know, vendor 0x0005, and any without a callback.
TEST_F(HydraSimTest, IndicationsWithoutAnEventAreDropped)
{
    // Client type, service, message, whether with an event callback, log line.
    const std::tuple<uint32_t, const char *, const char *, bool, const char *> cases[] = {
        {MODEM_API_CLIENT_SAR, "sar", "0x0001", true, "sar_client_unsol_ind_cb: decoded_payload_len(0) can not <= 0"},
        {MODEM_API_CLIENT_NAS_0, "nas", "0x0024", true, "nas_0_client_unsol_ind_cb: decoded_payload_len(0) can not <= 0"},
        {MODEM_API_CLIENT_SAR, "sar", "0x0001", false, "sar_client_unsol_ind_cb: Unexpected NULL pointer!"},
        {MODEM_API_CLIENT_VS, "vs", "0x0005", true, "vs_client_unsol_ind_cb: decoded_payload_len(0) can not <= 0"},
        {MODEM_API_CLIENT_VS, "vs", "0x0004", false, "vs_client_unsol_ind_cb: Unexpected NULL pointer!"},
    };
    for (const auto &[type, service, msg, with_cb, line] : cases) {
        SCOPED_TRACE(line);
        uint32_t id = 0xFFFF;
        ASSERT_EQ(modem_api_init_client(type, with_cb ? record_event : nullptr, nullptr, &id), 0u);
        auto r = sim().ctl({"indicate", service, msg, "010400785634120201000503010000"});
        EXPECT_EQ(r.out, "indication sent to 1 client(s)\n");
        EXPECT_TRUE(wait_until([&, l = std::string(line)] { return count_lines(fresh_log(), l) == 1; }));
        modem_api_free_client(int32_t(id));
        g_log_base = hydra_log(sim()).size();
    }
    EXPECT_EQ(events_seen(), 0u);
}

// persist.hydra.mem_trace = "true" at the first allocation keeps one record per live block: the open client's,
// a response's for a while; none once freed. Each row runs in a fresh process, as the decision is made once.
TEST(HydraMemTrace, PropertyDecidesAndBlocksAreCounted)
{
    if (const char *w = getenv("KVN_TEST_KVN_WRAPPER"); w && *w) // an emulator for another CPU cannot run it again
        GTEST_SKIP() << "runs the test program again, which needs the host to run it natively";
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const std::pair<const char *, const char *> cases[] = { // value (nullptr: not set), then what the child saw
        {"true", "init 0 counts 1 1 0 noted 0"},
        {"false", "init 0 counts 0 0 0 noted 0"},
        {nullptr, "init 0 counts 0 0 0 noted 1"},
    };
    for (const auto &[value, seen] : cases) {
        EXPECT_EXIT(
            {
                if (value)
                    sim().ctl({"prop", "set", "persist.hydra.mem_trace", value});
                modem_api_init();
                uint32_t id = 0;
                uint32_t rc = modem_api_init_client(MODEM_API_CLIENT_VS, nullptr, nullptr, &id);
                int open = hydra_mem_trace_count();
                modem_stats_param_result result{};
                const uint32_t ids[1] = {82};
                modem_api_get_stats_parameter(int32_t(id), 0, 1, 1, ids, &result);
                int fetched = hydra_mem_trace_count();
                modem_api_free_client(int32_t(id));
                modem_api_release();
                size_t noted = count_lines(hydra_log(sim()), "hydra_mem_init: HYDRA_MEM_TRACE_PROP not exist");
                int left = hydra_mem_trace_count();
                fprintf(stderr, "init %u counts %d %d %d noted %zu\n", rc, open, fetched, left, noted);
                SimEnvironment::sim_.reset(); // its handset holds this process's stderr open
                _exit(0);
            },
            testing::ExitedWithCode(0), seen)
            << (value ? value : "unset");
    }
}

} // namespace
