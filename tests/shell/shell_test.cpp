// shell_test.cpp - the command shell in-process: help, number conversions, the print-flag library and the log
// form of the group-10 traces, against recording fakes of the Android log and the system properties.
#include <gtest/gtest.h>

#include <android/log.h>
#include <cutils/properties.h>

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "help_text.h"
#include "pelmox_conv.h"
#include "pelmox_shell.h"
#include "pelmox_test_mbn.h"
#include "pelmox_utils.h"
#include "process.h"

namespace {

struct LogLine {
    int prio;
    std::string tag, text;
    bool operator==(const LogLine &) const = default;
};

// What the fakes below record and answer (a missing property reads as the caller's default). A function static:
// the library may log before this file's globals are built.
struct Android {
    std::vector<LogLine> log;
    std::map<std::string, std::string> props;
};
Android &android()
{
    static Android a;
    return a;
}

} // namespace

// Recording stand-ins linked instead of the host library's versions.
extern "C" int __android_log_print(int prio, const char *tag, const char *fmt, ...)
{
    char text[8192];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(text, sizeof(text), fmt, ap);
    va_end(ap);
    android().log.push_back({prio, tag ? tag : "", text});
    return 1;
}

extern "C" int property_get(const char *key, char *value, const char *default_value)
{
    auto it = android().props.find(key);
    std::string v = it != android().props.end() ? it->second : (default_value ? default_value : "");
    v.resize(std::min(v.size(), static_cast<size_t>(PROPERTY_VALUE_MAX - 1)));
    std::memcpy(value, v.c_str(), v.size() + 1);
    return static_cast<int>(v.size());
}

