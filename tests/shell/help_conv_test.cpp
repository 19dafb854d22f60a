// help_conv_test.cpp - the help printer against the full help text, and the
// tolerant number/hex conversions of the command line.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "help_text.h"
#include "pelmox_conv.h"
#include "pelmox_shell.h"
#include "pelmox_utils.h"

namespace {

template <class F> std::string stdout_of(F &&f)
{
    testing::internal::CaptureStdout();
    f();
    std::fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

// Group 0 prints every section; an out-of-range group only banner and footer.
TEST(ShowHelp, EveryGroupAndOutOfRangeGroups)
{
    for (int group : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, -1, 100, INT32_MIN}) {
        SCOPED_TRACE("group " + std::to_string(group));
        EXPECT_EQ(stdout_of([&] { show_help(group); }), help_text::for_group(group));
    }
}

struct IntCase {
    const char *text;
    int32_t want;
};

TEST(StringToInt, DecimalOrPrefixedHex)
{
    const IntCase cases[] = {
        {"0x1A", 26}, {"0X1a", 26}, {"26", 26},
        {"1A", 1},                   // no prefix: decimal, stops at A
        {"0x", 0},                   // prefix alone
        {"0xG1", 1},                 // G takes the sixteens place as 0
        {"0x-1", 1},                 // so does the sign
        {"0x7FFFFFFF", 2147483647},
        {"0xFFFFFFFF", -1879048194}, // first place saturates, the rest wraps the sum
        {"0x80000000", 2147483647},  // saturated place, nothing left to add
        {"  -42", -42},              // atoi: blanks and sign
        {"abc", 0}, {"", 0},
        {"0y12", 0}, {"00x12", 0},   // only a leading 0x / 0X starts a hex number
    };
    for (const auto &c : cases)
        EXPECT_EQ(pelmox_string_to_int(c.text), c.want) << '"' << c.text << '"';
}

TEST(HexStringToInt, EveryCharacterIsADigitPositionUpToFifty)
{
    const IntCase cases[] = {
        {"", 0}, {"f", 15}, {"Ff", 255}, {"10", 16},
        {"1 0", 256}, // blank is a zero digit in the middle place
        {"x1", 1}, {"zz", 0}, {"7fffffff", 2147483647}, {"ffffffff", -1879048194},
        {"100000000", 2147483647},       // 16^8 saturates; the zeros add nothing
        {"1000000000000001", INT32_MIN}, // saturated place + 1 wraps to INT32_MIN
    };
    for (const auto &c : cases)
        EXPECT_EQ(pelmox_hex_string_to_int(c.text), c.want) << '"' << c.text << '"';

    // 49 zeros then "1": the 1 is the last digit read and is worth 1; anything
    // past the fiftieth character is ignored, not shifted in.
    const std::string fifty = std::string(49, '0') + "1";
    EXPECT_EQ(pelmox_hex_string_to_int(fifty.c_str()), 1);
    EXPECT_EQ(pelmox_hex_string_to_int((fifty + "fff").c_str()), 1);
    EXPECT_EQ(pelmox_hex_string_to_int((std::string(50, '0') + "7").c_str()), 0);
    EXPECT_EQ(pelmox_string_to_int(("0x" + fifty + "ab").c_str()), 1);
}

TEST(Conversions, NullInputNoteFollowsTheShellFlag)
{
    for (int flag : {1, 0x100, 0, 2}) {
        g_pelmox_shell_print_flag = flag;
        int32_t a = -1, b = -1;
        const std::string out = stdout_of([&] {
            a = pelmox_string_to_int(nullptr);
            b = pelmox_hex_string_to_int(nullptr);
        });
        EXPECT_EQ(a, 0);
        EXPECT_EQ(b, 0);
        EXPECT_EQ(out, flag & 0xFF ? "\ninput is null\n\ninput is null\n" : "") << "flag " << flag;
    }
    g_pelmox_shell_print_flag = -1;
}

TEST(ByteToHex, TwoLowerCaseCharactersPerByteAndNoTerminator)
{
    const uint8_t bytes[] = {0xAB, 0x00, 0x0F, 0xF0, 0x7E};
    char out[16];
    std::memset(out, '#', sizeof(out));
    pelmox_byte_to_hex(bytes, 5, out);
    EXPECT_EQ(std::string(out, 11), "ab000ff07e#");
    std::memset(out, '#', sizeof(out));
    pelmox_byte_to_hex(bytes, 1, out);
    EXPECT_EQ(std::string(out, 3), "ab#");

    // Nothing written for no bytes, a negative count or a null input.
    std::memset(out, '#', sizeof(out));
    pelmox_byte_to_hex(bytes, 0, out);
    pelmox_byte_to_hex(bytes, -3, out);
    pelmox_byte_to_hex(nullptr, 4, out);
    EXPECT_EQ(std::string(out, 16), std::string(16, '#'));
}

// The group-5 dispatcher called in-process by another group's number.
TEST(CmnDispatcher, FirstParameterNoteWhenAnotherGroupCallsIn)
{
    char a0[] = "kvn", a1[] = "4", a2[] = "1";
    char *argv[] = {a0, a1, a2, nullptr};
    const std::string note = "\nnote: the first parameters should be 5, Pls refer to the following cmd:\n";
    for (int flag : {1, 0}) {
        g_pelmox_shell_print_flag = flag;
        int rc = -1;
        EXPECT_EQ(stdout_of([&] { rc = pelmox_test_cmn_do(3, argv); }), (flag ? note : "") + help_text::for_group(5));
        EXPECT_EQ(rc, 0);
    }
    g_pelmox_shell_print_flag = -1;
}

} // namespace
