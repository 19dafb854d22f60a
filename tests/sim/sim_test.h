// sim_test.h - kvn-sim's tests share a raw socket client, the extend and NV/EFS records, an in-process handset.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <thread>

#include "control.h"
#include "daemon.h"
#include "handset.h"
#include "kvn_wire.h"
#include "process.h"
#include "router.h"
#include "scenario.h"
#include "services/services.h"
#include "sim_handset.h"
#include "tlv.h"

namespace sim_test {

using namespace kvn_sim;
using kvn_test::ProcessResult;
using kvn_test::SimHandset;
using kvn_wire::get_u32;
using kvn_wire::Kind;
using kvn_wire::put_u32;
using nlohmann::json;
namespace fs = std::filesystem;
constexpr uint32_t kExtend = 0xFFE4;

inline Bytes packet(Kind kind, uint32_t service = 0, const Bytes &payload = {})
{
    return kvn_wire::encode_packet({kind, 0, service}, payload);
}

// The extend request record: TLV 0x01 cmd_id, TLV 0x02 data_len, TLV 0x10 with all 512 data bytes.
inline Bytes extend_record(uint32_t cmd_id, const Bytes &data)
{
    Bytes block(512, 0);
    std::copy_n(data.begin(), std::min<size_t>(data.size(), 512), block.begin());
    TlvWriter w;
    w.add_u32(0x01, cmd_id);
    w.add_u32(0x02, static_cast<uint32_t>(data.size()));
    w.add(0x10, block.data(), block.size());
    return w.take();
}

struct ExtendResponse {
    uint32_t result = 0, data_len = 0;
    Bytes data; // TLV 0x10 as carried (512 bytes), empty when absent
    bool operator==(const ExtendResponse &) const = default;
};

// Parses a QMI packet carrying an extend response; nullopt when malformed.
inline std::optional<ExtendResponse> parse_extend(const kvn_wire::Packet &p, uint16_t *txn = nullptr)
{
    const Bytes &b = p.payload;
    auto q = p.hdr.kind == Kind::Qmi ? kvn_wire::decode_qmi(b.data(), b.size()) : std::nullopt;
    auto t = q && q->flags == kvn_wire::kQmiResponse ? parse_tlvs(std::span(b).subspan(kvn_wire::kQmiHeaderSize))
                                                     : std::nullopt;
    const Tlv *result = t ? find_tlv(*t, 0x01) : nullptr, *len = t ? find_tlv(*t, 0x02) : nullptr;
    if (!result || !len || result->value.size() != 4 || len->value.size() != 4)
        return std::nullopt;
    if (txn)
        *txn = q->txn;
    const Tlv *data = find_tlv(*t, 0x10);
    return ExtendResponse{get_u32(result->value.data()), get_u32(len->value.data()),
                          data ? Bytes(data->value.begin(), data->value.end()) : Bytes{}};
}

class RawClient {
public:
    explicit RawClient(const std::string &socket) : fd_(kvn_wire::connect_unix(socket)) {}
    int fd() const { return fd_.get(); }
    bool send(Kind kind, uint32_t service, const Bytes &payload = {})
    {
        return kvn_wire::write_packet(fd(), {kind, 0, service}, payload);
    }
    bool send_raw(const Bytes &bytes) { return kvn_wire::write_all(fd(), bytes.data(), bytes.size()); }
    std::optional<kvn_wire::Packet> read(int timeout_ms = 3000) { return kvn_wire::read_packet(fd(), timeout_ms); }
    // The kind of the next packet, Kind{0} when none came.
    Kind next_kind(int timeout_ms = 3000)
    {
        auto p = read(timeout_ms);
        return p ? p->hdr.kind : Kind{0};
    }
    // CONNECT to a service; true on CONNECT_OK.
    bool bind(uint32_t service)
    {
        service_ = service;
        auto p = send(Kind::Connect, service) ? read() : std::nullopt;
        return p && p->hdr.kind == Kind::ConnectOk && p->hdr.service == service;
    }
    bool request(uint16_t msg_id, uint16_t txn, const Bytes &tlvs)
    {
        kvn_wire::QmiHeader q{kvn_wire::kQmiRequest, txn, msg_id, static_cast<uint16_t>(tlvs.size())};
        return send(Kind::Qmi, service_, kvn_wire::encode_qmi(q, tlvs.data(), tlvs.size()));
    }
    // An extend request 0x0002 and its parsed response; its txn goes to *got_txn.
    std::optional<ExtendResponse> ask(uint16_t txn, const Bytes &tlvs, uint16_t *got_txn = nullptr)
    {
        auto p = request(2, txn, tlvs) ? read() : std::nullopt;
        return p ? parse_extend(*p, got_txn) : std::nullopt;
    }
    // True when the peer closed the connection (within timeout_ms).
    bool closed_by_peer(int timeout_ms = 3000) const
    {
        pollfd p{fd(), POLLIN, 0};
        uint8_t b;
        return poll(&p, 1, timeout_ms) > 0 && ::read(fd(), &b, 1) == 0;
    }

private:
    UniqueFd fd_;
    uint32_t service_ = 0;
};

// A command-2 (NV/EFS) payload of 512 bytes.
struct NvEfsRequest {
    uint8_t op = 0, sub = 0;
    uint16_t id = 0; // NV id or transfer instance
    std::string path;
    uint32_t total = 0, chunk = 0, position = 0;
    Bytes data;
    Bytes encode() const
    {
        Bytes b(512, 0);
        b[0] = op;
        b[1] = sub;
        kvn_wire::put_u16(&b[2], id);
        b[4] = static_cast<uint8_t>(path.size());
        std::copy_n(path.begin(), std::min<size_t>(path.size(), 71), b.begin() + 5);
        put_u32(&b[76], total);
        put_u32(&b[80], chunk);
        put_u32(&b[84], position);
        std::copy_n(data.begin(), std::min<size_t>(data.size(), 424), b.begin() + 88);
        return b;
    }
};

struct NvEfsReply {
    uint32_t len_all = 0, len_send = 0;
    int32_t result = 0;
    Bytes data; // len_send bytes (bounded by 424)
    bool operator==(const NvEfsReply &) const = default;
};

inline NvEfsReply decode_nvefs(const Bytes &d)
{
    NvEfsReply r;
    if (d.size() < 20)
        return r;
    r.len_all = get_u32(&d[4]);
    r.len_send = get_u32(&d[8]);
    r.result = static_cast<int32_t>(get_u32(&d[16]));
    r.data.assign(d.begin() + 20, d.begin() + 20 + std::min<ptrdiff_t>({r.len_send, 424, ptrdiff_t(d.size()) - 20}));
    return r;
}

// One command-2 exchange on a bound extend client; nullopt when no well-formed reply came.
inline std::optional<NvEfsReply> nvefs(RawClient &c, const NvEfsRequest &rq, uint16_t txn = 1)
{
    auto r = c.ask(txn, extend_record(2, rq.encode()));
    if (!r || r->result != 0 || r->data_len != 444 || r->data.size() != 512)
        return std::nullopt;
    return decode_nvefs(Bytes(r->data.begin(), r->data.begin() + 444));
}

inline std::optional<kvn_wire::Packet> exchange_text(const std::string &socket, Kind kind, const std::string &text)
{
    return kvn_wire::exchange(socket, {kind}, Bytes(text.begin(), text.end()), 5000);
}

inline ProcessResult sim_bin(std::vector<std::string> args)
{
    args.insert(args.begin(), kvn_test::kvn_sim_bin());
    return kvn_test::run_process(args);
}

// A control request over the socket (status by default); null when no JSON answer came.
inline json control(const std::string &socket, const std::string &req = R"({"op":"status"})")
{
    auto r = exchange_text(socket, Kind::Control, req);
    return r ? json::parse(r->payload.begin(), r->payload.end(), nullptr, false) : json();
}

// The daemon's pid as its status reports it, -1 when it does not answer.
inline int daemon_pid(const SimHandset &sim)
{
    json st = control(sim.socket());
    return st.is_object() ? st["pid"].get<int>() : -1;
}

inline size_t count(const std::string &text, const std::string &what)
{
    size_t n = 0;
    for (size_t pos = text.find(what); pos != std::string::npos; pos = text.find(what, pos + 1))
        ++n;
    return n;
}

inline mode_t mode_of(const fs::path &p)
{
    struct stat st {};
    lstat(p.c_str(), &st);
    return st.st_mode & 07777;
}

inline std::string slurp(const fs::path &p)
{
    std::ifstream in(p, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline int listen_at(const std::string &path, int flags = 0)
{
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::snprintf(a.sun_path, sizeof a.sun_path, "%s", path.c_str());
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0);
    EXPECT_EQ(::bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a), 0) << path;
    EXPECT_EQ(listen(fd, 64), 0);
    return fd;
}

// A handset on a fresh state directory with every service, a router and its control handler.
struct Bench {
    kvn_test::TempDir dir;
    Handset h{dir.path() + "/state"};
    std::unique_ptr<Router> router;
    Router::ControlHandler ctl;

