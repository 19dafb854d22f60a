// The QMI client library against a kvn-sim: requests, the service going away, notifiers, indications, release.
#include <qmi_client.h>
#include <user_identity_module_v01.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <future>
#include <mutex>
#include <thread>
#include <tuple>

#include "kvn_wire.h"
#include "sim_handset.h"

namespace {

using Bytes = std::vector<uint8_t>;
using namespace std::chrono_literals;

constexpr int kGetEid = QMI_UIM_GET_EID_REQ_V01;

qmi_idl_service_object_type uim() { return uim_get_service_object_v01(); }

// Slot 1 holds a physical card (Get EID refused: not supported), slot 2 an eUICC that answers its EID.
const char kScenario[] = R"({"uim": {"slots": {"1": {}, "2": {"selected": "euicc",
    "euicc": {"eid": "89000102030405060708090a0b0c0d0e"}}}}})";
// A Get EID indication's TLVs, and a bare success result.
const std::string kEidTlvs = "020400000000001011001089000102030405060708090a0b0c0d0e", kOk = "02040000000000";

std::string hex(const Bytes &b)
{
    std::string s;
    for (uint8_t c : b)
        s += {"0123456789abcdef"[c >> 4], "0123456789abcdef"[c & 15]};
    return s;
}

struct Handset {
    kvn_test::SimHandset sim{kScenario};
    Handset() { setenv("KVN_SIM_SOCKET", sim.socket().c_str(), 1); }
    bool ctl(const std::vector<std::string> &args) const { return sim.ctl(args).exit_code == 0; }
    // Over the control channel directly: a process per indication would be too slow to flood.
    void indicate(uint16_t msg, const std::string &tlvs) const
    {
        std::string body = R"({"op":"indicate","service":"uim","msg":)" + std::to_string(msg) + R"(,"hex":")" +
                           tlvs + R"("})";
        auto r = kvn_wire::exchange(sim.socket(), {kvn_wire::Kind::Control}, Bytes(body.begin(), body.end()), 3000);
        EXPECT_TRUE(r && r->hdr.status == 0);
    }
    size_t uim_requests() const
    {
        size_t n = 0;
        for (const auto &l : sim.journal())
            n += l.find("\"service\":11,") != std::string::npos;
        return n;
    }
};

using kvn_test::wait_until;

qmi_client_type open_uim(qmi_client_ind_cb ind_cb = nullptr, void *ind_data = nullptr, unsigned timeout_ms = 1000)
{
    qmi_client_os_params os{};
    qmi_client_type h = nullptr;
    EXPECT_EQ(QMI_NO_ERR,
              qmi_client_init_instance(uim(), QMI_CLIENT_INSTANCE_ANY, ind_cb, ind_data, &os, timeout_ms, &h));
    return h;
}

int get_eid(qmi_client_type h, uim_get_eid_resp_msg_v01 *resp, unsigned timeout_ms = 2000,
            uim_slot_enum_v01 slot = UIM_SLOT_2_V01)
{
    uim_get_eid_req_msg_v01 req{slot};
    std::memset(resp, 0xCC, sizeof(*resp));
    return qmi_client_send_msg_sync(h, kGetEid, &req, sizeof(req), resp, sizeof(*resp), timeout_ms);
}

// The answer a slot gets: slot 2 its EID, slot 1 the not-supported refusal.
bool answer_fits(const uim_get_eid_resp_msg_v01 &r, int slot)
{
    if (slot == 2)
        return r.resp.result == QMI_RESULT_SUCCESS_V01 && r.eid_value_valid == 1 && r.eid_value_len == 16 &&
               r.eid_value[0] == 0x89 && r.eid_value[15] == 0x0e;
    return r.resp.result == QMI_RESULT_FAILURE_V01 && r.resp.error == QMI_ERR_NOT_SUPPORTED_V01 &&
           r.eid_value_valid == 0;
}

// One call of a callback: its value (error, event or message id), the thread it ran on, what an indication carried.
struct Seen {
    int value;
    std::string tlvs = "";
    qmi_client_type handle = nullptr;
    int decode_rc = 0;
    std::thread::id thread = std::this_thread::get_id();
};
struct CallLog {
    std::mutex mu;
    std::vector<Seen> seen;
    void add(Seen s)
    {
        std::lock_guard<std::mutex> lock(mu);
        seen.push_back(std::move(s));
    }
    std::vector<Seen> all()
    {
        std::lock_guard<std::mutex> lock(mu);
        return seen;
    }
    size_t count(int v)
    {
        const auto s = all();
        return size_t(std::count_if(s.begin(), s.end(), [v](const Seen &x) { return x.value == v; }));
    }
};

