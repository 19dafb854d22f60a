// shell_test.cpp - help, conversions, the print flags and the group-10 log traces in-process against recording
// fakes of the Android log and properties; then group dispatch and notes with the built kvn as a process.
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
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "help_text.h"
#include "pelmox_conv.h"
#include "pelmox_shell.h"
#include "pelmox_test_mbn.h"
#include "pelmox_utils.h"
#include "process.h"
#include "sim_handset.h"
#include "stdout_of.h"

using LogLine = std::tuple<int, std::string, std::string>; // priority, tag, text

// What the fakes record and answer: a function static, as the library may log before this file's globals exist.
struct Android {
    std::vector<LogLine> log;
    std::map<std::string, std::string> props;
};
static Android &android()
{
    static Android a;
    return a;
}

// Recording stand-ins linked instead of the host library's versions; trace line numbers are masked.
extern "C" int __android_log_print(int prio, const char *tag, const char *fmt, ...)
{
    char text[8192];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(text, sizeof(text), fmt, ap);
    va_end(ap);
    android().log.push_back({prio, tag ? tag : "", kvn_test::mask_trace_lines(text)});
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

using kvn_test::stdout_of;

const char *const k_flag_envs[] = {"PELMOX_SHELL_PRINT_FLAG", "PELMOX_PRINT_FLAG"};

const std::string k_too_few = "\nnote: Too few parameters, Pls refer to the following cmd:\n";

std::string first_parameter_note(int group)
{
    return "\nnote: the first parameters should be " + std::to_string(group) + ", Pls refer to the following cmd:\n";
}

// The group-10 traces of a run that reaches pdc init, {function, text}; the third is logged as an error.
using Traces = std::vector<std::pair<std::string, std::string>>;
Traces pdc_traces(int force_init)
{
    return {{"pdc_init", "function entry ------------->"},
            {"pdc_init", "start pelmox pdc init, g_pdc_init_status = -1, force_init = " + std::to_string(force_init)},
            {"pdc_init", "pdc init failed"}, {"pdc_init", "function exit <-------------"},
            {"do", "pdc init failed, do nothing"}};
}

// Each test starts with no environment, no property, no override and an empty log.
class Shell : public testing::Test {
protected:
    void SetUp() override
    {
        for (const char *var : k_flag_envs)
            unsetenv(var);
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

// pelmox_string_to_int: atoi, or hex after 0x/0X. pelmox_hex_string_to_int: each character a digit place, the
// fiftieth the units. In hex a non-digit, even a sign, counts 0; a place past 2^31 saturates and the sum wraps.
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
        {dec, "0x1A", 26}, {dec, "0X1a", 26}, {dec, "26", 26}, {dec, "1A", 1}, {dec, "0xG1", 1}, {dec, "0x-1", 1},
        {dec, "0xFFFFFFFF", -1879048194}, {dec, "0x80000000", 2147483647}, {dec, "0x7FFFFFFF", 2147483647},
        {dec, "  -42", -42}, {dec, "abc", 0}, {dec, "", 0}, {dec, "0x", 0}, {dec, "0y12", 0}, {dec, "00x12", 0},
        {dec, "0x" + fifty + "ab", 1}, {hex, "", 0}, {hex, "f", 15}, {hex, "Ff", 255}, {hex, "10", 16},
        {hex, "1 0", 256}, {hex, "x1", 1}, {hex, "zz", 0}, {hex, "7fffffff", 2147483647},
        {hex, "ffffffff", -1879048194}, {hex, "100000000", 2147483647}, {hex, "1000000000000001", INT32_MIN},
        {hex, fifty, 1}, {hex, fifty + "fff", 1}, {hex, std::string(50, '0') + "7", 0},
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
    const struct {
        std::function<int()> call;
        std::string note, always;
    } cases[] = {
        {[] { return pelmox_string_to_int(nullptr); }, "\ninput is null\n", ""},
        {[] { return pelmox_hex_string_to_int(nullptr); }, "\ninput is null\n", ""},
        {[&] { return pelmox_test_cmn_do(3, argv); }, first_parameter_note(5), help_text::for_group(5)},
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

// Both flags come from a non-negative override, the environment (decimal or 0x hex), the property, the default (shell
// on, log off), in that order, passing over an unreadable source. The rows share one process: a cached value shows.
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
        SCOPED_TRACE("row " + std::to_string(&c - cases));
        for (const char *var : k_flag_envs)
            c.env ? setenv(var, c.env, 1) : unsetenv(var);
        using Props = std::map<std::string, std::string>;
        android().props = c.prop ? Props{{"persist.vendor.pelmox.shell_print_flag", c.prop},
                                         {"persist.vendor.pelmox.print_flag", c.prop}}
                                 : Props{};
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

// The traces as the log has them: all with the log flag on, else only the error.
std::vector<LogLine> logged(const Traces &traces, bool on)
{
    std::vector<LogLine> out;
    for (size_t i = 0; i < traces.size(); ++i)
        if (on || i == 2)
            out.push_back({i == 2 ? ANDROID_LOG_ERROR : ANDROID_LOG_DEBUG, "pelmox",
                           "SUB[shell][pelmox_test_mbn:N] pelmox_test_mbn_" + traces[i].first + ": " +
                               traces[i].second});
    return out;
}

// Group 10 in-process with the shell flag off, so only the help and notes reach the terminal. The debug traces
// follow the low byte of the log flag; the pdc failure is logged whatever the flag; argument errors log nothing.
TEST_F(Shell, Group10LogTracesFollowTheLowByteOfTheLogFlag)
{
    const std::string help = help_text::for_group(10);
    const struct {
        std::vector<std::string> args;
        std::string out;
        bool runs; // reaches pdc init
    } cases[] = {
        {{"kvn", "10", "0", "2"}, help, true},
        {{"kvn", "10", "0", "4"}, "\nnote: sub_mask(4) is invalid:\n" + help, false},
        {{"kvn", "10"}, k_too_few + help, false},
        {{"kvn", "4", "0", "2"}, first_parameter_note(10) + help, false}, // only another group calling in
    };
    g_pelmox_shell_print_flag = 0;
    for (int flag : {1, 0x101, 0, 2, 0x100, 3}) {
        for (auto c : cases) {
            SCOPED_TRACE(testing::PrintToString(c.args) + " log flag " + std::to_string(flag));
            android().log.clear();
            g_pelmox_print_flag = flag;
            std::vector<char *> argv;
            for (auto &a : c.args)
                argv.push_back(a.data());
            argv.push_back(nullptr);
            int rc = -1;
            const std::string out =
                stdout_of([&] { rc = pelmox_test_mbn_do(static_cast<int>(c.args.size()), argv.data()); });
            EXPECT_EQ(std::tuple(rc, kvn_test::mask_trace_lines(out), android().log),
                      std::tuple(0, c.out, logged(c.runs ? pdc_traces(0) : Traces{}, (flag & 0xFF) == 1)));
        }
    }
    android().log.clear(); // called directly, pdc init always fails and reports its argument
    g_pelmox_print_flag = 1;
    EXPECT_EQ(pelmox_test_mbn_pdc_init(200), -1);
    const auto direct = logged(pdc_traces(200), true);
    EXPECT_EQ(android().log, std::vector<LogLine>(direct.begin(), direct.end() - 1));
}

using Args = std::vector<std::string>;

const std::string k_pdc_init = "RIL[pelmox_test_mbn_pdc_init:";

struct Case {
    Args args;
    std::string on;  // stdout with the shell print flag on
    std::string off; // stdout with it off ("0", and "0x100": only the low byte counts)
};

std::vector<Case> cases()
{
    using help_text::for_group;
    std::vector<Case> out;
    std::string pdc; // the terminal form of the group-10 traces
    for (const auto &[fn, text] : pdc_traces(0))
        pdc += "RIL[pelmox_test_mbn_" + fn + ":N]: " + text + "\n";
    // A missing or unknown group prints the full help.
    for (const Args &a : {Args{}, Args{"12"}, Args{"abc"}, Args{"0"}, Args{"-5"}, Args{"99", "1", "2"}})
        out.push_back({a, for_group(0), for_group(0)});
    for (const Args &a : {Args{"1"}, Args{"2"}, Args{"1", "4", "550"}, Args{"2x", "0"}})
        out.push_back({a, "Not support\n", "Not support\n"});
    out.push_back({{"5"}, k_too_few + for_group(5), for_group(5)});
    const std::string bad_sub = "\nnote: the second parameters is invalid, Pls refer to the following cmd:\n";
    for (const char *sub : {"7", "8", "9", "11", "12", "-1", "-7"})
        out.push_back({{"5", sub}, bad_sub + for_group(5), for_group(5)});
    // Group 10 does not read argument 2, and extra arguments do not matter.
    for (const Args &a :
         {Args{"10", "0", "1"}, Args{"10", "0", "2"}, Args{"10", "0", "3"}, Args{"10", "junk", "2", "extra"}})
        out.push_back({a, pdc + for_group(10), for_group(10)});
    // Its argument notes do not follow the shell flag.
    for (const char *mask : {"4", "0", "-2"}) {
        const std::string note = "\nnote: sub_mask(" + std::string(mask) + ") is invalid:\n" + for_group(10);
        out.push_back({{"10", "0", mask}, note, note});
    }
    for (const Args &a : {Args{"10"}, Args{"10", "0"}})
        out.push_back({a, k_too_few + for_group(10), k_too_few + for_group(10)});
    return out;
}

TEST(KvnDispatch, EveryCaseInBothShellFlagStates)
{
    for (const Case &c : cases()) {
        for (const char *flag : {"1", "0", "0x100"}) {
            SCOPED_TRACE(testing::PrintToString(c.args) + " shell flag " + flag);
            // The log flag off and no handset, so no running one's properties leak in.
            Args argv = kvn_test::kvn_command();
            argv.insert(argv.end(), c.args.begin(), c.args.end());
            const auto r = kvn_test::run_process(argv, {.env = {{"PELMOX_SHELL_PRINT_FLAG", flag},
                                                                {"PELMOX_PRINT_FLAG", "0"},
                                                                {"KVN_SIM_SOCKET", "/nonexistent/kvn-sim.sock"}}});
            EXPECT_EQ(std::tuple(r.timed_out, r.exit_code, kvn_test::mask_trace_lines(r.out), r.err),
                      std::tuple(false, 0, std::string(flag) == "1" ? c.on : c.off, std::string()));
            // Unmasked, the traces of one function come from increasing source lines.
            std::istringstream lines(r.out);
            int last = 0;
            for (std::string l; std::getline(lines, l) && l.rfind(k_pdc_init, 0) == 0;) {
                const int line = std::stoi(l.substr(k_pdc_init.size()));
                EXPECT_GT(line, last) << r.out;
                last = line;
            }
        }
    }
}

} // namespace
