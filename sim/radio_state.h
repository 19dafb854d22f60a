// radio_state.h - what the simulated modem reports about its radio: the
// statistics the vendor statistics service answers per subscription and
// statistic id, the feature switches it was sent, and the SAR DSI. Kept in
// memory: every start begins with the default radio values and DSI 0; a
// modem restart or a service going down and up keeps them.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include "util.h"

namespace kvn_sim {

// One record of a statistics response, sent exactly as given.
struct VsRecord {
    uint16_t sub = 0;
    uint32_t id = 0;
    Bytes data;
};

// The switches of the last feature-status request for one feature.
struct VsFeature {
    uint8_t enable = 0;
    std::optional<uint8_t> extra; // TLV 0x10, when sent
};

struct RadioState {
    RadioState();

    static constexpr unsigned kSubs = 2;
    // Per subscription and id: the records answered when that id is asked.
    std::map<uint32_t, std::vector<VsRecord>> vs_stats[kSubs];
    std::map<uint32_t, VsFeature> vs_features;
    // The RF SAR state; nullopt answers without the state TLV.
    std::optional<uint32_t> sar_dsi = 0;
};

// The default radio values of one statistic on one subscription (every id
// the tool asks: 6, 7, 82, 94, 100, 103-108, 110-113, 135), each at least as
// long as its layout.
Bytes default_vs_stat(unsigned sub, uint32_t id);

} // namespace kvn_sim