void on_error(qmi_client_type, qmi_client_error_type e, void *d) { static_cast<CallLog *>(d)->add({e}); }
void on_notify(qmi_client_type, qmi_idl_service_object_type, qmi_client_notify_event_type ev, void *d)
{
    static_cast<CallLog *>(d)->add({ev});
}

// A handset with UIM up. A watched client has an error callback: the library then watches it while it is idle.
class Uim : public testing::Test {
protected:
    qmi_client_type open(qmi_client_ind_cb cb = nullptr, void *data = nullptr, bool watched = true)
    {
        qmi_client_type h = open_uim(cb, data);
        EXPECT_TRUE(!h || !watched || qmi_client_register_error_cb(h, on_error, &errors) == QMI_NO_ERR);
        return h;
    }
    Handset hs;
    CallLog errors;
};

// The late reply to a timed-out request (slot 1) is not taken for the next one (slot 2); codec errors pass through.
TEST_F(Uim, TimeoutLateReplyRoundTripAndCodecErrors)
{
    ASSERT_TRUE(hs.ctl({"fault", "uim", "0x65", "delay=400", "--count", "2"}));
    qmi_client_type h = open();
    ASSERT_NE(nullptr, h);
    uim_get_eid_resp_msg_v01 resp;
    EXPECT_EQ(QMI_TIMEOUT_ERR, get_eid(h, &resp, 100, UIM_SLOT_1_V01));
    ASSERT_EQ(QMI_NO_ERR, get_eid(h, &resp, 3000));
    EXPECT_TRUE(answer_fits(resp, 2));
    ASSERT_EQ(QMI_NO_ERR, get_eid(h, &resp, 3000, UIM_SLOT_1_V01));
    EXPECT_TRUE(answer_fits(resp, 1));
    EXPECT_NE(hs.sim.journal().back().find(R"("tlvs":[{"type":1,"hex":"01"}])"), std::string::npos);

    ASSERT_TRUE(hs.ctl({"fault", "uim", "0x65", "truncate"}));
    EXPECT_EQ(QMI_IDL_LIB_MESSAGE_DATA_ERROR, get_eid(h, &resp));
    uim_open_logical_channel_req_msg_v01 req{.aid_valid = 1, .aid_len = 40}; // above the maximum: never sent
    uim_open_logical_channel_resp_msg_v01 oresp;
    EXPECT_EQ(QMI_IDL_LIB_ARRAY_TOO_BIG, qmi_client_send_msg_sync(h, QMI_UIM_OPEN_LOGICAL_CHANNEL_REQ_V01, &req,
                                                                  sizeof(req), &oresp, sizeof(oresp), 1000));
    EXPECT_EQ(4u, hs.uim_requests());
    EXPECT_EQ(QMI_IDL_LIB_BUFFER_TOO_SMALL,
              qmi_client_send_msg_sync(h, kGetEid, &req, 4, &resp, sizeof(resp) - 1, 1000));
    EXPECT_EQ(QMI_NO_ERR, qmi_client_release(h));
}

// Threads share one handle while indications arrive: each gets its own answer, every indication is delivered.
TEST_F(Uim, ConcurrentSendersAndIndicationsOnOneHandle)
{
    std::atomic<int> inds{0};
    auto cb = [](qmi_client_type, unsigned, void *, unsigned, void *data) { ++*static_cast<std::atomic<int> *>(data); };
    qmi_client_type h = open(cb, &inds);
    ASSERT_NE(nullptr, h);
    constexpr int kThreads = 4, kRequests = 50, kInds = 20;
    std::atomic<int> wrong{0};
    std::vector<std::thread> senders;
    for (int t = 0; t < kThreads; ++t)
        senders.emplace_back([&, t] {
            const int slot = 1 + t % 2;
            for (int i = 0; i < kRequests; ++i) {
                uim_get_eid_resp_msg_v01 resp;
                if (get_eid(h, &resp, 5000, uim_slot_enum_v01(slot)) != QMI_NO_ERR || !answer_fits(resp, slot))
                    ++wrong;
            }
        });
    for (int i = 0; i < kInds; ++i)
        hs.indicate(0x32, kOk);
    for (auto &t : senders)
        t.join();
    EXPECT_EQ(0, wrong.load());
    EXPECT_TRUE(wait_until([&] { return inds.load() == kInds; }));
    qmi_client_release(h);
}

