// client_test.cpp - the QMI client library against a fake handset: round
// trips, timeouts, a service that goes away mid-call, service-up
// notifications, indications on the library's thread, release racing
// indications, and the service list with nothing listening.
#include "fake_handset.h"

#include <qmi_client.h>
#include <user_identity_module_v01.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <future>
#include <mutex>
#include <thread>

namespace {

using fake::Bytes;
using namespace std::chrono_literals;

constexpr uint32_t kUim = QMI_UIM_SERVICE_ID_V01;

qmi_idl_service_object_type uim() { return uim_get_service_object_v01(); }

const Bytes kOk = {0x02, 0x04, 0x00, 0x00, 0x00, 0x00, 0x00};

Bytes eid_response()
{
    Bytes b = kOk;
    b.insert(b.end(), {0x10, 0x11, 0x00, 0x10});
    for (int i = 0; i < 16; ++i)
        b.push_back(uint8_t(0x89 + i));
    return b;
}

// Opens a UIM client on the fake, failing the test when it cannot.
qmi_client_type open_uim(qmi_client_ind_cb ind_cb = nullptr, void *ind_data = nullptr)
{
    qmi_client_os_params os{};
    qmi_client_type h = nullptr;
    EXPECT_EQ(QMI_NO_ERR, qmi_client_init_instance(uim(), QMI_CLIENT_INSTANCE_ANY, ind_cb, ind_data, &os, 1000, &h));
    return h;
}

int get_eid(qmi_client_type h, uim_get_eid_resp_msg_v01 *resp, unsigned timeout_ms = 2000)
{
    uim_get_eid_req_msg_v01 req{};
    req.slot = UIM_SLOT_2_V01;
    return qmi_client_send_msg_sync(h, QMI_UIM_GET_EID_REQ_V01, &req, sizeof(req), resp, sizeof(*resp), timeout_ms);
}

// Records the calls of an error callback.
struct ErrorLog {
    std::mutex mu;
    std::vector<int> errors;
    std::vector<std::thread::id> threads;

