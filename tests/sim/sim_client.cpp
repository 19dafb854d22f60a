// sim_client.cpp - packet-level test client of kvn-sim.
#include "sim_client.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>

namespace sim_test {

using kvn_wire::get_u16;
using kvn_wire::get_u32;
using kvn_wire::put_u16;
using kvn_wire::put_u32;

RawClient::RawClient(const std::string &socket) : fd_(kvn_wire::connect_unix(socket)) {}

RawClient::~RawClient()
{
    if (fd_ >= 0)
        close(fd_);
}

bool RawClient::send(kvn_wire::Kind kind, uint32_t service, const Bytes &payload, uint16_t instance)
{
    kvn_wire::Header h;
    h.kind = kind;
    h.service = service;
    h.instance = instance;
    return kvn_wire::write_packet(fd_, h, payload);
}

bool RawClient::send_raw(const Bytes &bytes) { return kvn_wire::write_all(fd_, bytes.data(), bytes.size()); }

std::optional<kvn_wire::Packet> RawClient::read(int timeout_ms) { return kvn_wire::read_packet(fd_, timeout_ms); }

bool RawClient::bind(uint32_t service)
{
    service_ = service;
    if (!send(kvn_wire::Kind::Connect, service))
        return false;
    auto p = read();
    return p && p->hdr.kind == kvn_wire::Kind::ConnectOk && p->hdr.service == service;
}

bool RawClient::request(uint16_t msg_id, uint16_t txn, const Bytes &tlvs)
{
    kvn_wire::QmiHeader q{kvn_wire::kQmiRequest, txn, msg_id, static_cast<uint16_t>(tlvs.size())};
    return send(kvn_wire::Kind::Qmi, service_, kvn_wire::encode_qmi(q, tlvs.data(), tlvs.size()));
}

bool RawClient::closed_by_peer(int timeout_ms)
{
    pollfd p{fd_, POLLIN, 0};
    if (poll(&p, 1, timeout_ms) <= 0)
        return false;
    uint8_t b;
    return ::read(fd_, &b, 1) == 0;
}

Bytes extend_record(uint32_t cmd_id, const Bytes &data)
{
    Bytes out;
    auto tlv = [&](uint8_t t, const uint8_t *p, size_t n) {
        out.push_back(t);
        out.push_back(static_cast<uint8_t>(n));
        out.push_back(static_cast<uint8_t>(n >> 8));
        out.insert(out.end(), p, p + n);
    };
    uint8_t v[4];
    put_u32(v, cmd_id);
    tlv(0x01, v, 4);
    put_u32(v, static_cast<uint32_t>(data.size()));
    tlv(0x02, v, 4);
    Bytes block(512, 0);
    std::copy(data.begin(), data.begin() + static_cast<std::ptrdiff_t>(std::min<size_t>(data.size(), 512)),
              block.begin());
    tlv(0x10, block.data(), block.size());
    return out;
}

std::optional<ExtendResponse> parse_extend(const kvn_wire::Packet &p, uint16_t *txn)
{
    if (p.hdr.kind != kvn_wire::Kind::Qmi)
        return std::nullopt;
    auto q = kvn_wire::decode_qmi(p.payload.data(), p.payload.size());
    if (!q || q->flags != kvn_wire::kQmiResponse)
        return std::nullopt;
    if (txn)
        *txn = q->txn;
    ExtendResponse r;
    bool has1 = false, has2 = false;
    size_t pos = kvn_wire::kQmiHeaderSize;
    while (pos < p.payload.size()) {
        if (p.payload.size() - pos < 3)
            return std::nullopt;
        uint8_t t = p.payload[pos];
        size_t n = get_u16(&p.payload[pos + 1]);
        pos += 3;
        if (p.payload.size() - pos < n)
            return std::nullopt;
        const uint8_t *v = &p.payload[pos];
        if (t == 0x01 && n == 4) {
            r.result = get_u32(v);
            has1 = true;
        } else if (t == 0x02 && n == 4) {
            r.data_len = get_u32(v);
            has2 = true;
        } else if (t == 0x10) {
            r.data.assign(v, v + n);
        }
        pos += n;
    }
    if (!has1 || !has2)
        return std::nullopt;
    return r;
}

Bytes NvEfsRequest::encode() const
{
    Bytes b(512, 0);
    b[0] = op;
    b[1] = sub;
    put_u16(&b[2], id);
    b[4] = static_cast<uint8_t>(path.size());
    std::copy(path.begin(), path.begin() + static_cast<std::ptrdiff_t>(std::min<size_t>(path.size(), 71)), b.begin() + 5);
    put_u32(&b[76], total);
    put_u32(&b[80], chunk);
    put_u32(&b[84], position);
    std::copy(data.begin(), data.begin() + static_cast<std::ptrdiff_t>(std::min<size_t>(data.size(), 424)),
              b.begin() + 88);
    return b;
}

NvEfsReply decode_nvefs(const Bytes &d)
{
    NvEfsReply r;
    if (d.size() < 20)
        return r;
    r.len_all = get_u32(&d[4]);
    r.len_send = get_u32(&d[8]);
    r.result = static_cast<int32_t>(get_u32(&d[16]));
    size_t n = std::min<size_t>({r.len_send, 424, d.size() - 20});
    r.data.assign(d.begin() + 20, d.begin() + 20 + static_cast<std::ptrdiff_t>(n));
    return r;
}

std::optional<NvEfsReply> nvefs(RawClient &c, const NvEfsRequest &rq, uint16_t txn)
{
    if (!c.request(2, txn, extend_record(2, rq.encode())))
        return std::nullopt;
    auto p = c.read();
    if (!p)
        return std::nullopt;
    auto r = parse_extend(*p);
    if (!r || r->result != 0 || r->data_len != 444 || r->data.size() != 512)
        return std::nullopt;
    return decode_nvefs(Bytes(r->data.begin(), r->data.begin() + 444));
}

} // namespace sim_test