// The service dies under a call, announced or dropped: it fails, the error callback runs once, the handle stays dead.
TEST(Client, ServiceKilledMidCallFailsTheCallAndReportsOnce)
{
    for (bool announced : {true, false}) {
        SCOPED_TRACE(announced ? "announced" : "dropped");
        Handset hs;
        ASSERT_TRUE(hs.ctl({"fault", "uim", "0x65", announced ? "no-reply" : "drop"}));
        qmi_client_type h = open_uim();
        ASSERT_NE(nullptr, h);
        CallLog errs;
        std::thread killer;
        if (announced) {
            ASSERT_EQ(QMI_NO_ERR, qmi_client_register_error_cb(h, on_error, &errs));
            killer = std::thread([&] {
                EXPECT_TRUE(wait_until([&] { return hs.uim_requests() == 1; }));
                EXPECT_TRUE(hs.ctl({"service", "uim", "down"}));
            });
        }
        uim_get_eid_resp_msg_v01 resp;
        EXPECT_EQ(QMI_SERVICE_ERR, get_eid(h, &resp, 10000));
        if (announced)
            killer.join();
        else
            ASSERT_EQ(QMI_NO_ERR, qmi_client_register_error_cb(h, on_error, &errs));
        ASSERT_TRUE(wait_until([&] { return errs.count(QMI_SERVICE_ERR) >= 1; }));
        std::this_thread::sleep_for(50ms); // room for a wrong second report
        const auto all = errs.all();
        ASSERT_EQ(1u, all.size());
        EXPECT_EQ(QMI_SERVICE_ERR, all[0].value);
        EXPECT_TRUE(!announced || all[0].thread != std::this_thread::get_id());
        ASSERT_TRUE(hs.ctl({"service", "uim", "up"}));
        EXPECT_EQ(QMI_SERVICE_ERR, get_eid(h, &resp));
        qmi_client_release(h);
    }
}

// The list counts and fills at most the caller's entries; with nobody listening it is empty and an init times out.
TEST_F(Uim, ServiceList)
{
    unsigned n = 0, entries = 0;
    qmi_service_info info[2] = {};
    ASSERT_EQ(QMI_NO_ERR, qmi_client_get_service_list(uim(), nullptr, nullptr, &n));
    EXPECT_EQ(1u, n);
    EXPECT_EQ(QMI_NO_ERR, qmi_client_get_service_list(uim(), info, &entries, &n));
    EXPECT_EQ(0u, entries);
    entries = 2;
    EXPECT_EQ(QMI_NO_ERR, qmi_client_get_service_list(uim(), info, &entries, &n));
    ASSERT_EQ(1u, entries);
    EXPECT_EQ(uint32_t(QMI_UIM_SERVICE_ID_V01), info[0].service_id);
    qmi_client_type h = nullptr;
    ASSERT_EQ(QMI_NO_ERR, qmi_client_init(&info[0], uim(), nullptr, nullptr, nullptr, &h));
    qmi_client_release(h);

    setenv("KVN_SIM_SOCKET", (hs.sim.dir() + "/nobody.sock").c_str(), 1);
    n = 7;
    EXPECT_EQ(QMI_SERVICE_ERR, qmi_client_get_service_list(uim(), nullptr, nullptr, &n));
    EXPECT_EQ(0u, n);
    qmi_client_os_params os{};
    h = nullptr;
    EXPECT_EQ(QMI_TIMEOUT_ERR, qmi_client_init_instance(uim(), QMI_CLIENT_INSTANCE_ANY, nullptr, nullptr, &os, 60, &h));
    EXPECT_EQ(nullptr, h);
    qmi_client_os_params zeroed{};
    qmi_cci_os_signal_wait(&zeroed, 20);
    EXPECT_EQ(std::pair(1, 1), std::pair(zeroed.inited, zeroed.timed_out));
}

