// help_conv_test.cpp - the help printer against the full help text, and the
// tolerant number/hex conversions of the command line.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <iterator>
#include <string>

#include "help_text.h"
#include "pelmox_conv.h"
#include "pelmox_shell.h"
#include "pelmox_utils.h"

namespace {

std::string help_output(int group)
{
    testing::internal::CaptureStdout();
    show_help(group);
    std::fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

// ---- help ----

TEST(ShowHelp, EveryGroupPrintsBannerItsSectionAndFooter)
{
    for (int group = 0; group <= 11; ++group) {
        SCOPED_TRACE("group " + std::to_string(group));
        EXPECT_EQ(help_output(group), help_text::for_group(group));
    }
}

TEST(ShowHelp, OutOfRangeGroupsPrintBannerAndFooterOnly)
{
    for (int group : {12, 13, -1, 100, INT32_MIN}) {
        SCOPED_TRACE("group " + std::to_string(group));
        EXPECT_EQ(help_output(group), help_text::k_banner + help_text::k_footer);
    }
}

// ---- conversions ----

struct IntCase {
    const char *text;
    int32_t want;
};

TEST(StringToInt, DecimalOrPrefixedHex)
{
    const IntCase cases[] = {
        {"0x1A", 26},
        {"0X1a", 26},
        {"26", 26},
        {"1A", 1},      // no prefix: decimal, stops at A
        {"0x", 0},      // prefix alone
        {"0xG1", 1},    // G takes the sixteens place as 0
        {"0x-1", 1},    // so does the sign
        {"0x7FFFFFFF", 2147483647},
        {"0xFFFFFFFF", -1879048194}, // first place saturates, the rest wraps the sum
        {"0x80000000", 2147483647},  // saturated place, nothing left to add
        {"  -42", -42},              // atoi: blanks and sign
        {"4x", 4},
        {"abc", 0},
        {"", 0},
        {"0", 0},
        {"0y12", 0}, // only x / X start a hex number
        {"00x12", 0},
    };
    for (const auto &c : cases)
        EXPECT_EQ(pelmox_string_to_int(c.text), c.want) << '"' << c.text << '"';
}

TEST(HexStringToInt, EveryCharacterIsADigitPosition)
{
    const IntCase cases[] = {
        {"", 0},
        {"0", 0},
        {"f", 15},
        {"Ff", 255},
        {"10", 16},
        {"1 0", 256}, // blank is a zero digit in the middle place
        {"x1", 1},
        {"zz", 0},
        {"7fffffff", 2147483647},
        {"ffffffff", -1879048194},
        {"100000000", 2147483647}, // 16^8 saturates; the zeros add nothing
        {"1000000000000001", INT32_MIN},     // saturated place + 1 wraps to INT32_MIN
    };
    for (const auto &c : cases)
        EXPECT_EQ(pelmox_hex_string_to_int(c.text), c.want) << '"' << c.text << '"';
}

TEST(HexStringToInt, OnlyTheFirstFiftyCharactersAreRead)
{
    // 49 zeros then "1": the 1 is the last digit read and is worth 1.
    std::string fifty = std::string(49, '0') + "1";
    EXPECT_EQ(pelmox_hex_string_to_int(fifty.c_str()), 1);
    // Anything past the fiftieth character is ignored, not shifted in.
    EXPECT_EQ(pelmox_hex_string_to_int((fifty + "fff").c_str()), 1);
    EXPECT_EQ(pelmox_hex_string_to_int((std::string(50, '0') + "7").c_str()), 0);
    EXPECT_EQ(pelmox_string_to_int(("0x" + fifty + "ab").c_str()), 1);
}

TEST(Conversions, NullInputNoteFollowsTheShellFlag)
{
    struct {
        int flag;
        const char *want;
    } cases[] = {{1, "\ninput is null\n"}, {0x100, ""}, {0, ""}, {2, "\ninput is null\n"}};
    for (const auto &c : cases) {
        g_pelmox_shell_print_flag = c.flag;
        testing::internal::CaptureStdout();
        int32_t a = pelmox_string_to_int(nullptr);
        int32_t b = pelmox_hex_string_to_int(nullptr);
        std::fflush(stdout);
        std::string out = testing::internal::GetCapturedStdout();
        EXPECT_EQ(a, 0);
        EXPECT_EQ(b, 0);
        EXPECT_EQ(out, std::string(c.want) + c.want) << "flag " << c.flag;
    }
    g_pelmox_shell_print_flag = -1;
}

TEST(ByteToHex, TwoLowerCaseCharactersPerByteAndNoTerminator)
{
    const uint8_t bytes[] = {0xAB, 0x00, 0x0F, 0xF0, 0x7E};
    char out[16];
    std::fill(std::begin(out), std::end(out), '#');
    pelmox_byte_to_hex(bytes, 5, out);
    EXPECT_EQ(std::string(out, 11), "ab000ff07e#");

    std::fill(std::begin(out), std::end(out), '#');
    pelmox_byte_to_hex(bytes, 1, out);
    EXPECT_EQ(std::string(out, 3), "ab#");

    // Nothing written for no bytes, a negative count or a null input.
    std::fill(std::begin(out), std::end(out), '#');
    pelmox_byte_to_hex(bytes, 0, out);
    pelmox_byte_to_hex(bytes, -3, out);
    pelmox_byte_to_hex(nullptr, 4, out);
    EXPECT_EQ(std::string(out, 16), std::string(16, '#'));
}

// ---- group 5 dispatcher, called in-process ----

TEST(CmnDispatcher, FirstParameterNoteWhenAnotherGroupCallsIn)
{
    char a0[] = "kvn", a1[] = "4", a2[] = "1";
    char *argv[] = {a0, a1, a2, nullptr};
    const std::string note = "\nnote: the first parameters should be 5, Pls refer to the following cmd:\n";
    for (int flag : {1, 0}) {
        g_pelmox_shell_print_flag = flag;
        testing::internal::CaptureStdout();
        EXPECT_EQ(pelmox_test_cmn_do(3, argv), 0);
        std::fflush(stdout);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), (flag ? note : "") + help_text::for_group(5));
    }
    g_pelmox_shell_print_flag = -1;
}

} // namespace
