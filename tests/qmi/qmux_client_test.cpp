// The client library on the QMUX transport against a modem the test plays on a pseudo-terminal.
#include <qmi_client.h>
#include <user_identity_module_v01.h>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <functional>
#include <future>
#include <set>
#include <sstream>
#include <thread>

#include "process.h"

namespace {

using Bytes = std::vector<uint8_t>;
using namespace std::chrono_literals;
constexpr uint8_t kUim = QMI_UIM_SERVICE_ID_V01;

// A frame from the modem (TLVs after a success result); service 0 (CTL) has a one-byte transaction id.
Bytes frame(uint8_t svc, uint8_t cid, uint8_t flags, uint16_t txn, uint16_t msg, const Bytes &tlvs, bool ok = 1)
{
    Bytes f{0x01, 0, 0, 0x80, svc, cid, flags, uint8_t(txn)}, area = ok ? Bytes{2, 4, 0, 0, 0, 0, 0} : Bytes{};
    area.insert(area.end(), tlvs.begin(), tlvs.end());
    if (svc != 0)
        f.push_back(uint8_t(txn >> 8));
    f.insert(f.end(), {uint8_t(msg), uint8_t(msg >> 8), uint8_t(area.size()), uint8_t(area.size() >> 8)});
    f.insert(f.end(), area.begin(), area.end());
    f[1] = uint8_t(f.size() - 1);
    return f;
}
// A GET_EID response whose EID is 16 times `tag`.
Bytes eid(uint8_t cid, uint16_t txn, uint8_t tag)
{
    Bytes t{0x10, 0x11, 0x00, 0x10};
    t.resize(t.size() + 16, tag);
    return frame(kUim, cid, 0x02, txn, QMI_UIM_GET_EID_REQ_V01, t);
}

// A pseudo-terminal behind a fixed link (reopened after a hang-up): CTL answered, UIM by the frames `answer` makes.
class Modem {
public:
    std::mutex mu; // guards the members up to thread_
    std::function<Bytes(uint8_t cid, uint16_t txn)> answer;
    std::set<std::pair<uint8_t, uint8_t>> held; // client ids given out and not given back
    std::set<uint8_t> up{kUim};
    int version_queries = 0, stray_releases = 0; // releases of ids not held

    Modem() : link_(dir_.path() + "/modem") { open_pty(); }
    const std::string &path() const { return link_; }
    template <class F> auto locked(F f)
    {
        std::lock_guard<std::mutex> lock(mu);
        return f();
    }
    void send(const Bytes &b) { EXPECT_EQ(write(master_, b.data(), b.size()), ssize_t(b.size())); }
    void set_answer(std::function<Bytes(uint8_t, uint16_t)> a) { locked([&] { answer = std::move(a); }); }
    void stop()
    {
        stop_ = true;
        thread_.join();
        close(master_);
    }
    void hang_up()
    {
        stop();
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
        thread_ = std::thread([this] {
            Bytes in;
            uint8_t buf[4096];
            while (!stop_) {
                pollfd p{master_, POLLIN, 0};
                ssize_t n = poll(&p, 1, 20) == 1 ? read(master_, buf, sizeof buf) : 0;
                in.insert(in.end(), buf, buf + std::max<ssize_t>(n, 0));
                for (size_t len; in.size() >= 3 && in.size() >= (len = 1u + (in[1] | in[2] << 8));) {
                    on_frame(Bytes(in.begin(), in.begin() + ssize_t(len)));
                    in.erase(in.begin(), in.begin() + ssize_t(len));
                }
            }
        });
    }
    void on_frame(const Bytes &f)
    {
        if (f[4] != 0) {
            auto a = locked([&] { return answer; });
            return a ? send(a(f[5], uint16_t(f[7] | f[8] << 8))) : void();
        }
        const uint16_t msg = uint16_t(f[8] | f[9] << 8);
        Bytes tlv = locked([&] {
            if (msg == 0x21) {
                ++version_queries;
                Bytes t{0x01, uint8_t(1 + 5 * up.size()), 0x00, uint8_t(up.size())};
                for (uint8_t s : up)
                    t.insert(t.end(), {s, 1, 0, 0, 0});
                return t;
            }
            if (msg == 0x22) {
                held.emplace(f[15], next_cid_);
                return Bytes{0x01, 0x02, 0x00, f[15], next_cid_++};
            }
            stray_releases += msg == 0x23 && held.erase({f[15], f[16]}) == 0;
            return Bytes{};
        });
        send(frame(0, 0, 0x01, f[7], msg, tlv));
    }