// A service coming up wakes a notifier (signal, event 0 once, on the library's thread) and a waiting init.
TEST_F(Uim, NotifierAndAWaitingClientSeeTheServiceComeUp)
{
    ASSERT_TRUE(hs.ctl({"service", "uim", "down"}));
    qmi_client_os_params os{}; // zero-filled, as callers hand it over
    qmi_client_type n = nullptr;
    ASSERT_EQ(QMI_NO_ERR, qmi_client_notifier_init(uim(), &os, &n));
    CallLog log;
    ASSERT_EQ(QMI_NO_ERR, qmi_client_register_notify_cb(n, on_notify, &log));
    auto client = std::async(std::launch::async, [] { return open_uim(nullptr, nullptr, 5000); });
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(0u, log.count(QMI_CLIENT_SERVICE_COUNT_INC));
    ASSERT_TRUE(hs.ctl({"service", "uim", "up"}));
    qmi_cci_os_signal_wait(&os, 5000);
    EXPECT_EQ(0, os.timed_out);
    ASSERT_TRUE(wait_until([&] { return log.count(0) == 1; }));
    EXPECT_NE(std::this_thread::get_id(), log.all()[0].thread);
    qmi_client_release(client.get()); // open_uim checks that the wait ended with a handle
    // A notifier registered while the service is up is told once, at once.
    qmi_client_os_params os2{};
    qmi_client_type n2 = nullptr;
    ASSERT_EQ(QMI_NO_ERR, qmi_client_notifier_init(uim(), &os2, &n2));
    qmi_cci_os_signal_wait(&os2, 5000); // the notifier has seen the service
    ASSERT_EQ(0, os2.timed_out);
    CallLog log2;
    ASSERT_EQ(QMI_NO_ERR, qmi_client_register_notify_cb(n2, on_notify, &log2));
    ASSERT_TRUE(wait_until([&] { return log2.count(QMI_CLIENT_SERVICE_COUNT_INC) >= 1; }));
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(1u, log2.count(QMI_CLIENT_SERVICE_COUNT_INC));
    qmi_client_release(n2);
    ASSERT_TRUE(hs.ctl({"service", "uim", "down"}));
    EXPECT_TRUE(wait_until([&] { return log.count(QMI_CLIENT_SERVICE_COUNT_DEC) == 1; }));
    qmi_client_release(n);
}

// Indications reach the callback on the library's thread as sent; an unwatched client's once a request reads.
TEST_F(Uim, IndicationDeliveredOnTheLibrarysThreadAsEncodedTlvs)
{
    auto cb = [](qmi_client_type h, unsigned msg_id, void *buf, unsigned len, void *data) {
        uim_get_eid_resp_msg_v01 rec;
        const int rc = qmi_client_message_decode(h, QMI_IDL_RESPONSE, msg_id, buf, len, &rec, sizeof(rec));
        const auto *p = static_cast<const uint8_t *>(buf);
        static_cast<CallLog *>(data)->add({int(msg_id), hex(Bytes(p, p + len)), h, rc});
    };
    for (bool watched : {true, false}) {
        SCOPED_TRACE(watched ? "watched" : "indication callback only");
        CallLog log;
        qmi_client_type h = open(cb, &log, watched);
        ASSERT_NE(nullptr, h);
        hs.indicate(kGetEid, kEidTlvs);
        if (!watched) {
            std::this_thread::sleep_for(100ms);
            EXPECT_EQ(0u, log.all().size()); // nothing reads yet
            uim_get_eid_resp_msg_v01 resp;
            EXPECT_EQ(QMI_NO_ERR, get_eid(h, &resp));
        }
        ASSERT_TRUE(wait_until([&] { return log.all().size() == 1; }, 3s));
        hs.indicate(kGetEid, kEidTlvs);
        ASSERT_TRUE(wait_until([&] { return log.all().size() == 2; }, 3s));
        qmi_client_release(h);
        const Seen &s = log.seen[0];
        EXPECT_EQ(std::tuple(kGetEid, kEidTlvs, h, QMI_NO_ERR), std::tuple(s.value, s.tlvs, s.handle, s.decode_rc));
        EXPECT_NE(std::this_thread::get_id(), s.thread);
        EXPECT_EQ(s.thread, log.seen[1].thread);
    }
}

// Release waits for a running indication callback, and none starts once release has returned.
TEST_F(Uim, ReleaseWhileIndicationsArrive)
{
    struct State {
        std::atomic<bool> released{false};
        std::atomic<int> late{0}, calls{0};
    } st;
    auto cb = [](qmi_client_type, unsigned, void *, unsigned, void *data) {
        auto *s = static_cast<State *>(data);
        s->late += s->released.load();
        s->calls++;
        std::this_thread::sleep_for(200us);
        s->late += s->released.load();
    };
    for (int round = 0; round < 10; ++round) {
        st.released = false;
        st.calls = 0;
        qmi_client_type h = open(cb, &st);
        ASSERT_NE(nullptr, h);
        std::atomic<bool> stop{false};
        std::thread flood([&] {
            while (!stop)
                hs.indicate(0x32, kOk);
        });
        ASSERT_TRUE(wait_until([&] { return st.calls.load() > 0; }));
        qmi_client_release(h);
        st.released = true;
        std::this_thread::sleep_for(5ms);
        stop = true;
        flood.join();
    }
    EXPECT_EQ(0, st.late.load());
}

} // namespace
