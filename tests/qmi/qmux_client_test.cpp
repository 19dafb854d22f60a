// qmux_client_test.cpp - the client library on the QMUX transport, against a
// modem played by the test on a pseudo-terminal: client ids per handle, the
// matching of responses and indications, strict framing, the service list,
// modem restart and hang-up, and the record file.
#include <qmi_client.h>
#include <user_identity_module_v01.h>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <functional>
#include <mutex>
#include <set>
#include <sstream>
#include <thread>

#include "process.h"

namespace {

using Bytes = std::vector<uint8_t>;
constexpr uint8_t kUim = QMI_UIM_SERVICE_ID_V01;

// A frame from the modem. ctl: the CTL header (u8 transaction).
Bytes frame(uint8_t svc, uint8_t cid, uint8_t flags, uint16_t txn, uint16_t msg, const Bytes &tlvs)
{
    Bytes sdu{flags, uint8_t(txn)};
    if (svc != 0)
        sdu.push_back(uint8_t(txn >> 8));
    sdu.insert(sdu.end(), {uint8_t(msg), uint8_t(msg >> 8), uint8_t(tlvs.size()), uint8_t(tlvs.size() >> 8)});
    sdu.insert(sdu.end(), tlvs.begin(), tlvs.end());
    Bytes f{0x01, uint8_t(sdu.size() + 5), uint8_t((sdu.size() + 5) >> 8), 0x80, svc, cid};
    f.insert(f.end(), sdu.begin(), sdu.end());
    return f;
}
const Bytes kOk{0x02, 0x04, 0x00, 0x00, 0x00, 0x00, 0x00};
Bytes ok_with(const Bytes &tlv)
{
    Bytes b = kOk;
    b.insert(b.end(), tlv.begin(), tlv.end());
    return b;
}
// A GET_EID response whose EID starts with `tag`.
Bytes eid(uint8_t cid, uint16_t txn, uint8_t tag)
{
    Bytes t{0x10, 0x11, 0x00, 0x10};
    t.resize(t.size() + 16, tag);
    return frame(kUim, cid, 0x02, txn, QMI_UIM_GET_EID_REQ_V01, ok_with(t));
}

// The modem: one pseudo-terminal reached through a fixed link (so that the
// library can open it again after a hang-up), client ids from 1 up, CTL
// answered, UIM requests handed to `on_request`, which answers with frames.
class Modem {
public:
    using Answer = std::function<Bytes(uint8_t cid, uint16_t txn)>;
    std::mutex mu; // guards what follows
    std::set<std::pair<uint8_t, uint8_t>> held; // client ids given out and not given back
    std::set<uint8_t> up{kUim};
    int version_queries = 0;
    int stray_releases = 0; // of ids not held: the modem may have given them to another client