namespace {

const char k_shell_env[] = "PELMOX_SHELL_PRINT_FLAG";
const char k_log_env[] = "PELMOX_PRINT_FLAG";

template <class F> std::string stdout_of(F &&f)
{
    testing::internal::CaptureStdout();
    f();
    std::fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

// Each test starts and ends with no environment, no property, no override and an empty log.
class Shell : public testing::Test {
protected:
    void SetUp() override { reset(); }
    void TearDown() override { reset(); }
    static void reset()
    {
        unsetenv(k_shell_env);
        unsetenv(k_log_env);
        g_pelmox_shell_print_flag = g_pelmox_print_flag = -1;
        android() = {};
    }
};

// Group 0 prints every section; an out-of-range group only banner and footer.
TEST_F(Shell, ShowHelpEveryGroupAndOutOfRangeGroups)
{
    for (int group : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, -1, 100, INT32_MIN}) {
        SCOPED_TRACE("group " + std::to_string(group));
        EXPECT_EQ(stdout_of([&] { show_help(group); }), help_text::for_group(group));
    }
}

// pelmox_string_to_int: atoi, or hex after a leading 0x/0X. pelmox_hex_string_to_int: every character is a digit
// position (a non-digit counts 0), up to fifty. A place past 2^31 saturates and the sum wraps.
TEST_F(Shell, Conversions)
{
    const std::string fifty = std::string(49, '0') + "1";
    const auto dec = pelmox_string_to_int;
    const auto hex = pelmox_hex_string_to_int;
    const struct {
        int32_t (*conv)(const char *);
        std::string text;
        int32_t want;
    } cases[] = {
        {dec, "0x1A", 26}, {dec, "0X1a", 26}, {dec, "26", 26},
        {dec, "1A", 1},                   // no prefix: decimal, stops at A
        {dec, "0xG1", 1},                 // G takes the sixteens place as 0
        {dec, "0x-1", 1},                 // so does the sign
        {dec, "0xFFFFFFFF", -1879048194}, // first place saturates, the rest wraps the sum
        {dec, "0x80000000", 2147483647},  // saturated place, nothing left to add
        {dec, "0x7FFFFFFF", 2147483647}, {dec, "  -42", -42}, {dec, "abc", 0}, {dec, "", 0}, {dec, "0x", 0},
        {dec, "0y12", 0}, {dec, "00x12", 0}, {dec, "0x" + fifty + "ab", 1},
        {hex, "", 0}, {hex, "f", 15}, {hex, "Ff", 255}, {hex, "10", 16}, {hex, "1 0", 256}, {hex, "x1", 1},
        {hex, "zz", 0}, {hex, "7fffffff", 2147483647}, {hex, "ffffffff", -1879048194},
        {hex, "100000000", 2147483647},       // 16^8 saturates; the zeros add nothing
        {hex, "1000000000000001", INT32_MIN}, // saturated place + 1 wraps to INT32_MIN
        {hex, fifty, 1},                      // the fiftieth character is the units place
        {hex, fifty + "fff", 1},              // later ones are ignored, not shifted in
        {hex, std::string(50, '0') + "7", 0},
    };
    for (const auto &c : cases)
        EXPECT_EQ(c.conv(c.text.c_str()), c.want) << (c.conv == dec ? "dec \"" : "hex \"") << c.text << '"';
}

// Notes that follow the low byte of the shell flag: a null conversion input, and the group-5 dispatcher called
// in-process by another group's number (its help comes whatever the flag).
TEST_F(Shell, NotesFollowTheShellFlag)
{
    char a0[] = "kvn", a1[] = "4", a2[] = "1";
    char *argv[] = {a0, a1, a2, nullptr};
    const std::string null_note = "\ninput is null\n";
    const struct {
        std::function<int()> call;
        std::string note, always;
    } cases[] = {
        {[] { return pelmox_string_to_int(nullptr); }, null_note, ""},
        {[] { return pelmox_hex_string_to_int(nullptr); }, null_note, ""},
        {[&] { return pelmox_test_cmn_do(3, argv); },
         "\nnote: the first parameters should be 5, Pls refer to the following cmd:\n", help_text::for_group(5)},
    };
    for (int flag : {1, 0x100, 0, 2}) {
        for (const auto &c : cases) {
            g_pelmox_shell_print_flag = flag;
            int rc = -1;
            EXPECT_EQ(stdout_of([&] { rc = c.call(); }), (flag & 0xFF ? c.note : "") + c.always) << flag;
            EXPECT_EQ(rc, 0);
        }
    }
}

// Two lower-case characters per byte, no terminator; nothing for no bytes, a negative count or a null input.
TEST_F(Shell, ByteToHex)
{
    const uint8_t bytes[] = {0xAB, 0x00, 0x0F, 0xF0, 0x7E};
    const struct {
        const uint8_t *in;
        int32_t count;
        std::string want;
    } cases[] = {{bytes, 5, "ab000ff07e######"}, {bytes, 1, "ab##############"}, {bytes, 0, std::string(16, '#')},
                 {bytes, -3, std::string(16, '#')}, {nullptr, 4, std::string(16, '#')}};
    for (const auto &c : cases) {
        char out[16];
        std::memset(out, '#', sizeof(out));
        pelmox_byte_to_hex(c.in, c.count, out);
        EXPECT_EQ(std::string(out, sizeof(out)), c.want) << c.count;
    }
}

// Both flags come from, in order: a non-negative override global, the environment (decimal or 0x hex), the
// property, then the default (shell on, log off). An unreadable source is passed over. The rows run in order
// through the same process, so a value cached between calls would show.
TEST_F(Shell, PrintFlagPrecedenceAndParsing)
{
    const struct {
        const char *env, *prop;
        int global, shell, log;
    } cases[] = {
        {nullptr, nullptr, -1, 1, 0},   {"0", nullptr, -1, 0, 0},         {"1", nullptr, -1, 1, 1},
        {"257", nullptr, -1, 257, 257}, {"0x101", nullptr, -1, 257, 257}, {"0X1f", nullptr, -1, 31, 31},
        {"-3", nullptr, -1, -3, -3},    {"0x0", nullptr, -1, 0, 0},       {nullptr, "0x100", -1, 256, 256},
        {"", "5", -1, 5, 5},            {"abc", "5", -1, 5, 5},           {"1x", "5", -1, 5, 5},
        {"0x", "5", -1, 5, 5},          {" 1", "5", -1, 5, 5},            {"99999999999", "5", -1, 5, 5},
        {"7", "5", -1, 7, 7},           {nullptr, "on", -1, 1, 0},        {nullptr, "", -1, 1, 0},
        {"3", "5", 0, 0, 0},            {"3", "5", 0x101, 0x101, 0x101},  {"4", "5", -1, 4, 4},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << "env " << (c.env ? c.env : "(unset)") << " property "
                                        << (c.prop ? c.prop : "(unset)") << " global " << c.global);
        for (const char *var : {k_shell_env, k_log_env})
            c.env ? setenv(var, c.env, 1) : unsetenv(var);
        android().props.clear();
        if (c.prop) {
            android().props["persist.vendor.pelmox.shell_print_flag"] = c.prop;
            android().props["persist.vendor.pelmox.print_flag"] = c.prop;
        }
        g_pelmox_shell_print_flag = g_pelmox_print_flag = c.global;
        EXPECT_EQ(pelmox_utils_get_shell_print_flag(), c.shell);
        EXPECT_EQ(pelmox_utils_get_print_flag(), c.log);
    }
}