    explicit Bench(RouterLimits limits = {})
    {
        std::string err;
        EXPECT_TRUE(h.init(&err)) << err;
        register_all_services(h);
        router = std::make_unique<Router>(h, -1, -1, limits);
        ctl = make_control_handler(h, *router, DaemonInfo{"sock", "state"});
        router->set_control(ctl);
    }
    fs::path state() const { return dir.path() + "/state"; }
    json call(const json &req, bool want_ok)
    {
        bool ok = !want_ok;
        json reply = ctl(req, &ok);
        EXPECT_EQ(ok, want_ok) << req.dump().substr(0, 200) << " -> " << reply;
        return reply;
    }
    void expect_refused(const json &req, const std::string &why)
    {
        std::string e = call(req, false).value("error", "");
        EXPECT_NE(e.find(why), std::string::npos) << req.dump().substr(0, 200) << " -> " << e;
    }
    bool load(const std::string &text) // a scenario that must apply
    {
        std::string err;
        bool ok = apply_scenario(h, json::parse(text), &err);
        EXPECT_TRUE(ok) << err;
        return ok;
    }
    // The response TLVs of one request to a service, and its result TLV as hex ("none" when absent).
    std::vector<Tlv> ask(uint32_t service, uint16_t msg, const std::string &hex)
    {
        request_ = *from_hex(hex); // the TLVs point into both
        reply_ = h.services.find(service)->service->handle(QmiRequest{1, msg, 1, request_});
        auto t = parse_tlvs(reply_);
        EXPECT_TRUE(t) << hex;
        return t ? *t : std::vector<Tlv>{};
    }
    static std::string tlv_hex(const std::vector<Tlv> &t, uint8_t type)
    {
        const Tlv *r = find_tlv(t, type);
        return r ? to_hex(Bytes(r->value.begin(), r->value.end())) : "none";
    }
    std::string result(uint32_t service, uint16_t msg, const std::string &hex)
    {
        return tlv_hex(ask(service, msg, hex), 0x02);
    }
    Bytes request_, reply_;
};

} // namespace sim_test
