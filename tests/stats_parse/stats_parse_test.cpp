// stats_parse_test.cpp - the unpacker, the record parser and the debug-block
// printers in-process, for what the command line cannot reach: every bound
// check with its numbers, the layouts the built-in sample does not use, the
// not-supported count, null pointers, section lengths and hex rendering.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "modem_stats_parse.h"
#include "modem_stats_unpk.h"
#include "pelmox_test_stats_parse.h"

namespace {

std::string captured(const std::function<void()> &f)
{
    testing::internal::CaptureStdout();
    f();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

modem_stats_unpk_state &st() { return *modem_stats_unpk_get_state(); }

// A zero payload of 2016 readable bytes, state reset, printing off.
std::vector<uint8_t> &fresh(uint32_t id = 0)
{
    static std::vector<uint8_t> buf;
    buf.assign(MODEM_STATS_UNPK_READ_LIMIT + MODEM_STATS_UNPK_PAD, 0);
    modem_stats_unpk_reset(id, buf.data(), static_cast<uint32_t>(buf.size()));
    st().g_unpk_print_flag = 0;
    return buf;
}

/* ---- bound checks ---- */

struct CheckCase {
    const char *name;
    std::function<int()> run; // on a fresh state
    int rc;
    std::string out;
};

int mid(int32_t low, int32_t high, int size) { return UNPK_MID(low, high, "f", size); }

int read_at(int32_t base, int32_t cnt)
{
    uint64_t v;
    st().g_unpk_data_base = base;
    st().g_unpk_data_cnt = cnt;
    return UNPK_I("x", &v, 8);
}

TEST(Unpk, BoundChecksPrintTheirNumbersAndFail)
{
    const CheckCase cases[] = {
        {"null pointer", [] { st().g_unpk_data_ptr = nullptr; st().g_unpk_id = 7; uint64_t v; return UNPK_I("mcc_tmp1", &v, 8); },
         -1, "MODEM_STATS_DATA_UNPK, g_unpk_data_ptr is NULL, name: mcc_tmp1, id(0x7)"},
        {"pos 2000", [] { return read_at(1990, 10); }, -1, "(base + cnt)(2000) is can not >= 2000 for x, id(0x0)"},
        {"pos 1999 passes", [] { return read_at(1990, 9); }, 0, ""},
        {"negative pos compared unsigned", [] { return read_at(-1, 0); }, -1,
         "(base + cnt)(-1) is can not >= 2000 for x, id(0x0)"},
        {"set bit below base", [] { BASE_WITH_BIT(16); return UNPK_SET_BIT(-9); }, -1,
         "UNPK_SET_BIT, pos(-2) should be[0, 2000), id(0x0)"},
        {"set bit at data_len", [] { st().g_unpk_data_len = 10; return UNPK_SET_BIT(80); }, -1,
         "UNPK_SET_BIT, pos(10) should be[0, 10), id(0x0)"},
        {"set bit below data_len", [] { st().g_unpk_data_len = 10; return UNPK_SET_BIT(79); }, 0, ""},
        {"low 1 high 65", [] { return mid(1, 65, 8); }, -1, "UNPK_MID, high(65) should be in [1, 64] for f, id(0x0)"},
        {"low 2 high 65 passes", [] { return mid(2, 65, 8); }, 0, ""},
        {"low 0", [] { return mid(0, 8, 8); }, -1, "UNPK_MID, low(0) should be in [1, 128] for f, id(0x0)"},
        {"low 129", [] { return mid(129, 130, 8); }, -1, "UNPK_MID, low(129) should be in [1, 128] for f, id(0x0)"},
        {"high 129", [] { return mid(2, 129, 8); }, -1, "UNPK_MID, high(129) should be in [1, 128] for f, id(0x0)"},
        {"low above high", [] { return mid(5, 4, 8); }, -1, "UNPK_MID, low(5) should <= high(4) for f, id(0x0)"},
        {"low 66", [] { return mid(66, 70, 8); }, -1, "UNPK_HIGH, bit_num(63) should be in [64, 128] for f, id(0x0)"},
        {"low 65 passes", [] { return mid(65, 70, 8); }, 0, ""},
        {"17 bits into 16", [] { return mid(1, 17, 2); }, -1, "UNPK_LOW, bit_num(17) should be in [1, 16] for f, id(0x0)"},
        {"16 bits into 16", [] { return mid(1, 16, 2); }, 0, ""},
        {"at: set bit fails first", [] { uint16_t v; st().g_unpk_data_len = 1; return UNPK_AT("pci", 8, 16, &v, 2); }, -1,
         "UNPK_SET_BIT, pos(1) should be[0, 1), id(0x0)"},
        {"at: tmp2 load fails", [] { uint16_t v; BASE_WITH_BIT(1992 * 8); return UNPK_AT("pci", 0, 16, &v, 2); }, -1,
         "(base + cnt)(2000) is can not >= 2000 for pci_tmp2, id(0x0)"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        fresh();
        int rc = 0;
        EXPECT_EQ(captured([&] { rc = c.run(); }), c.out);
        EXPECT_EQ(rc, c.rc);
    }
}

/* ---- state moves ---- */

TEST(Unpk, BaseSetBitAndPrintCntMoveTheState)
{
    fresh();
    BASE_WITH_BIT(32);
    EXPECT_EQ(st().g_unpk_data_base_bit, 32);
    EXPECT_EQ(st().g_unpk_data_base, 4);
    EXPECT_EQ(st().g_unpk_data_cnt, 0);
    ASSERT_EQ(UNPK_SET_BIT(250), 0);
    EXPECT_EQ(st().g_unpk_data_cnt, 31);
    PRINT_CNT(250, 16, "mcc");
    EXPECT_EQ(st().g_unpk_low, 3);
    EXPECT_EQ(st().g_unpk_high, 18);

    fresh();
    BASE_WITH_BIT(-9); // truncated toward zero
    EXPECT_EQ(st().g_unpk_data_base, -1);

    // The five step traces run on into the next text; UNPK_I's line ends.
    fresh(0x12);
    st().g_unpk_print_flag = 256; // non-zero, whatever its low byte
    EXPECT_EQ(captured([] { BASE_WITH_BIT(32); }),
              "BASE_WITH_BIT, g_unpk_data_base_bit(32), g_unpk_data_base(4), g_unpk_data_cnt(0), bit(32), id(0x12)");
    EXPECT_EQ(captured([] { UNPK_SET_BIT(250); }),
              "UNPK_SET_BIT, g_unpk_data_base_bit(32), g_unpk_data_base(4), g_unpk_data_cnt(31), bit(250), id(0x12)");
    EXPECT_EQ(captured([] { PRINT_CNT(250, 16, "mcc"); }),
              "PRINT_CNT, base_bit: 32, base_byte: 4, data_cnt: 31, low: 3, high: 18, param: 250, name: mcc");
    fresh()[0] = 0x2a;
    st().g_unpk_print_flag = 1;
    uint32_t v = 0;
    EXPECT_EQ(captured([&] { UNPK_I("version", &v, 4); }),
              "    UNPK_I, name: version, val: 42(0x2A), val_size: 4, unpk_cnt: 4, data_base: 0, base_bit: 0\n");
    st().g_unpk_print_flag = 0;
}

// Windows that no record reaches: computed without undefined behaviour, the
// upper word moved by a double product (53-bit rounding, 2^64 saturating),
// and low 65 leaving tmp1 unshifted.
TEST(Unpk, LargeLowWindows)
{
    struct {
        int32_t low, high;
        uint64_t tmp1, tmp2, want;
    } cases[] = {
        {2, 65, 0x2, 0x1, 0x8000000000000001ull},
        {65, 128, 0x1, (1ull << 53) + 1, (1ull << 53) | 1},
        {65, 128, 0x0, UINT64_MAX, UINT64_MAX},
        {60, 123, 0x0, (1ull << 59) - 1, UINT64_MAX}, // 59 ones round up to 2^59: the product reaches 2^64
        {9, 72, 0xAB00, 0xCD, 0xCD000000000000ABull},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.low);
        fresh();
        st().g_unpk_tmp1 = c.tmp1;
        st().g_unpk_tmp2 = c.tmp2;
        ASSERT_EQ(mid(c.low, c.high, 8), 0);
        EXPECT_EQ(st().g_unpk_new_val, c.want);
    }
}

TEST(Unpk, HexRendering)
{
    struct {
        uint64_t v;
        const char *text;
    } cases[] = {{0, "0x"}, {0x00030001, "0x010003"}, {0x0100, "0x0001"}, {0x80, "0x80"},
                 {UINT64_MAX, "0xFFFFFFFFFFFFFFFF"}, {0x1000000000000000ull, "0x0000000000000010"}};
    char buf[MODEM_STATS_UNPK_HEX_LEN];
    for (const auto &c : cases)
        EXPECT_STREQ(modem_stats_unpk_hex(c.v, buf), c.text);
}

/* ---- the record parser ---- */

// Field values and where each layout puts them (bit starts after the version).
struct FieldVal {
    int width;
    uint64_t value;
    int start[3]; // versions 4, 0x30000, 0x30002
};
const FieldVal kFields[] = {
    {16, 460, {176, 240, 264}},       {8, 2, {192, 256, 280}},        {16, 11, {200, 264, 288}},
    {32, 0x1234ABCD, {224, 288, 312}}, {64, 0x0123456789ABCDEFull, {112, 176, 200}},
    {16, 301, {0, 0, 24}},            {16, 3, {256, 320, 344}},       {32, 1850, {16, 80, 104}},
    {16, 100, {80, 144, 168}},        {32, 19850, {48, 112, 136}},    {16, 50, {96, 160, 184}},
    {8, 1, {216, 280, 304}},
};

std::vector<uint8_t> packed(uint32_t version, int col)
{
    std::vector<uint8_t> b(64 + MODEM_STATS_UNPK_PAD, 0);
    for (int i = 0; i < 4; ++i)
        b[i] = static_cast<uint8_t>(version >> (8 * i));
    for (const auto &f : kFields)
        for (int k = 0; k < f.width; ++k)
            if (f.value >> k & 1) {
                int bit = 32 + f.start[col] + k;
                b[bit / 8] |= static_cast<uint8_t>(1u << (bit % 8));
            }
    return b;
}

TEST(Parse, OtherLayoutsPrintAndLeaveTheRecord)
{
    const struct {
        uint32_t version;
        int col;
        const char *first;
    } cases[] = {{4, 0, "version = 4"}, {0x30000, 1, "version = 196608"}, {0x30002, 2, "version = 196610"}};
    const uint8_t want[MODEM_STATS_CELL_RECORD_LEN] = {
        0, 0, 0, 0, 0xcc, 0x01, 0x0b, 0x00, 0xcd, 0xab, 0x34, 0x12, 0xef, 0xcd, 0xab, 0x89, 0x67, 0x45, 0x23,
        0x01, 0x2d, 0x01, 0x03, 0x00, 0x3a, 0x07, 0, 0, 0x64, 0x00, 0x8a, 0x4d, 0, 0, 0x32, 0x00, 0x01, 0x00};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.version);
        auto buf = packed(c.version, c.col);
        modem_stats_unpk_get_state()->g_unpk_print_flag = 0;
        std::string out = captured([&] {
            pelmox_test_modem_stats_parsing_process_do(3, buf.data(), static_cast<uint32_t>(buf.size()));
        });
        EXPECT_EQ(out, std::string(c.first) +
                           ", mcc = 460, mnc_num 2, mnc 11, tac 305441741, cgi 81985529216486895, pci 301\n"
                           "freq_band_ind = 3, dl_earfcn = 1850, dl_bw 100, ul_earfcn 19850, ul_bw 50, "
                           "allow_access 1, scs 0\n");
        const modem_stats_single_data_common_type *rec = modem_stats_parse_last();
        ASSERT_EQ(rec->len, 38u);
        uint8_t w[38];
        std::memcpy(w, want, sizeof(w));
        for (int i = 0; i < 4; ++i)
            w[i] = static_cast<uint8_t>(c.version >> (8 * i));
        EXPECT_EQ(std::vector<uint8_t>(rec->data, rec->data + 38), std::vector<uint8_t>(w, w + 38));
        for (int i = 38; i < MODEM_STATS_SINGLE_DATA_LEN; ++i)
            ASSERT_EQ(rec->data[i], 0) << i;
    }
}

