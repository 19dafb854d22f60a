// bench_stats_parse.cpp - the bit-field unpacker in fields per second, with
// tracing off, beside a plain byte-aligned little-endian read of the same
// fields (same sizes, same count, from the same buffer) in the same run.
// BM_UnpkRatio alternates the two in batches and reports unpacker time /
// byte-aligned time as the "ratio" counter, so a busy machine moves both.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <cstring>

#include "modem_stats_unpk.h"

namespace {

// The twelve fields of the cell record, version 0x30001 layout: bit start
// (after the 32-bit version word), width and destination size.
struct Field {
    int32_t start, width;
    int size;
};
constexpr Field kFields[] = {{250, 16, 2}, {266, 8, 1},  {274, 16, 2}, {298, 32, 4}, {186, 64, 8}, {10, 16, 2},
                             {330, 16, 2}, {90, 32, 4},  {154, 16, 2}, {122, 32, 4}, {170, 16, 2}, {290, 8, 1}};
constexpr int kCount = sizeof(kFields) / sizeof(kFields[0]);

struct Buffer {
    uint8_t bytes[64 + MODEM_STATS_UNPK_PAD];
    Buffer()
    {
        for (size_t i = 0; i < sizeof(bytes); ++i)
            bytes[i] = static_cast<uint8_t>(i * 37 + 11);
    }
};

uint64_t unpack_all(const Buffer &b)
{
    modem_stats_unpk_reset(0, b.bytes, sizeof(b.bytes));
    BASE_WITH_BIT(32);
    uint64_t sum = 0;
    for (const auto &f : kFields) {
        uint64_t v = 0;
        UNPK_AT("f", f.start, f.width, &v, f.size);
        sum += v;
    }
    return sum;
}

// The same fields read whole at the byte holding their first bit.
uint64_t aligned_all(const Buffer &b)
{
    uint64_t sum = 0;
    for (const auto &f : kFields) {
        uint64_t v = 0;
        const uint8_t *p = b.bytes + 4 + f.start / 8;
        for (int i = f.size - 1; i >= 0; --i)
            v = v << 8 | p[i];
        sum += v;
    }
    return sum;
}

void BM_Unpk(benchmark::State &state)
{
    Buffer b;
    modem_stats_unpk_get_state()->g_unpk_print_flag = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(unpack_all(b));
    state.SetItemsProcessed(state.iterations() * kCount);
}
BENCHMARK(BM_Unpk);

void BM_ByteAligned(benchmark::State &state)
{
    Buffer b;
    for (auto _ : state) {
        benchmark::DoNotOptimize(&b);
        benchmark::DoNotOptimize(aligned_all(b));
    }
    state.SetItemsProcessed(state.iterations() * kCount);
}
BENCHMARK(BM_ByteAligned);

void BM_UnpkRatio(benchmark::State &state)
{
    using clock = std::chrono::steady_clock;
    constexpr int kBatch = 1000;
    Buffer b;
    modem_stats_unpk_get_state()->g_unpk_print_flag = 0;
    clock::duration unpk_t{}, aligned_t{};
    for (auto _ : state) {
        auto t0 = clock::now();
        for (int i = 0; i < kBatch; ++i)
            benchmark::DoNotOptimize(unpack_all(b));
        auto t1 = clock::now();
        for (int i = 0; i < kBatch; ++i) {
            benchmark::DoNotOptimize(&b);
            benchmark::DoNotOptimize(aligned_all(b));
        }
        auto t2 = clock::now();
        unpk_t += t1 - t0;
        aligned_t += t2 - t1;
    }
    const double fields = double(state.iterations()) * kBatch * kCount;
    state.counters["unpk_Mfields_s"] = fields / std::chrono::duration<double>(unpk_t).count() / 1e6;
    state.counters["aligned_Mfields_s"] = fields / std::chrono::duration<double>(aligned_t).count() / 1e6;
    state.counters["ratio"] = double(unpk_t.count()) / double(aligned_t.count());
}
BENCHMARK(BM_UnpkRatio);

} // namespace

BENCHMARK_MAIN();