    Modem() : link_(dir_.path() + "/modem") { open_pty(); }
    ~Modem()
    {
        stop_ = true;
        thread_.join();
    }
    const std::string &path() const { return link_; }
    void answer(Answer a)
    {
        std::lock_guard<std::mutex> lock(mu);
        on_request_ = std::move(a);
    }
    void send(const Bytes &b) { ASSERT_EQ(write(master_, b.data(), b.size()), ssize_t(b.size())); }
    // The terminal goes away; a new one takes its place behind the link.
    void hang_up()
    {
        stop_ = true;
        thread_.join();
        close(master_);
        std::lock_guard<std::mutex> lock(mu);
        held.clear();
        stop_ = false;
        open_pty();
    }

private:
    void open_pty()
    {
        master_ = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        ASSERT_TRUE(master_ >= 0 && grantpt(master_) == 0 && unlockpt(master_) == 0);
        unlink(link_.c_str());
        ASSERT_EQ(0, symlink(ptsname(master_), link_.c_str()));
        thread_ = std::thread([this] { run(); });
    }
    void run()
    {
        Bytes in;
        uint8_t buf[4096];
        while (!stop_) {
            pollfd p{master_, POLLIN, 0};
            ssize_t n = poll(&p, 1, 20) == 1 ? read(master_, buf, sizeof buf) : 0;
            in.insert(in.end(), buf, buf + std::max<ssize_t>(n, 0));
            while (in.size() >= 3 && in.size() >= 1u + (in[1] | in[2] << 8)) {
                Bytes f(in.begin(), in.begin() + 1 + (in[1] | in[2] << 8));
                in.erase(in.begin(), in.begin() + ssize_t(f.size()));
                on_frame(f);
            }
        }
    }
    void on_frame(const Bytes &f)
    {
        if (f[4] != 0) {
            Answer a;
            {
                std::lock_guard<std::mutex> lock(mu);
                a = on_request_;
            }
            if (a)
                send(a(f[5], uint16_t(f[7] | f[8] << 8)));
            return;
        }
        const uint8_t txn = f[7];
        const uint16_t msg = uint16_t(f[8] | f[9] << 8);
        std::lock_guard<std::mutex> lock(mu);
        Bytes tlv;
        if (msg == 0x21) {
            ++version_queries;
            tlv = {0x01, uint8_t(1 + 5 * up.size()), 0x00, uint8_t(up.size())};
            for (uint8_t s : up)
                tlv.insert(tlv.end(), {s, 1, 0, 0, 0});
        } else if (msg == 0x22) {
            held.emplace(f[15], next_cid_);
            tlv = {0x01, 0x02, 0x00, f[15], next_cid_++};
        } else if (msg == 0x23) {
            stray_releases += held.erase({f[15], f[16]}) == 0;
        }
        send(frame(0, 0, 0x01, txn, msg, ok_with(tlv)));
    }

    Answer on_request_;
    kvn_test::TempDir dir_;
    std::string link_;
    int master_ = -1;
    std::thread thread_;
    std::atomic<bool> stop_{false};
    uint8_t next_cid_ = 1;
};

Modem &modem()
{
    static Modem *m = [] {
        auto *made = new Modem;
        setenv("KVN_QMI_DEVICE", made->path().c_str(), 1);
        setenv("KVN_QMI_RECORD", (made->path() + ".jsonl").c_str(), 1);
        return made;
    }();
    return *m;
}

qmi_client_type open_uim(qmi_client_ind_cb cb = nullptr, void *data = nullptr)
{
    qmi_client_os_params os{};
    qmi_client_type h = nullptr;
    modem(); // before the library looks at the environment
    EXPECT_EQ(QMI_NO_ERR, qmi_client_init_instance(uim_get_service_object_v01(), QMI_CLIENT_INSTANCE_ANY, cb, data,
                                                   &os, 1000, &h));
    return h;
}

int get_eid(qmi_client_type h, uim_get_eid_resp_msg_v01 *resp, unsigned timeout_ms = 2000)
{
    uim_get_eid_req_msg_v01 req{};
    req.slot = UIM_SLOT_1_V01;
    return qmi_client_send_msg_sync(h, QMI_UIM_GET_EID_REQ_V01, &req, sizeof req, resp, sizeof *resp, timeout_ms);
}

size_t held()
{
    std::lock_guard<std::mutex> lock(modem().mu);
    return modem().held.size();
}

// Ahead of the right response comes one the client must not take for it
// (its EID starts with 0xBB, the right one's with 0xAA).
TEST(Qmux, ResponsesMatchServiceClientTransactionAndMessageOnly)
{
    struct Row {
        const char *what;
        std::function<Bytes(uint8_t cid, uint16_t txn)> decoy;
    } rows[] = {
        {"other client id", [](uint8_t c, uint16_t t) { return eid(uint8_t(c + 1), t, 0xBB); }},
        {"other transaction", [](uint8_t c, uint16_t t) { return eid(c, uint16_t(t + 1), 0xBB); }},
        {"other message", [](uint8_t c, uint16_t t) { Bytes f = eid(c, t, 0xBB); f[10] ^= 1; return f; }},
        {"other service", [](uint8_t c, uint16_t t) { Bytes f = eid(c, t, 0xBB); f[4] = 0x03; return f; }},
        {"client's control flags", [](uint8_t c, uint16_t t) { Bytes f = eid(c, t, 0xBB); f[3] = 0; return f; }},
        {"QMI length off by one", [](uint8_t c, uint16_t t) { Bytes f = eid(c, t, 0xBB); f[11]++; return f; }},
        {"request flags", [](uint8_t c, uint16_t t) { Bytes f = eid(c, t, 0xBB); f[6] = 0; return f; }},
        {"noise and a length above any message",
         [](uint8_t, uint16_t) { return Bytes{0x00, 0x7e, 0x01, 0xff, 0x7f, 0x80, kUim, 1, 0x02}; }},
    };
    qmi_client_type h = open_uim();
    ASSERT_NE(nullptr, h);
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        modem().answer([&](uint8_t cid, uint16_t txn) {
            Bytes b = r.decoy(cid, txn), right = eid(cid, txn, 0xAA);
            b.insert(b.end(), right.begin(), right.end());
            return b;
        });
        uim_get_eid_resp_msg_v01 resp{};
        ASSERT_EQ(QMI_NO_ERR, get_eid(h, &resp));
        EXPECT_EQ(0xAA, resp.eid_value[0]);
    }
    qmi_client_release(h);
}