    static void cb(qmi_client_type, qmi_client_error_type error, void *data)
    {
        auto *self = static_cast<ErrorLog *>(data);
        std::lock_guard<std::mutex> lock(self->mu);
        self->errors.push_back(error);
        self->threads.push_back(std::this_thread::get_id());
    }
    size_t count()
    {
        std::lock_guard<std::mutex> lock(mu);
        return errors.size();
    }
};

/* ---- requests ---- */

TEST(Client, RoundTripEncodesTheRequestAndDecodesTheResponse)
{
    fake::Handset sim;
    sim.set_up(kUim, true);
    Bytes seen;
    sim.set_handler([&](uint32_t service, uint16_t msg_id, const Bytes &tlvs) -> std::optional<Bytes> {
        if (service != kUim || msg_id != QMI_UIM_GET_EID_REQ_V01)
            return std::nullopt;
        seen = tlvs;
        return eid_response();
    });
    qmi_client_type h = open_uim();
    ASSERT_NE(nullptr, h);

    uim_get_eid_resp_msg_v01 resp;
    std::memset(&resp, 0xCC, sizeof(resp));
    ASSERT_EQ(QMI_NO_ERR, get_eid(h, &resp));
    EXPECT_EQ((Bytes{0x01, 0x01, 0x00, 0x02}), seen);
    EXPECT_EQ(QMI_RESULT_SUCCESS_V01, resp.resp.result);
    EXPECT_EQ(1, resp.eid_value_valid);
    EXPECT_EQ(16u, resp.eid_value_len);
    EXPECT_EQ(0x89, resp.eid_value[0]);
    EXPECT_EQ(0x98, resp.eid_value[15]);
    EXPECT_EQ(QMI_NO_ERR, qmi_client_release(h));
}

TEST(Client, CodecErrorsArePassedThrough)
{
    fake::Handset sim;
    sim.set_up(kUim, true);
    // A reply cut inside its EID TLV.
    sim.set_handler([](uint32_t, uint16_t, const Bytes &) -> std::optional<Bytes> {
        Bytes b = eid_response();
        b.resize(b.size() - 4);
        return b;
    });
    qmi_client_type h = open_uim();
    ASSERT_NE(nullptr, h);
    uim_get_eid_resp_msg_v01 resp;
    EXPECT_EQ(QMI_IDL_LIB_MESSAGE_DATA_ERROR, get_eid(h, &resp));

    uim_open_logical_channel_req_msg_v01 open{};
    open.aid_valid = 1;
    open.aid_len = 40; // above the AID maximum: refused before anything is sent
    uim_open_logical_channel_resp_msg_v01 oresp;
    EXPECT_EQ(QMI_IDL_LIB_ARRAY_TOO_BIG, qmi_client_send_msg_sync(h, QMI_UIM_OPEN_LOGICAL_CHANNEL_REQ_V01, &open,
                                                                  sizeof(open), &oresp, sizeof(oresp), 1000));
    EXPECT_EQ(QMI_IDL_LIB_BUFFER_TOO_SMALL, qmi_client_send_msg_sync(h, QMI_UIM_GET_EID_REQ_V01, &open, 4, &resp,
                                                                     sizeof(resp) - 1, 1000));
    qmi_client_release(h);
}

TEST(Client, TimeoutThenTheLateReplyIsNotTakenForTheNextRequest)
{
    fake::Handset sim;
    sim.set_up(kUim, true);
    std::atomic<int> calls{0};
    sim.set_handler([&](uint32_t, uint16_t, const Bytes &) -> std::optional<Bytes> {
        if (calls++ == 0) {
            std::this_thread::sleep_for(300ms); // answers after the client gave up
            Bytes b = kOk;
            b[3] = 1; // a failure result, so a mix-up would show
            return b;
        }
        return eid_response();
    });
    qmi_client_type h = open_uim();
    ASSERT_NE(nullptr, h);
    uim_get_eid_resp_msg_v01 resp;
    EXPECT_EQ(QMI_TIMEOUT_ERR, get_eid(h, &resp, 100));
    ASSERT_EQ(QMI_NO_ERR, get_eid(h, &resp));
    EXPECT_EQ(QMI_RESULT_SUCCESS_V01, resp.resp.result);
    EXPECT_EQ(16u, resp.eid_value_len);
    qmi_client_release(h);
}

// Several threads share one handle while indications arrive: each gets the
// response to its own request, and every indication reaches the callback.
TEST(Client, ConcurrentSendersAndIndicationsOnOneHandle)
{
    fake::Handset sim;
    sim.set_up(kUim, true);
    sim.set_handler([](uint32_t, uint16_t, const Bytes &tlvs) -> std::optional<Bytes> {
        Bytes b = eid_response();
        b[11] = tlvs[3]; // first EID byte = the slot asked for
        return b;
    });
    std::atomic<int> inds{0};
    auto cb = [](qmi_client_type, unsigned, void *, unsigned, void *data) { ++*static_cast<std::atomic<int> *>(data); };
    qmi_client_type h = open_uim(cb, &inds);
    ASSERT_NE(nullptr, h);
    ASSERT_TRUE(sim.wait_until([&] { return sim.clients(kUim) == 1; }));

    constexpr int kThreads = 4, kRequests = 50, kInds = 100;
    std::atomic<int> wrong{0};
    std::vector<std::thread> senders;
    for (int t = 0; t < kThreads; ++t)
        senders.emplace_back([&, t] {
            for (int i = 0; i < kRequests; ++i) {
                uim_get_eid_req_msg_v01 req{};
                req.slot = static_cast<uim_slot_enum_v01>(t + 1);
                uim_get_eid_resp_msg_v01 resp;
                if (qmi_client_send_msg_sync(h, QMI_UIM_GET_EID_REQ_V01, &req, sizeof(req), &resp, sizeof(resp),
                                             5000) != QMI_NO_ERR ||
                    resp.eid_value[0] != t + 1)
                    ++wrong;
            }
        });
    for (int i = 0; i < kInds; ++i)
        sim.indicate(kUim, 0x32, kOk);
    for (auto &t : senders)
        t.join();
    EXPECT_EQ(0, wrong.load());
    EXPECT_TRUE(sim.wait_until([&] { return inds.load() == kInds; }));
    qmi_client_release(h);
}

/* ---- the service going away ---- */

TEST(Client, ServiceKilledMidCallFailsTheCallAndReportsOnce)
{
    fake::Handset sim;
    sim.set_up(kUim, true);
    std::promise<void> arrived;
    std::atomic<bool> first{true};
    sim.set_handler([&](uint32_t, uint16_t, const Bytes &) -> std::optional<Bytes> {
        if (first.exchange(false))
            arrived.set_value();
        return std::nullopt;
    });
    qmi_client_type h = open_uim();
    ASSERT_NE(nullptr, h);
    ErrorLog errs;
    ASSERT_EQ(QMI_NO_ERR, qmi_client_register_error_cb(h, ErrorLog::cb, &errs));

    std::thread::id caller;
    auto result = std::async(std::launch::async, [&] {
        caller = std::this_thread::get_id();
        uim_get_eid_resp_msg_v01 resp;
        return get_eid(h, &resp, 10000);
    });
    arrived.get_future().wait();
    sim.set_up(kUim, false);
    EXPECT_EQ(QMI_SERVICE_ERR, result.get());

    ASSERT_TRUE(sim.wait_until([&] { return errs.count() >= 1; }));
    std::this_thread::sleep_for(50ms); // room for a wrong second report
    {
        std::lock_guard<std::mutex> lock(errs.mu);
        ASSERT_EQ(1u, errs.errors.size());
        EXPECT_EQ(QMI_SERVICE_ERR, errs.errors[0]);
        EXPECT_NE(caller, errs.threads[0]);
        EXPECT_NE(std::this_thread::get_id(), errs.threads[0]);
    }
    uim_get_eid_resp_msg_v01 resp;
    EXPECT_EQ(QMI_SERVICE_ERR, get_eid(h, &resp)); // the handle stays dead
    qmi_client_release(h);
}

TEST(Client, DroppedConnectionWithoutNoticeIsAServiceError)
{
    fake::Handset sim;
    sim.set_up(kUim, true);
    sim.set_handler([](uint32_t, uint16_t, const Bytes &) -> std::optional<Bytes> { return std::nullopt; });
    qmi_client_type h = open_uim();
    ASSERT_NE(nullptr, h);
    auto result = std::async(std::launch::async, [&] {
        uim_get_eid_resp_msg_v01 resp;
        return get_eid(h, &resp, 10000);
    });
    ASSERT_TRUE(sim.wait_until([&] { return sim.clients(kUim) == 1; }));
    std::this_thread::sleep_for(50ms);
    sim.drop_clients(kUim);
    EXPECT_EQ(QMI_SERVICE_ERR, result.get());

    // An error callback registered after the fact is still told, once.
    ErrorLog errs;
    qmi_client_register_error_cb(h, ErrorLog::cb, &errs);
    EXPECT_TRUE(sim.wait_until([&] { return errs.count() == 1; }));
    qmi_client_release(h);
}

/* ---- finding services ---- */

TEST(ServiceList, NothingListening)
{
    fake::socket_path(); // points KVN_SIM_SOCKET at a path where nothing listens
    unsigned n = 7;
    EXPECT_EQ(QMI_SERVICE_ERR, qmi_client_get_service_list(uim(), nullptr, nullptr, &n));
    EXPECT_EQ(0u, n);
    qmi_client_type h = nullptr;
    qmi_client_os_params os{};
    EXPECT_EQ(QMI_TIMEOUT_ERR, qmi_client_init_instance(uim(), QMI_CLIENT_INSTANCE_ANY, nullptr, nullptr, &os, 60, &h));
    EXPECT_EQ(nullptr, h);
}

TEST(ServiceList, CountsAndFillsAtMostTheCallersEntries)
{
    fake::Handset sim;
    unsigned n = 0;
    EXPECT_EQ(QMI_SERVICE_ERR, qmi_client_get_service_list(uim(), nullptr, nullptr, &n));
    sim.set_up(kUim, true);
    ASSERT_EQ(QMI_NO_ERR, qmi_client_get_service_list(uim(), nullptr, nullptr, &n));
    EXPECT_EQ(1u, n);

    qmi_service_info info[2] = {};
    unsigned entries = 0;
    EXPECT_EQ(QMI_NO_ERR, qmi_client_get_service_list(uim(), info, &entries, &n));
    EXPECT_EQ(0u, entries);
    entries = 2;
    EXPECT_EQ(QMI_NO_ERR, qmi_client_get_service_list(uim(), info, &entries, &n));
    ASSERT_EQ(1u, entries);
    EXPECT_EQ(kUim, info[0].service_id);

    qmi_client_type h = nullptr;
    ASSERT_EQ(QMI_NO_ERR, qmi_client_init(&info[0], uim(), nullptr, nullptr, nullptr, &h));
    qmi_client_release(h);
}

TEST(ServiceList, InitInstanceWaitsForTheServiceToComeUp)
{
    fake::Handset sim;
    std::thread later([&] {
        std::this_thread::sleep_for(150ms);
        sim.set_up(kUim, true);
    });
    qmi_client_type h = nullptr;
    qmi_client_os_params os{};
    EXPECT_EQ(QMI_NO_ERR, qmi_client_init_instance(uim(), QMI_CLIENT_INSTANCE_ANY, nullptr, nullptr, &os, 5000, &h));
    later.join();
    ASSERT_NE(nullptr, h);
    qmi_client_release(h);
}

/* ---- notifiers ---- */

struct NotifyLog {
    std::mutex mu;
    std::vector<qmi_client_notify_event_type> events;
    std::vector<std::thread::id> threads;