// Unknown versions count up for the process and write nothing; a parse that
// fails midway leaves the previous record; a null payload parses nothing.
TEST(Parse, FailuresLeaveThePreviousRecord)
{
    auto good = packed(4, 0);
    captured([&] { pelmox_test_modem_stats_parsing_process_do(1, good.data(), static_cast<uint32_t>(good.size())); });
    const auto before = std::vector<uint8_t>(modem_stats_parse_last()->data, modem_stats_parse_last()->data + 700);

    uint64_t base = st().g_unpk_version_not_support_num;
    uint32_t n = 0;
    for (uint32_t v : {5u, 0x2FFFFu, 0x30003u}) {
        auto buf = packed(v, 0);
        EXPECT_EQ(captured([&] { pelmox_test_modem_stats_parsing_process_do(9, buf.data(), 80); }),
                  "VERSION_NOT_SUPPORT, version(" + std::to_string(static_cast<int>(v)) + "), not_support_num(" +
                      std::to_string(base + ++n) + "), name(modem_stats_parse_xxxx_diag_xxxx), id(0x9)\n");
    }

    // A length limit that stops the fourth field, tac (cursor 28 after the base).
    auto buf = packed(4, 0);
    modem_stats_unpk_reset(0x21, buf.data(), static_cast<uint32_t>(buf.size()));
    st().g_unpk_data_len = 28;
    EXPECT_EQ(captured([] { modem_stats_parse_xxxx_diag_xxxx(0, nullptr, nullptr); }),
              "UNPK_SET_BIT, pos(28) should be[0, 28), id(0x21)\n");

    EXPECT_EQ(captured([] { pelmox_test_modem_stats_parsing_process_do(5, nullptr, 0); }),
              "MODEM_STATS_DATA_UNPK_START, payload is NULL, id(0x21)\n");
    EXPECT_EQ(std::vector<uint8_t>(modem_stats_parse_last()->data, modem_stats_parse_last()->data + 700), before);
}

