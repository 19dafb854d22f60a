// modem_stats.cpp - request types 20 and 27 of extend command 4: the
// statistics module's debug block and its list of diag log ids to upgrade,
// answered from the handset's ModemStatsAnswers.
#include "modem_stats.h"

#include "handset.h"
#include "kvn_wire.h"

namespace kvn_sim {

namespace {

void put_le(Bytes &b, uint64_t v, size_t size)
{
    for (size_t i = 0; i < size; ++i)
        b.push_back(static_cast<uint8_t>(v >> (8 * i)));
}

// Reply data: u32 request type, i32 result, payload.
ExtendReply answer(uint32_t type, int32_t result, const Bytes &payload)
{
    ExtendReply r;
    put_le(r.data, type, 4);
    put_le(r.data, static_cast<uint32_t>(result), 4);
    r.data.insert(r.data.end(), payload.begin(), payload.end());
    return r;
}

} // namespace

Bytes ModemStatsAnswers::default_debug_info()
{
    // {size, value} per field, section after section, as a version-4 block.
    static const std::pair<size_t, uint64_t> kFields[] = {
        {1, 4}, // version
        // main: enabled, not supported, cmd ok/fail, heap max/cur, queue, free queue, log masks
        {1, 1}, {8, 0}, {8, 1532}, {8, 3}, {8, 96}, {8, 12}, {4, 0}, {4, 16}, {4, 0x1f}, {4, 0x3},
        // diag: init, event num/state/call/parse, log num/state/call/parse, poll call/parse,
        // event/log callbacks, invalid LTE/NR cell ids, durations, debug call/parse, cust event call/parse
        {1, 1}, {4, 6}, {1, 1}, {4, 2210}, {4, 2208}, {4, 9}, {1, 1}, {8, 48211}, {8, 48190}, {4, 720}, {4, 720},
        {8, 2210}, {8, 48211}, {4, 2}, {4, 0}, {4, 14}, {4, 9}, {4, 31}, {4, 5}, {4, 5}, {4, 40}, {4, 40},
        // cm: init, listener state, fourteen call/parse counters
        {1, 1}, {1, 1}, {4, 88}, {4, 88}, {4, 12}, {4, 12}, {4, 301}, {4, 301}, {4, 1440}, {4, 1440},
        {4, 720}, {4, 720}, {4, 720}, {4, 719}, {4, 360}, {4, 360},
        // uim: init, listener state, event call/parse
        {1, 1}, {1, 1}, {4, 7}, {4, 7},
    };
    Bytes b;
    for (auto [size, v] : kFields)
        put_le(b, v, size);
    return b;
}

void register_modem_stats_service(Handset &h)
{
    Handset *hp = &h;
    h.extend4.add_request(ModemStatsAnswers::kDebugInfoRequest, [hp](const uint8_t *, size_t, uint64_t) {
        const ModemStatsAnswers &a = hp->modem_stats;
        return answer(ModemStatsAnswers::kDebugInfoRequest, a.debug_info_result, a.debug_info);
    });
    h.extend4.add_request(ModemStatsAnswers::kNotSupportRequest, [hp](const uint8_t *, size_t, uint64_t) {
        const ModemStatsAnswers &a = hp->modem_stats;
        Bytes list;
        put_le(list, a.unsupported_log_ids.size(), 2);
        for (uint16_t id : a.unsupported_log_ids)
            put_le(list, id, 2);
        return answer(ModemStatsAnswers::kNotSupportRequest, a.unsupported_log_ids_result, list);
    });
}

} // namespace kvn_sim
