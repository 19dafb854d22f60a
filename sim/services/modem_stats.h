// modem_stats.h - the statistics module of the simulated modem as the tool's
// debug-info command sees it: extend command 4, request type 20 (the module's
// debug block) and 27 (the diag log ids whose parsers must be upgraded). The
// answers are set by the scenario key `modem_stats` and kept in the handset.
#pragma once

#include <cstdint>
#include <vector>

#include "util.h"

namespace kvn_sim {

class Handset;

// What requests 20 and 27 answer. Each reply is: u32 request type, i32
// response result, then the payload.
struct ModemStatsAnswers {
    static constexpr uint32_t kDebugInfoRequest = 20;
    static constexpr uint32_t kNotSupportRequest = 27;
    static constexpr size_t kMaxDebugInfo = 500; // reply data 512 minus the 8-byte header, and the tool's 500
    static constexpr size_t kMaxLogIds = 249;    // 2 + 2 * 249 = 500 bytes

    Bytes debug_info = default_debug_info(); // the block, handed over as it is
    int32_t debug_info_result = 0;
    std::vector<uint16_t> unsupported_log_ids;
    int32_t unsupported_log_ids_result = 0;

    // A version-4 block of 221 bytes: feature enabled, no record rejected,
    // plausible counters in every section.
    static Bytes default_debug_info();
};

// Adds request types 20 and 27 to the handset's command-4 table.
void register_modem_stats_service(Handset &h);

} // namespace kvn_sim