    static void cb(qmi_client_type, qmi_idl_service_object_type, qmi_client_notify_event_type ev, void *data)
    {
        auto *self = static_cast<NotifyLog *>(data);
        std::lock_guard<std::mutex> lock(self->mu);
        self->events.push_back(ev);
        self->threads.push_back(std::this_thread::get_id());
    }
    size_t count(qmi_client_notify_event_type ev)
    {
        std::lock_guard<std::mutex> lock(mu);
        return size_t(std::count(events.begin(), events.end(), ev));
    }
};

TEST(Notifier, ServiceUpAfterTheClientWaits)
{
    fake::Handset sim;
    qmi_client_os_params os{}; // zero-filled, as callers hand it over
    qmi_client_type n = nullptr;
    ASSERT_EQ(QMI_NO_ERR, qmi_client_notifier_init(uim(), &os, &n));
    NotifyLog log;
    ASSERT_EQ(QMI_NO_ERR, qmi_client_register_notify_cb(n, NotifyLog::cb, &log));
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(0u, log.count(QMI_CLIENT_SERVICE_COUNT_INC));

    std::thread up([&] {
        std::this_thread::sleep_for(100ms);
        sim.set_up(kUim, true);
    });
    qmi_cci_os_signal_wait(&os, 5000);
    up.join();
    EXPECT_EQ(0, os.timed_out);
    ASSERT_TRUE(sim.wait_until([&] { return log.count(QMI_CLIENT_SERVICE_COUNT_INC) == 1; }));
    {
        std::lock_guard<std::mutex> lock(log.mu);
        EXPECT_NE(std::this_thread::get_id(), log.threads[0]);
    }
    sim.set_up(kUim, false);
    EXPECT_TRUE(sim.wait_until([&] { return log.count(QMI_CLIENT_SERVICE_COUNT_DEC) == 1; }));
    qmi_client_release(n);
}

TEST(Notifier, RegisteringWhileUpReportsOnceAtOnce)
{
    fake::Handset sim;
    sim.set_up(kUim, true);
    qmi_client_os_params os{};
    qmi_client_type n = nullptr;
    ASSERT_EQ(QMI_NO_ERR, qmi_client_notifier_init(uim(), &os, &n));
    qmi_cci_os_signal_wait(&os, 5000); // the notifier has seen the service
    ASSERT_EQ(0, os.timed_out);
    NotifyLog log;
    qmi_client_register_notify_cb(n, NotifyLog::cb, &log);
    ASSERT_TRUE(sim.wait_until([&] { return log.count(QMI_CLIENT_SERVICE_COUNT_INC) >= 1; }));
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(1u, log.count(QMI_CLIENT_SERVICE_COUNT_INC));
    qmi_client_release(n);
}

TEST(Notifier, SignalWaitTimesOutOnAZeroedBlock)
{
    qmi_client_os_params os{};
    qmi_cci_os_signal_wait(&os, 20);
    EXPECT_EQ(1, os.inited);
    EXPECT_EQ(1, os.timed_out);
}

/* ---- indications ---- */

struct IndLog {
    std::mutex mu;
    std::vector<std::pair<unsigned, Bytes>> inds;
    std::thread::id thread;
    qmi_client_type handle = nullptr;
    int decode_rc = 1;

