// qmux_frame.cpp - the QMUX frame reader and encoder (see qmux_frame.h).
#include "qmux_frame.h"

#include "kvn_wire.h"

namespace kvn_qmi::qmux {

void Reader::feed(const uint8_t *data, size_t len)
{
    if (pos_ > 0 && pos_ == buf_.size()) {
        buf_.clear();
        pos_ = 0;
    } else if (pos_ > kMaxLength) {
        buf_.erase(buf_.begin(), buf_.begin() + static_cast<std::ptrdiff_t>(pos_));
        pos_ = 0;
    }
    buf_.insert(buf_.end(), data, data + len);
}

// A frame header is taken only when everything in its first bytes is what a
// modem sends: the marker, a length in bounds, the modem's control flags and
// a response or indication flag. Anything else is noise, skipped a byte at a
// time, so noise rarely passes for the start of a frame and swallows the good
// frames behind it.
std::optional<Frame> Reader::next()
{
    while (buf_.size() - pos_ >= kQmuxHeader + 1) {
        const uint8_t *f = buf_.data() + pos_;
        const size_t len = kvn_wire::get_u16(f + 1);
        const bool ctl = f[4] == kCtl;
        const size_t head = ctl ? kCtlHeader : kServiceHeader;
        const uint8_t flags = f[kQmuxHeader];
        const bool flags_ok = ctl ? (flags == kCtlResponse || flags == kCtlIndication)
                                  : (flags == kResponse || flags == kIndication);
        if (f[0] != kMarker || len < kQmuxHeader - 1 + head || len > kMaxLength || f[3] != kFromModem ||
            !flags_ok) {
            ++pos_;
            ++dropped_bytes_;
            continue;
        }
        if (buf_.size() - pos_ < 1 + len)
            return std::nullopt;
        pos_ += 1 + len;
        const uint8_t *sdu = f + kQmuxHeader;
        const size_t sdu_len = len - (kQmuxHeader - 1);
        if (kvn_wire::get_u16(sdu + head - 2) != sdu_len - head || (ctl && f[5] != 0 && f[5] != kBroadcast)) {
            ++dropped_frames_;
            continue;
        }
        Frame out;
        out.service = f[4];
        out.cid = f[5];
        out.flags = sdu[0];
        out.txn = ctl ? sdu[1] : kvn_wire::get_u16(sdu + 1);
        out.msg_id = kvn_wire::get_u16(sdu + head - 4);
        out.sdu.assign(sdu, sdu + sdu_len);
        return out;
    }
    return std::nullopt;
}

std::vector<uint8_t> encode(uint8_t service, uint8_t cid, const uint8_t *sdu, size_t len)
{
    std::vector<uint8_t> f(kQmuxHeader + len);
    f[0] = kMarker;
    kvn_wire::put_u16(&f[1], static_cast<uint16_t>(kQmuxHeader - 1 + len));
    f[3] = kFromClient;
    f[4] = service;
    f[5] = cid;
    std::copy(sdu, sdu + len, f.begin() + kQmuxHeader);
    return f;
}

std::vector<uint8_t> encode_ctl(uint8_t txn, uint16_t msg_id, const std::vector<uint8_t> &tlvs)
{
    std::vector<uint8_t> sdu(kCtlHeader);
    sdu[0] = 0x00;
    sdu[1] = txn;
    kvn_wire::put_u16(&sdu[2], msg_id);
    kvn_wire::put_u16(&sdu[4], static_cast<uint16_t>(tlvs.size()));
    sdu.insert(sdu.end(), tlvs.begin(), tlvs.end());
    return encode(kCtl, 0, sdu.data(), sdu.size());
}

std::optional<std::vector<uint8_t>> find_tlv(const uint8_t *tlvs, size_t len, uint8_t type)
{
    std::optional<std::vector<uint8_t>> found;
    size_t pos = 0;
    while (pos < len) {
        if (len - pos < 3)
            return std::nullopt;
        const size_t n = kvn_wire::get_u16(tlvs + pos + 1);
        if (len - pos - 3 < n)
            return std::nullopt;
        if (tlvs[pos] == type && !found)
            found.emplace(tlvs + pos + 3, tlvs + pos + 3 + n);
        pos += 3 + n;
    }
    return found;
}

bool result_ok(const uint8_t *tlvs, size_t len)
{
    auto r = find_tlv(tlvs, len, 0x02);
    return r && r->size() == 4 && kvn_wire::get_u16(r->data()) == 0;
}

} // namespace kvn_qmi::qmux