// Tag pelmox, the helper's priority, and an over-long line cut to 4095 characters rather than overflowed.
TEST_F(Shell, SyslogHelpers)
{
    pelmox_utils_syslog_dbg("a %d %s", 1, "b");
    pelmox_utils_syslog_err("%s%%", "x");
    pelmox_utils_syslog_dbg("%s", std::string(5000, 'y').c_str());
    EXPECT_EQ(android().log, (std::vector<LogLine>{{ANDROID_LOG_DEBUG, "pelmox", "a 1 b"},
                                                   {ANDROID_LOG_ERROR, "pelmox", "x%"},
                                                   {ANDROID_LOG_DEBUG, "pelmox", std::string(4095, 'y')}}));
}

// The log with trace line numbers masked.
std::vector<LogLine> masked_log()
{
    std::vector<LogLine> log = android().log;
    for (auto &l : log)
        l.text = kvn_test::mask_trace_lines(l.text);
    return log;
}

// Group 10 in-process with the shell flag off, so only the help and notes reach the terminal. The debug traces
// follow the low byte of the log flag; the pdc failure is logged whatever the flag; argument errors log nothing.
TEST_F(Shell, Group10LogTracesFollowTheLowByteOfTheLogFlag)
{
    const auto line = [](int prio, const std::string &text) {
        return LogLine{prio, "pelmox", "SUB[shell][pelmox_test_mbn:N] pelmox_test_mbn_" + text};
    };
    const LogLine failed = line(ANDROID_LOG_ERROR, "pdc_init: pdc init failed");
    const auto traced = [&](int force) {
        return std::vector<LogLine>{
            line(ANDROID_LOG_DEBUG, "pdc_init: function entry ------------->"),
            line(ANDROID_LOG_DEBUG, "pdc_init: start pelmox pdc init, g_pdc_init_status = -1, force_init = " +
                                        std::to_string(force)),
            failed, line(ANDROID_LOG_DEBUG, "pdc_init: function exit <-------------")};
    };
    std::vector<LogLine> on = traced(0);
    on.push_back(line(ANDROID_LOG_DEBUG, "do: pdc init failed, do nothing"));
    const std::string help = help_text::for_group(10);
    const struct {
        std::vector<std::string> args;
        std::string out;
        bool runs; // reaches pdc init
    } cases[] = {
        {{"kvn", "10", "0", "2"}, help, true},
        {{"kvn", "10", "0", "4"}, "\nnote: sub_mask(4) is invalid:\n" + help, false},
        {{"kvn", "10"}, "\nnote: Too few parameters, Pls refer to the following cmd:\n" + help, false},
        // Only another group calling in can get this note.
        {{"kvn", "4", "0", "2"}, "\nnote: the first parameters should be 10, Pls refer to the following cmd:\n" + help,
         false},
    };
    g_pelmox_shell_print_flag = 0;
    for (int flag : {1, 0x101, 0, 2, 0x100, 3}) {
        for (auto c : cases) {
            SCOPED_TRACE("log flag " + std::to_string(flag) + ", argv[1] " + c.args[1] + ", argc " +
                         std::to_string(c.args.size()));
            android().log.clear();
            g_pelmox_print_flag = flag;
            std::vector<char *> argv;
            for (auto &a : c.args)
                argv.push_back(a.data());
            argv.push_back(nullptr);
            int rc = -1;
            const std::string out =
                stdout_of([&] { rc = pelmox_test_mbn_do(static_cast<int>(c.args.size()), argv.data()); });
            EXPECT_EQ(rc, 0);
            EXPECT_EQ(kvn_test::mask_trace_lines(out), c.out);
            EXPECT_EQ(masked_log(), !c.runs ? std::vector<LogLine>{} : (flag & 0xFF) == 1 ? on : std::vector{failed});
        }
    }
    // Called directly, pdc init always fails and reports its argument.
    android().log.clear();
    g_pelmox_print_flag = 1;
    EXPECT_EQ(pelmox_test_mbn_pdc_init(200), -1);
    EXPECT_EQ(masked_log(), traced(200));
}

} // namespace