/* ---- debug-block printers ---- */

TEST(DebugBlock, SectionLengthsPerVersionAndNullPointers)
{
    const struct {
        uint8_t version;
        uint32_t main, diag;
    } cases[] = {{0, 25, 43}, {1, 25, 67}, {2, 49, 87}, {3, 49, 95}, {4, 57, 95}, {255, 57, 95}};
    uint8_t block[512] = {};
    for (const auto &c : cases) {
        SCOPED_TRACE(int(c.version));
        uint32_t main = 0, diag = 0;
        std::string out = captured([&] {
            main = pelmox_modem_stats_main_info_unpk(block, c.version);
            diag = pelmox_modem_stats_diag_info_unpk(block, c.version);
        });
        EXPECT_EQ(main, c.main);
        EXPECT_EQ(diag, c.diag);
    }
    uint32_t cm = 0, uim = 0;
    captured([&] {
        cm = pelmox_modem_stats_cm_info_unpk(block);
        uim = pelmox_modem_stats_uim_info_unpk(block);
    });
    EXPECT_EQ(cm, 58u);
    EXPECT_EQ(uim, 10u);

    uint32_t lens[4] = {1, 1, 1, 1};
    EXPECT_EQ(captured([&] {
                  lens[0] = pelmox_modem_stats_main_info_unpk(nullptr, 4);
                  lens[1] = pelmox_modem_stats_diag_info_unpk(nullptr, 4);
                  lens[2] = pelmox_modem_stats_cm_info_unpk(nullptr);
                  lens[3] = pelmox_modem_stats_uim_info_unpk(nullptr);
                  pelmox_modem_stats_support_status_check(nullptr);
              }),
              "ptr is null\nptr is null\nptr is null\nptr is null\n"
              "pelmox_modem_stats_support_status_check, ptr is null\n");
    EXPECT_EQ(lens[0] + lens[1] + lens[2] + lens[3], 0u);
}

} // namespace
