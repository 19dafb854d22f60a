// fuzz_stats_parse.cpp - libFuzzer target over the statistics record parser and debug-block printers: byte 0 is
// print flag (bit 0) and id, the rest both a record (plus 16 zero bytes) and a 500-byte debug block in heap copies.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>

#include "modem_stats_parse.h"
#include "modem_stats_unpk.h"
#include "pelmox_test_stats_parse.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    return freopen("/dev/null", "w", stdout) ? 0 : 1; // the printers write a great deal
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    constexpr size_t kPayload = 500;
    if (size < 1 || size > 4096)
        return 0;
    const uint8_t *body = data + 1;
    const size_t n = size - 1;
    modem_stats_unpk_get_state()->g_unpk_print_flag = data[0] & 1;
    std::unique_ptr<uint8_t[]> rec(new uint8_t[n + MODEM_STATS_UNPK_PAD]());
    std::memcpy(rec.get(), body, n);
    pelmox_test_modem_stats_parsing_process_do(data[0], rec.get(), static_cast<uint32_t>(n + MODEM_STATS_UNPK_PAD));
    const modem_stats_single_data_common_type *last = modem_stats_parse_last();
    if (last->data && last->len != MODEM_STATS_CELL_RECORD_LEN)
        __builtin_trap();

    std::unique_ptr<uint8_t[]> block(new uint8_t[kPayload]());
    std::memcpy(block.get(), body, n < kPayload ? n : kPayload);
    pelmox_modem_stats_debug_info_print(block.get());
    uint64_t not_supported = 0;
    std::memcpy(&not_supported, block.get() + 2, sizeof(not_supported));
    if (block[1] == 0 || not_supported == 0) // the check would make a second request, and no modem answers here
        pelmox_modem_stats_support_status_check(block.get());
    return 0;
}