struct Inds {
    std::mutex mu;
    std::vector<unsigned> ids;
};
void on_ind(qmi_client_type, unsigned msg_id, void *, unsigned, void *d)
{
    auto *i = static_cast<Inds *>(d);
    std::lock_guard<std::mutex> lock(i->mu);
    i->ids.push_back(msg_id);
}

// Each handle has a client id of its own, gets the indications for it and
// the broadcast ones, and gives the id back when released.
TEST(Qmux, ClientIdsPerHandleIndicationsAndRelease)
{
    Inds a, b;
    qmi_client_type ha = open_uim(on_ind, &a), hb = open_uim(on_ind, &b);
    ASSERT_TRUE(ha && hb);
    ASSERT_EQ(2u, held());
    std::atomic<uint8_t> cid{0};
    modem().answer([&](uint8_t c, uint16_t txn) { cid = c; return eid(c, txn, 0xAA); });
    uim_get_eid_resp_msg_v01 resp{};
    ASSERT_EQ(QMI_NO_ERR, get_eid(hb, &resp));
    const uint8_t cid_b = cid;
    ASSERT_EQ(QMI_NO_ERR, get_eid(ha, &resp));
    const uint8_t cid_a = cid;
    ASSERT_NE(cid_a, cid_b);
    // Sent before the request, so the request meets them.
    modem().send(frame(kUim, cid_a, 0x04, 0, 0x41, {}));
    modem().send(frame(kUim, cid_b, 0x04, 0, 0x42, {}));
    modem().send(frame(kUim, 0xFF, 0x04, 0, 0x43, {}));
    modem().send(frame(kUim, 0x77, 0x04, 0, 0x44, {})); // an id nobody holds
    ASSERT_EQ(QMI_NO_ERR, get_eid(ha, &resp));
    ASSERT_EQ(QMI_NO_ERR, get_eid(hb, &resp));
    for (int i = 0; i < 200 && (a.ids.size() < 2 || b.ids.size() < 2); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    qmi_client_release(ha);
    qmi_client_release(hb);
    EXPECT_EQ((std::vector<unsigned>{0x41, 0x43}), a.ids);
    EXPECT_EQ((std::vector<unsigned>{0x42, 0x43}), b.ids);
    EXPECT_EQ(0u, held());

    // The record has the request, its response and the indications as sent.
    std::ifstream rec(modem().path() + ".jsonl");
    std::stringstream all;
    all << rec.rdbuf();
    const std::string id = std::to_string(QMI_UIM_GET_EID_REQ_V01);
    for (const std::string &line :
         {"{\"dir\":\"req\",\"service\":11,\"msg_id\":" + id + ",\"txn\":1,\"tlvs\":[{\"type\":1,\"hex\":\"01\"}]}\n",
          "{\"dir\":\"resp\",\"service\":11,\"msg_id\":" + id + ",\"txn\":1,\"tlvs\":[{\"type\":2,\"hex\":\"00000000\"},"
          "{\"type\":16,\"hex\":\"10aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa\"}]}\n",
          std::string("{\"dir\":\"ind\",\"service\":11,\"msg_id\":67,\"txn\":0,\"tlvs\":[]}\n")})
        EXPECT_NE(std::string::npos, all.str().find(line)) << line;
}

// Counting and then listing makes one exchange; a wait in between makes the
// list ask again. Services that do not fit QMUX's byte are never listed.
TEST(Qmux, ServiceListOneExchangeNotAcrossAWait)
{
    auto svc = uim_get_service_object_v01();
    unsigned n = 0, entries = 4;
    qmi_service_info info[4];
    auto queries = [] { std::lock_guard<std::mutex> lock(modem().mu); return modem().version_queries; };
    const int before = queries();
    ASSERT_EQ(QMI_NO_ERR, qmi_client_get_service_list(svc, nullptr, nullptr, &n));
    ASSERT_EQ(QMI_NO_ERR, qmi_client_get_service_list(svc, info, &entries, &n));
    EXPECT_EQ(1u, entries);
    EXPECT_EQ(before + 1, queries());

    ASSERT_EQ(QMI_NO_ERR, qmi_client_get_service_list(svc, nullptr, nullptr, &n));
    modem().mu.lock();
    modem().up.erase(kUim);
    modem().mu.unlock();
    qmi_client_os_params os{};
    qmi_cci_os_signal_wait(&os, 1);
    EXPECT_EQ(QMI_SERVICE_ERR, qmi_client_get_service_list(svc, info, &entries, &n));
    modem().mu.lock();
    modem().up.insert(kUim);
    modem().mu.unlock();

    qmi_idl_service_object wide = *svc;
    wide.service_id = 0xFFE4;
    EXPECT_EQ(QMI_SERVICE_ERR, qmi_client_get_service_list(&wide, nullptr, nullptr, &n));
    qmi_client_type h = nullptr;
    EXPECT_EQ(QMI_SERVICE_ERR, qmi_client_init_instance(&wide, QMI_CLIENT_INSTANCE_ANY, nullptr, nullptr, &os, 0, &h));
}

void on_error(qmi_client_type, qmi_client_error_type e, void *d) { static_cast<std::atomic<int> *>(d)->store(e); }

// A modem restart (CTL Sync) and a hang-up end a pending request with the
// service error at once and run the error callback; the forgotten id is not
// given back, and a new handle works afterwards.
TEST(Qmux, ModemRestartAndHangUpEndPendingRequests)
{
    for (bool hang_up : {false, true}) {
        SCOPED_TRACE(hang_up ? "hang-up" : "sync");
        qmi_client_type h = open_uim();
        ASSERT_NE(nullptr, h);
        std::atomic<int> err{0};
        qmi_client_register_error_cb(h, on_error, &err);
        modem().answer([&](uint8_t, uint16_t) { return Bytes{}; });
        std::thread t([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            if (hang_up)
                return modem().hang_up();
            std::lock_guard<std::mutex> lock(modem().mu);
            modem().held.clear();
            modem().send(frame(0, 0, 0x02, 0, 0x27, {}));
        });
        uim_get_eid_resp_msg_v01 resp{};
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(QMI_SERVICE_ERR, get_eid(h, &resp, 5000));
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
        t.join();
        for (int i = 0; i < 200 && !err; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        EXPECT_EQ(QMI_SERVICE_ERR, err.load());
        qmi_client_release(h);
        modem().mu.lock();
        EXPECT_EQ(0, modem().stray_releases);
        modem().mu.unlock();
        modem().answer([](uint8_t cid, uint16_t txn) { return eid(cid, txn, 0xAA); });
        qmi_client_type again = open_uim();
        ASSERT_NE(nullptr, again);
        EXPECT_EQ(QMI_NO_ERR, get_eid(again, &resp));
        qmi_client_release(again);
    }
}

} // namespace
