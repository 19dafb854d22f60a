// stats_parse_test.cpp - the unpacker and record parser in-process, for what the command line cannot reach: the
// bound checks on the modem's bytes and the layouts the built-in sample lacks.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "../shell/stdout_of.h"
#include "modem_stats_parse.h"
#include "modem_stats_unpk.h"
#include "pelmox_test_stats_parse.h"

namespace {

using kvn_test::stdout_of;

modem_stats_unpk_state &st() { return *modem_stats_unpk_get_state(); }

// A zero payload of 2016 readable bytes, state reset, printing off.
void fresh()
{
    static const std::vector<uint8_t> buf(MODEM_STATS_UNPK_READ_LIMIT + MODEM_STATS_UNPK_PAD);
    modem_stats_unpk_reset(0, buf.data(), static_cast<uint32_t>(buf.size()));
    st().g_unpk_print_flag = 0;
}

int read_at(int32_t base, int32_t cnt)
{
    uint64_t v;
    st().g_unpk_data_base = base;
    st().g_unpk_data_cnt = cnt;
    return UNPK_I("x", &v, 8);
}

int set_bit(int32_t len, int32_t bit)
{
    st().g_unpk_data_len = len;
    return UNPK_SET_BIT(bit);
}

TEST(Unpk, BoundChecksPrintTheirNumbersAndFail)
{
    const struct {
        const char *name;
        std::function<int()> run; // on a fresh state
        std::string out;          // empty: passes
    } cases[] = {
        {"null pointer", [] { st().g_unpk_data_ptr = nullptr; st().g_unpk_id = 7; return read_at(0, 0); },
         "MODEM_STATS_DATA_UNPK, g_unpk_data_ptr is NULL, name: x, id(0x7)"},
        {"pos 2000", [] { return read_at(1990, 10); }, "(base + cnt)(2000) is can not >= 2000 for x, id(0x0)"},
        {"pos 1999", [] { return read_at(1990, 9); }, ""},
        {"negative pos compared unsigned", [] { return read_at(-1, 0); },
         "(base + cnt)(-1) is can not >= 2000 for x, id(0x0)"},
        {"base byte truncates toward zero", [] { BASE_WITH_BIT(-9); return read_at(st().g_unpk_data_base, 0); },
         "(base + cnt)(-1) is can not >= 2000 for x, id(0x0)"},
        {"set bit below base", [] { BASE_WITH_BIT(16); return UNPK_SET_BIT(-9); },
         "UNPK_SET_BIT, pos(-2) should be[0, 2000), id(0x0)"},
        {"set bit at data_len", [] { return set_bit(10, 80); }, "UNPK_SET_BIT, pos(10) should be[0, 10), id(0x0)"},
        {"set bit below data_len", [] { return set_bit(10, 79); }, ""},
        {"at: set bit fails first", [] { uint16_t v; st().g_unpk_data_len = 1; return UNPK_AT("pci", 8, 16, &v, 2); },
         "UNPK_SET_BIT, pos(1) should be[0, 1), id(0x0)"},
        {"at: tmp2 load fails", [] { uint16_t v; BASE_WITH_BIT(1992 * 8); return UNPK_AT("pci", 0, 16, &v, 2); },
         "(base + cnt)(2000) is can not >= 2000 for pci_tmp2, id(0x0)"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        fresh();
        int rc = 0;
        EXPECT_EQ(stdout_of([&] { rc = c.run(); }), c.out);
        EXPECT_EQ(rc, c.out.empty() ? 0 : -1);
    }
}

// Field values and where each layout puts them (bit starts after the version).
struct FieldVal {
    int width;
    uint64_t value;
    int start[3]; // versions 4, 0x30000, 0x30002
};
const FieldVal kFields[] = {
    {16, 460, {176, 240, 264}},        {8, 2, {192, 256, 280}},    {16, 11, {200, 264, 288}},
    {32, 0x1234ABCD, {224, 288, 312}}, {64, 0x0123456789ABCDEFull, {112, 176, 200}},
    {16, 301, {0, 0, 24}},             {16, 3, {256, 320, 344}},   {32, 1850, {16, 80, 104}},
    {16, 100, {80, 144, 168}},         {32, 19850, {48, 112, 136}}, {16, 50, {96, 160, 184}},
    {8, 1, {216, 280, 304}},
};

std::vector<uint8_t> packed(uint32_t version, int col)
{
    std::vector<uint8_t> b(64 + MODEM_STATS_UNPK_PAD, 0);
    std::memcpy(b.data(), &version, 4);
    for (const auto &f : kFields)
        for (int k = 0; k < f.width; ++k)
            if (f.value >> k & 1) {
                const int bit = 32 + f.start[col] + k;
                b[bit / 8] |= static_cast<uint8_t>(1u << (bit % 8));
            }
    return b;
}

std::vector<uint8_t> last_record()
{
    return std::vector<uint8_t>(modem_stats_parse_last()->data,
                                modem_stats_parse_last()->data + MODEM_STATS_SINGLE_DATA_LEN);
}

// Each layout prints its summary and fills the record. Then unknown versions count up for the process and write
// nothing, a parse that fails midway leaves the record, and a null payload parses nothing.
TEST(Parse, LayoutsFillTheRecordAndFailuresLeaveIt)
{
    const uint32_t versions[] = {4, 0x30000, 0x30002}; // the columns of kFields
    std::vector<uint8_t> want = {0,    0,    0,    0,    0xcc, 0x01, 0x0b, 0x00, 0xcd, 0xab, 0x34, 0x12, 0xef,
                                 0xcd, 0xab, 0x89, 0x67, 0x45, 0x23, 0x01, 0x2d, 0x01, 0x03, 0x00, 0x3a, 0x07,
                                 0,    0,    0x64, 0x00, 0x8a, 0x4d, 0,    0,    0x32, 0x00, 0x01, 0x00};
    want.resize(MODEM_STATS_SINGLE_DATA_LEN); // the rest stays zero
    st().g_unpk_print_flag = 0;
    for (int col = 0; col < 3; ++col) {
        const uint32_t version = versions[col];
        SCOPED_TRACE(version);
        const auto buf = packed(version, col);
        EXPECT_EQ(stdout_of([&] { pelmox_test_modem_stats_parsing_process_do(3, buf.data(), 80); }),
                  "version = " + std::to_string(version) +
                      ", mcc = 460, mnc_num 2, mnc 11, tac 305441741, cgi 81985529216486895, pci 301\n"
                      "freq_band_ind = 3, dl_earfcn = 1850, dl_bw 100, ul_earfcn 19850, ul_bw 50, "
                      "allow_access 1, scs 0\n");
        EXPECT_EQ(modem_stats_parse_last()->len, 38u);
        std::memcpy(want.data(), &version, 4);
        EXPECT_EQ(last_record(), want);
    }
    const uint64_t base = st().g_unpk_version_not_support_num;
    uint32_t n = 0;
    for (uint32_t v : {5u, 0x2FFFFu, 0x30003u}) {
        const auto buf = packed(v, 0);
        EXPECT_EQ(stdout_of([&] { pelmox_test_modem_stats_parsing_process_do(9, buf.data(), 80); }),
                  "VERSION_NOT_SUPPORT, version(" + std::to_string(v) + "), not_support_num(" +
                      std::to_string(base + ++n) + "), name(modem_stats_parse_xxxx_diag_xxxx), id(0x9)\n");
    }
    // A length limit that stops the fourth field, tac (cursor 28 after the base).
    const auto buf = packed(4, 0);
    modem_stats_unpk_reset(0x21, buf.data(), static_cast<uint32_t>(buf.size()));
    st().g_unpk_data_len = 28;
    EXPECT_EQ(stdout_of([] { modem_stats_parse_xxxx_diag_xxxx(0, nullptr, nullptr); }),
              "UNPK_SET_BIT, pos(28) should be[0, 28), id(0x21)\n");
    EXPECT_EQ(stdout_of([] { pelmox_test_modem_stats_parsing_process_do(5, nullptr, 0); }),
              "MODEM_STATS_DATA_UNPK_START, payload is NULL, id(0x21)\n");
    EXPECT_EQ(last_record(), want);
}

} // namespace
