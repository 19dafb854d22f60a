// bench_qmi.cpp - costs of the QMI client library: encode and decode of the
// largest records of the UIM tables, and a synchronous request against an
// in-process handset beside a bare socket exchange of the same bytes with the
// same handset, measured in the same run. BM_RoundTripRatio alternates the two
// and reports library time / bare time as the "ratio" counter.
//
// The round trips run with every thread of the process on one CPU: on a small
// shared machine a wake-up that crosses CPUs costs several times a whole
// exchange and lands on one client or the other by chance, which would
// measure the scheduler rather than the library.
#include "kvn_wire.h"

#include <qmi_client.h>
#include <user_identity_module_v01.h>

#include <benchmark/benchmark.h>

#include <pthread.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

qmi_idl_service_object_type uim() { return uim_get_service_object_v01(); }

/* ---- records at their largest ---- */

uim_get_card_status_resp_msg_v01 full_card_status()
{
    uim_get_card_status_resp_msg_v01 r{};
    r.card_status_valid = 1;
    r.card_status.card_info_len = QMI_UIM_CARDS_MAX_V01;
    for (auto &c : r.card_status.card_info) {
        c.card_state = UIM_CARD_STATE_PRESENT_V01;
        c.app_info_len = QMI_UIM_APPS_MAX_V01;
        for (auto &a : c.app_info)
            a.aid_value_len = QMI_UIM_AID_MAX_V01;
    }
    r.hot_swap_valid = 1;
    r.hot_swap_len = QMI_UIM_CARDS_MAX_V01;
    r.card_status_validity_valid = 1;
    r.card_status_validity_len = QMI_UIM_CARDS_MAX_V01;
    r.extended_card_status_valid = 1;
    auto &e = r.extended_card_status;
    e.index_gw_len = e.index_1x_len = QMI_UIM_EXTENDED_SESSIONS_MAX_V01;
    e.card_info_len = QMI_UIM_EXTENDED_CARDS_MAX_V01;
    for (auto &c : e.card_info) {
        c.app_info_len = QMI_UIM_EXTENDED_APPS_MAX_V01;
        for (auto &a : c.app_info)
            a.aid_value_len = QMI_UIM_AID_MAX_V01;
    }
    r.extended_hot_swap_valid = 1;
    r.extended_hot_swap_len = QMI_UIM_EXTENDED_CARDS_MAX_V01;
    return r;
}

uim_send_apdu_req_msg_v01 full_apdu_request()
{
    uim_send_apdu_req_msg_v01 r{};
    r.slot = UIM_SLOT_1_V01;
    r.apdu_len = QMI_UIM_APDU_DATA_MAX_V01;
    std::memset(r.apdu, 0x5A, sizeof(r.apdu));
    r.channel_id_valid = 1;
    r.channel_id = 1;
    return r;
}

template <typename Rec>
void bench_encode(benchmark::State &state, qmi_idl_type_of_message_type kind, uint16_t id, const Rec &rec)
{
    Bytes out(16384);
    uint32_t len = 0;
    for (auto _ : state) {
        int rc = qmi_idl_message_encode(uim(), kind, id, &rec, sizeof(rec), out.data(), uint32_t(out.size()), &len);
        benchmark::DoNotOptimize(rc);
        benchmark::DoNotOptimize(out.data());
    }
    state.counters["bytes"] = len;
}

template <typename Rec>
void bench_decode(benchmark::State &state, qmi_idl_type_of_message_type kind, uint16_t id, const Rec &rec)
{
    Bytes wire(16384);
    uint32_t len = 0;
    if (qmi_idl_message_encode(uim(), kind, id, &rec, sizeof(rec), wire.data(), uint32_t(wire.size()), &len) != 0) {
        state.SkipWithError("encode failed");
        return;
    }
    auto back = std::make_unique<Rec>();
    for (auto _ : state) {
        int rc = qmi_idl_message_decode(uim(), kind, id, wire.data(), len, back.get(), sizeof(Rec));
        benchmark::DoNotOptimize(rc);
        benchmark::DoNotOptimize(back.get());
    }
    state.counters["bytes"] = len;
}

