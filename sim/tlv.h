// tlv.h - the QMI TLV area as kvn-sim reads and writes it: a strict reader
// that never reads past the area it was given, and a writer. Kept apart from
// the tool's own codec so the simulated modem is an independent peer.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace kvn_sim {

struct Tlv {
    uint8_t type = 0;
    std::span<const uint8_t> value;
};

// Splits a TLV area into its TLVs in order. nullopt when a TLV header or value
// runs past the end of the area.
std::optional<std::vector<Tlv>> parse_tlvs(std::span<const uint8_t> area);

// The first TLV of `type`, or nullptr.
const Tlv *find_tlv(const std::vector<Tlv> &tlvs, uint8_t type);

class TlvWriter {
public:
    void add(uint8_t type, const uint8_t *p, size_t n);
    void add_u32(uint8_t type, uint32_t v);
    // The standard QMI result TLV 0x02: u16 result (0 success, 1 failure), u16 error.
    void add_result(uint16_t result, uint16_t error);
    const std::vector<uint8_t> &bytes() const { return out_; }
    std::vector<uint8_t> take() { return std::move(out_); }

private:
    std::vector<uint8_t> out_;
};

inline constexpr uint16_t kQmiErrInvalidQmiCommand = 0x47;

} // namespace kvn_sim