    static void cb(qmi_client_type h, unsigned msg_id, void *buf, unsigned len, void *data)
    {
        auto *self = static_cast<IndLog *>(data);
        uim_get_eid_resp_msg_v01 rec;
        int rc = qmi_client_message_decode(h, QMI_IDL_RESPONSE, msg_id, buf, len, &rec, sizeof(rec));
        std::lock_guard<std::mutex> lock(self->mu);
        const auto *p = static_cast<const uint8_t *>(buf);
        self->inds.emplace_back(msg_id, Bytes(p, p + len));
        self->thread = std::this_thread::get_id();
        self->handle = h;
        self->decode_rc = rc;
    }
};

TEST(Indication, DeliveredOnTheLibrarysThreadAsEncodedTlvs)
{
    fake::Handset sim;
    sim.set_up(kUim, true);
    IndLog log;
    qmi_client_type h = open_uim(IndLog::cb, &log);
    ASSERT_NE(nullptr, h);
    ASSERT_TRUE(sim.wait_until([&] { return sim.clients(kUim) == 1; }));
    sim.indicate(kUim, QMI_UIM_GET_EID_RESP_V01, eid_response());
    ASSERT_TRUE(sim.wait_until([&] {
        std::lock_guard<std::mutex> lock(log.mu);
        return !log.inds.empty();
    }));
    std::lock_guard<std::mutex> lock(log.mu);
    EXPECT_EQ(QMI_UIM_GET_EID_RESP_V01, log.inds[0].first);
    EXPECT_EQ(eid_response(), log.inds[0].second);
    EXPECT_NE(std::this_thread::get_id(), log.thread);
    EXPECT_EQ(h, log.handle);
    EXPECT_EQ(QMI_NO_ERR, log.decode_rc);
    qmi_client_release(h);
}

// A callback may send a request on its own handle: the request reads its
// response on the library's thread, and indications that arrive meanwhile
// wait until the callback has returned.
TEST(Indication, CallbackMaySendOnItsOwnHandle)
{
    fake::Handset sim;
    sim.set_up(kUim, true);
    sim.set_handler([&](uint32_t, uint16_t, const Bytes &) -> std::optional<Bytes> {
        sim.indicate(kUim, 0x32, kOk); // arrives before the response
        return eid_response();
    });
    struct State {
        std::atomic<int> depth{0}, max_depth{0}, calls{0}, rc{1};
    } st;
    auto cb = [](qmi_client_type h, unsigned, void *, unsigned, void *data) {
        auto *s = static_cast<State *>(data);
        s->max_depth = std::max(s->max_depth.load(), ++s->depth);
        if (s->calls++ == 0) {
            uim_get_eid_resp_msg_v01 resp;
            s->rc = get_eid(h, &resp);
        }
        --s->depth;
    };
    qmi_client_type h = open_uim(cb, &st);
    ASSERT_NE(nullptr, h);
    ASSERT_TRUE(sim.wait_until([&] { return sim.clients(kUim) == 1; }));
    sim.indicate(kUim, 0x32, kOk);
    ASSERT_TRUE(sim.wait_until([&] { return st.calls.load() == 2; }));
    EXPECT_EQ(QMI_NO_ERR, st.rc.load());
    EXPECT_EQ(1, st.max_depth.load());
    qmi_client_release(h);
}

// Indications keep arriving while the handle is released: no callback may
// start once release has returned.
TEST(Indication, ReleaseWhileIndicationsArrive)
{
    fake::Handset sim;
    sim.set_up(kUim, true);
    struct State {
        std::atomic<bool> released{false};
        std::atomic<int> late{0};
        std::atomic<int> calls{0};
    } st;
    auto cb = [](qmi_client_type, unsigned, void *, unsigned, void *data) {
        auto *s = static_cast<State *>(data);
        if (s->released.load())
            s->late++;
        s->calls++;
        std::this_thread::sleep_for(200us);
        if (s->released.load())
            s->late++;
    };
    for (int round = 0; round < 10; ++round) {
        st.released = false;
        qmi_client_type h = open_uim(cb, &st);
        ASSERT_NE(nullptr, h);
        ASSERT_TRUE(sim.wait_until([&] { return sim.clients(kUim) == 1; }));
        std::atomic<bool> stop{false};
        std::thread flood([&] {
            while (!stop)
                sim.indicate(kUim, 0x32, kOk);
        });
        ASSERT_TRUE(sim.wait_until([&] { return st.calls.load() > 0; }));
        qmi_client_release(h);
        st.released = true;
        std::this_thread::sleep_for(5ms);
        stop = true;
        flood.join();
        ASSERT_TRUE(sim.wait_until([&] { return sim.clients(kUim) == 0; }));
    }
    EXPECT_EQ(0, st.late.load());
}

} // namespace
