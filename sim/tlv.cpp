// tlv.cpp - strict TLV reader and writer of kvn-sim.
#include "tlv.h"

#include "kvn_wire.h"

namespace kvn_sim {

std::optional<std::vector<Tlv>> parse_tlvs(std::span<const uint8_t> area)
{
    std::vector<Tlv> out;
    size_t pos = 0;
    while (pos < area.size()) {
        if (area.size() - pos < 3)
            return std::nullopt;
        uint8_t type = area[pos];
        size_t len = kvn_wire::get_u16(&area[pos + 1]);
        pos += 3;
        if (area.size() - pos < len)
            return std::nullopt;
        out.push_back({type, area.subspan(pos, len)});
        pos += len;
    }
    return out;
}

const Tlv *find_tlv(const std::vector<Tlv> &tlvs, uint8_t type)
{
    for (const auto &t : tlvs)
        if (t.type == type)
            return &t;
    return nullptr;
}

void TlvWriter::add(uint8_t type, const uint8_t *p, size_t n)
{
    uint8_t h[3] = {type, 0, 0};
    kvn_wire::put_u16(h + 1, static_cast<uint16_t>(n));
    out_.insert(out_.end(), h, h + 3);
    if (n)
        out_.insert(out_.end(), p, p + n);
}

void TlvWriter::add_u32(uint8_t type, uint32_t v)
{
    uint8_t b[4];
    kvn_wire::put_u32(b, v);
    add(type, b, 4);
}

void TlvWriter::add_result(uint16_t result, uint16_t error)
{
    uint8_t b[4];
    kvn_wire::put_u16(b, result);
    kvn_wire::put_u16(b + 2, error);
    add(0x02, b, 4);
}

} // namespace kvn_sim