void BM_EncodeCardStatusResponse(benchmark::State &s)
{
    static const auto rec = full_card_status();
    bench_encode(s, QMI_IDL_RESPONSE, QMI_UIM_GET_CARD_STATUS_RESP_V01, rec);
}
void BM_DecodeCardStatusResponse(benchmark::State &s)
{
    static const auto rec = full_card_status();
    bench_decode(s, QMI_IDL_RESPONSE, QMI_UIM_GET_CARD_STATUS_RESP_V01, rec);
}
void BM_EncodeApduRequest(benchmark::State &s)
{
    static const auto rec = full_apdu_request();
    bench_encode(s, QMI_IDL_REQUEST, QMI_UIM_SEND_APDU_REQ_V01, rec);
}
void BM_DecodeApduRequest(benchmark::State &s)
{
    static const auto rec = full_apdu_request();
    bench_decode(s, QMI_IDL_REQUEST, QMI_UIM_SEND_APDU_REQ_V01, rec);
}
BENCHMARK(BM_EncodeCardStatusResponse);
BENCHMARK(BM_DecodeCardStatusResponse);
BENCHMARK(BM_EncodeApduRequest);
BENCHMARK(BM_DecodeApduRequest);

/* ---- an in-process handset ---- */

// Keeps the calling thread, and every thread it starts meanwhile, on the CPU
// it is running on; restores the old mask when it goes.
class OneCpu {
public:
    OneCpu()
    {
        pthread_getaffinity_np(pthread_self(), sizeof(old_), &old_);
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(sched_getcpu(), &one);
        pthread_setaffinity_np(pthread_self(), sizeof(one), &one);
    }
    ~OneCpu() { pthread_setaffinity_np(pthread_self(), sizeof(old_), &old_); }

private:
    cpu_set_t old_;
};

// Accepts connections, answers CONNECT, and answers every QMI request with
// the same canned response TLVs (a full APDU response), whoever sent it.
class Handset {
public:
    explicit Handset(Bytes response) : response_(std::move(response))
    {
        path_ = "/tmp/kvn-bench-qmi-" + std::to_string(getpid()) + ".sock";
        setenv("KVN_SIM_SOCKET", path_.c_str(), 1);
        ::unlink(path_.c_str());
        fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::strncpy(addr.sun_path, path_.c_str(), sizeof(addr.sun_path) - 1);
        if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) != 0 || listen(fd_, 16) != 0)
            throw std::runtime_error("cannot listen");
        acceptor_ = std::thread([this] { accept_loop(); });
    }
    ~Handset()
    {
        ::shutdown(fd_, SHUT_RDWR);
        acceptor_.join();
        std::lock_guard<std::mutex> lock(mu_);
        for (int c : conns_)
            ::shutdown(c, SHUT_RDWR);
        for (auto &t : threads_)
            t.join();
        ::close(fd_);
        ::unlink(path_.c_str());
    }
    const std::string &path() const { return path_; }

private:
    void accept_loop()
    {
        for (;;) {
            int c = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
            if (c < 0)
                return;
            std::lock_guard<std::mutex> lock(mu_);
            conns_.push_back(c);
            threads_.emplace_back([this, c] { serve(c); });
        }
    }
    void serve(int c)
    {
        while (auto p = kvn_wire::read_packet(c, -1)) {
            kvn_wire::Header h = p->hdr;
            if (h.kind == kvn_wire::Kind::Connect) {
                h.kind = kvn_wire::Kind::ConnectOk;
                h.client = 1;
                kvn_wire::write_packet(c, h, {});
            } else if (h.kind == kvn_wire::Kind::Qmi) {
                auto q = kvn_wire::decode_qmi(p->payload.data(), p->payload.size());
                if (!q)
                    break;
                kvn_wire::QmiHeader r{kvn_wire::kQmiResponse, q->txn, q->msg_id, 0};
                kvn_wire::write_packet(c, h, kvn_wire::encode_qmi(r, response_.data(), response_.size()));
            }
        }
        ::close(c);
    }

    Bytes response_;
    std::string path_;
    int fd_ = -1;
    std::thread acceptor_;
    std::mutex mu_;
    std::vector<int> conns_;
    std::vector<std::thread> threads_;
};

Bytes apdu_response_tlvs()
{
    uim_send_apdu_resp_msg_v01 r{};
    r.apdu_valid = 1;
    r.apdu_len = QMI_UIM_APDU_DATA_MAX_V01;
    Bytes out(2048);
    uint32_t len = 0;
    qmi_idl_message_encode(uim(), QMI_IDL_RESPONSE, QMI_UIM_SEND_APDU_RESP_V01, &r, sizeof(r), out.data(),
                           uint32_t(out.size()), &len);
    out.resize(len);
    return out;
}