    uint8_t next_cid_ = 1;
    kvn_test::TempDir dir_;
    std::string link_;
    int master_ = -1;
    std::thread thread_;
    std::atomic<bool> stop_{false};
};

// Made before the library's first call, which reads the environment.
Modem &modem()
{
    static Modem *m = [] {
        auto *made = new Modem;
        setenv("KVN_QMI_DEVICE", made->path().c_str(), 1);
        setenv("KVN_QMI_RECORD", (made->path() + ".jsonl").c_str(), 1);
        std::atexit([] { modem().stop(); });
        return made;
    }();
    return *m;
}

qmi_client_type open_uim(qmi_client_ind_cb cb = nullptr, void *data = nullptr)
{
    qmi_client_os_params os{};
    qmi_client_type h = nullptr;
    modem();
    EXPECT_EQ(QMI_NO_ERR, qmi_client_init_instance(uim_get_service_object_v01(), QMI_CLIENT_INSTANCE_ANY, cb, data,
                                                   &os, 1000, &h));
    return h;
}

int get_eid(qmi_client_type h, uim_get_eid_resp_msg_v01 *resp, unsigned timeout_ms = 2000)
{
    uim_get_eid_req_msg_v01 req{UIM_SLOT_1_V01};
    return qmi_client_send_msg_sync(h, QMI_UIM_GET_EID_REQ_V01, &req, sizeof req, resp, sizeof *resp, timeout_ms);
}

// Ahead of the right response comes the right one with one byte changed (offset, xor), or noise: not taken for it.
TEST(Qmux, ResponsesMatchServiceClientTransactionAndMessageOnly)
{
    struct Row {
        const char *what;
        size_t at;
        uint8_t x;
    } rows[] = {{"client id", 5, 1},     {"transaction", 7, 1},   {"message", 9, 1},       {"service", 4, 8},
                {"control flags", 3, 0x80}, {"QMI length", 11, 1}, {"request flags", 6, 2}, {"noise", 0, 0}};
    qmi_client_type h = open_uim();
    ASSERT_NE(nullptr, h);
    for (const Row &r : rows) {
        SCOPED_TRACE(r.what);
        modem().set_answer([r](uint8_t cid, uint16_t txn) {
            // Noise: a frame start with a length above any message.
            Bytes b = r.x ? eid(cid, txn, 0xBB) : Bytes{0x00, 0x7e, 0x01, 0xff, 0x7f, 0x80, kUim, 1, 0x02},
                  right = eid(cid, txn, 0xAA);
            b[r.at] ^= r.x;
            b.insert(b.end(), right.begin(), right.end());
            return b;
        });
        uim_get_eid_resp_msg_v01 resp{};
        EXPECT_EQ(QMI_NO_ERR, get_eid(h, &resp));
        EXPECT_EQ(0xAA, resp.eid_value[0]);
    }
    qmi_client_release(h);
}

void on_ind(qmi_client_type, unsigned msg_id, void *, unsigned, void *d)
{
    modem().locked([&] { static_cast<std::vector<unsigned> *>(d)->push_back(msg_id); });
}

// Each handle has a client id, gets its own and the broadcast indications, gives the id back; all is recorded.
TEST(Qmux, ClientIdsPerHandleIndicationsAndRelease)
{
    std::vector<unsigned> a, b; // indications, under the modem's lock
    qmi_client_type ha = open_uim(on_ind, &a), hb = open_uim(on_ind, &b);
    ASSERT_TRUE(ha && hb);
    std::atomic<uint8_t> cid{0};
    modem().set_answer([&](uint8_t c, uint16_t txn) {
        cid = c;
        return eid(c, txn, 0xAA);
    });
    uim_get_eid_resp_msg_v01 resp{};
    ASSERT_EQ(QMI_NO_ERR, get_eid(hb, &resp));
    const uint8_t cid_b = cid;
    ASSERT_EQ(QMI_NO_ERR, get_eid(ha, &resp));
    ASSERT_NE(cid, cid_b);
    const std::pair<uint8_t, uint16_t> inds[] = {{cid, 0x41}, {cid_b, 0x42}, {0xFF, 0x43}, {0x77, 0x44}};
    for (auto [to, msg] : inds) // 0x77: an id nobody holds
        modem().send(frame(kUim, to, 0x04, 0, msg, {}, false));
    ASSERT_EQ(QMI_NO_ERR, get_eid(ha, &resp)); // meets the indications sent before it
    ASSERT_EQ(QMI_NO_ERR, get_eid(hb, &resp));
    kvn_test::wait_until([&] { return modem().locked([&] { return a.size() + b.size(); }) >= 4; }, 2000ms);
    qmi_client_release(ha);
    qmi_client_release(hb);
    EXPECT_EQ((std::vector<unsigned>{0x41, 0x43}), a);
    EXPECT_EQ((std::vector<unsigned>{0x42, 0x43}), b);
    EXPECT_EQ(0u, modem().locked([] { return modem().held.size(); }));

    std::stringstream rec;
    rec << std::ifstream(modem().path() + ".jsonl").rdbuf();
    const std::string id = std::to_string(QMI_UIM_GET_EID_REQ_V01);
    for (const std::string &line :
         {R"({"dir":"req","service":11,"msg_id":)" + id + R"(,"txn":1,"tlvs":[{"type":1,"hex":"01"}]})",
          std::string(R"({"dir":"ind","service":11,"msg_id":67,"txn":0,"tlvs":[]})")})
        EXPECT_NE(std::string::npos, rec.str().find(line + "\n")) << line;
}

void on_error(qmi_client_type, qmi_client_error_type e, void *d) { static_cast<std::atomic<int> *>(d)->store(e); }

// Counting then listing is one exchange, asked again after a wait or restart; a service id above a byte is never up.
TEST(Qmux, ServiceListOneExchangeNotAcrossAWaitOrRestart)
{
    auto svc = uim_get_service_object_v01();
    unsigned n = 0, entries = 4;
    qmi_service_info info[4];
    auto queries = [] { return modem().locked([] { return modem().version_queries; }); };
    const int before = queries();
    ASSERT_EQ(QMI_NO_ERR, qmi_client_get_service_list(svc, nullptr, nullptr, &n));
    ASSERT_EQ(QMI_NO_ERR, qmi_client_get_service_list(svc, info, &entries, &n));
    EXPECT_EQ(1u, entries);
    EXPECT_EQ(before + 1, queries());

    ASSERT_EQ(QMI_NO_ERR, qmi_client_get_service_list(svc, nullptr, nullptr, &n));
    modem().locked([] { return modem().up.erase(kUim); });
    qmi_client_os_params os{};
    qmi_cci_os_signal_wait(&os, 1);
    EXPECT_EQ(QMI_SERVICE_ERR, qmi_client_get_service_list(svc, info, &entries, &n));
    modem().locked([] { return modem().up.insert(kUim); });

    std::atomic<int> err{0};
    qmi_client_type h = open_uim();
    qmi_client_register_error_cb(h, on_error, &err); // to see the restart taken in
    ASSERT_EQ(QMI_NO_ERR, qmi_client_get_service_list(svc, nullptr, nullptr, &n));
    const int asked = queries();
    modem().send(frame(0, 0, 0x02, 0, 0x27, {}, false));
    kvn_test::wait_until([&] { return err != 0; }, 2000ms);
    ASSERT_EQ(QMI_NO_ERR, qmi_client_get_service_list(svc, info, &entries, &n));
    EXPECT_EQ(asked + 1, queries());
    qmi_client_release(h);

    qmi_idl_service_object wide = *svc;
    wide.service_id = 0xFFE4;
    EXPECT_EQ(QMI_SERVICE_ERR, qmi_client_get_service_list(&wide, nullptr, nullptr, &n));
    EXPECT_EQ(QMI_SERVICE_ERR, qmi_client_init_instance(&wide, QMI_CLIENT_INSTANCE_ANY, nullptr, nullptr, &os, 0, &h));
}

// A modem restart (CTL Sync) or a hang-up fails a pending request at once; the forgotten id is not given back.
TEST(Qmux, ModemRestartAndHangUpEndPendingRequests)
{
    for (bool hang_up : {false, true}) {
        SCOPED_TRACE(hang_up ? "hang-up" : "sync");
        qmi_client_type h = open_uim();
        ASSERT_NE(nullptr, h);
        std::atomic<int> err{0};
        qmi_client_register_error_cb(h, on_error, &err);
        modem().set_answer([hang_up](uint8_t, uint16_t) {
            modem().locked([] { modem().held.clear(); });
            return hang_up ? Bytes{} : frame(0, 0, 0x02, 0, 0x27, {}, false);
        });
        uim_get_eid_resp_msg_v01 resp{};
        const auto start = std::chrono::steady_clock::now();
        auto rc = std::async(std::launch::async, [&] { return get_eid(h, &resp, 5000); });
        if (hang_up && rc.wait_for(std::chrono::milliseconds(100)) == std::future_status::timeout)
            modem().hang_up();
        EXPECT_EQ(QMI_SERVICE_ERR, rc.get());
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
        EXPECT_TRUE(kvn_test::wait_until([&] { return err == QMI_SERVICE_ERR; }, 2000ms));
        qmi_client_release(h);
        EXPECT_EQ(0, modem().locked([] { return modem().stray_releases; }));
        modem().set_answer([](uint8_t cid, uint16_t txn) { return eid(cid, txn, 0xAA); });
        qmi_client_type again = open_uim();
        EXPECT_EQ(QMI_NO_ERR, get_eid(again, &resp));
        qmi_client_release(again);
    }
}

} // namespace