// The request a library client puts on the wire for full_apdu_request(), sent
// as is by the bare client.
Bytes apdu_request_packet_payload()
{
    const auto req = full_apdu_request();
    Bytes tlvs(2048);
    uint32_t len = 0;
    qmi_idl_message_encode(uim(), QMI_IDL_REQUEST, QMI_UIM_SEND_APDU_REQ_V01, &req, sizeof(req), tlvs.data(),
                           uint32_t(tlvs.size()), &len);
    kvn_wire::QmiHeader q{kvn_wire::kQmiRequest, 1, QMI_UIM_SEND_APDU_REQ_V01, 0};
    return kvn_wire::encode_qmi(q, tlvs.data(), len);
}

// One request/response with plain socket calls on the caller's thread.
struct BareClient {
    int fd;
    Bytes payload = apdu_request_packet_payload();
    kvn_wire::Header h;

    explicit BareClient(const std::string &path) : fd(kvn_wire::connect_unix(path))
    {
        h.kind = kvn_wire::Kind::Qmi;
        h.service = QMI_UIM_SERVICE_ID_V01;
    }
    ~BareClient() { ::close(fd); }
    bool exchange()
    {
        if (!kvn_wire::write_packet(fd, h, payload))
            return false;
        auto p = kvn_wire::read_packet(fd, 5000);
        return p && p->payload.size() > kvn_wire::kQmiHeaderSize;
    }
};

struct LibClient {
    qmi_client_type h = nullptr;
    uim_send_apdu_req_msg_v01 req = full_apdu_request();
    std::unique_ptr<uim_send_apdu_resp_msg_v01> resp = std::make_unique<uim_send_apdu_resp_msg_v01>();

    LibClient()
    {
        qmi_client_os_params os{};
        qmi_client_init_instance(uim(), QMI_CLIENT_INSTANCE_ANY, nullptr, nullptr, &os, 2000, &h);
    }
    ~LibClient()
    {
        if (h)
            qmi_client_release(h);
    }
    bool exchange()
    {
        return qmi_client_send_msg_sync(h, QMI_UIM_SEND_APDU_REQ_V01, &req, sizeof(req), resp.get(), sizeof(*resp),
                                        5000) == QMI_NO_ERR;
    }
};

void BM_RoundTripBare(benchmark::State &state)
{
    OneCpu pin;
    Handset sim(apdu_response_tlvs());
    BareClient bare(sim.path());
    for (auto _ : state)
        if (!bare.exchange())
            state.SkipWithError("bare exchange failed");
}

void BM_RoundTripLibrary(benchmark::State &state)
{
    OneCpu pin;
    Handset sim(apdu_response_tlvs());
    LibClient lib;
    if (!lib.h) {
        state.SkipWithError("client init failed");
        return;
    }
    for (auto _ : state)
        if (!lib.exchange())
            state.SkipWithError("send failed");
}

// Alternates a bare exchange and a library exchange with the same handset
// and reports the library's time as a multiple of the bare one.
void BM_RoundTripRatio(benchmark::State &state)
{
    OneCpu pin;
    using clock = std::chrono::steady_clock;
    Handset sim(apdu_response_tlvs());
    BareClient bare(sim.path());
    LibClient lib;
    if (!lib.h) {
        state.SkipWithError("client init failed");
        return;
    }
    clock::duration bare_t{}, lib_t{};
    for (auto _ : state) {
        auto t0 = clock::now();
        bool ok = bare.exchange();
        auto t1 = clock::now();
        ok = lib.exchange() && ok;
        auto t2 = clock::now();
        if (!ok)
            state.SkipWithError("exchange failed");
        bare_t += t1 - t0;
        lib_t += t2 - t1;
    }
    const double n = double(state.iterations());
    state.counters["bare_us"] = std::chrono::duration<double, std::micro>(bare_t).count() / n;
    state.counters["library_us"] = std::chrono::duration<double, std::micro>(lib_t).count() / n;
    state.counters["ratio"] = double(lib_t.count()) / double(bare_t.count());
}

BENCHMARK(BM_RoundTripBare)->UseRealTime();
BENCHMARK(BM_RoundTripLibrary)->UseRealTime();
BENCHMARK(BM_RoundTripRatio)->UseRealTime()->MinTime(2.0);

} // namespace

BENCHMARK_MAIN();
