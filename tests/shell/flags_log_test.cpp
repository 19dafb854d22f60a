// flags_log_test.cpp - the print-flag library (sources, precedence, parsing,
// syslog lines) and the log form of the group-10 traces, with the Android log
// and properties replaced by recording fakes.
#include <gtest/gtest.h>

#include <android/log.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "fake_android.h"
#include "help_text.h"
#include "pelmox_test_mbn.h"
#include "pelmox_utils.h"
#include "process.h"

namespace {

const char k_shell_env[] = "PELMOX_SHELL_PRINT_FLAG";
const char k_log_env[] = "PELMOX_PRINT_FLAG";

// Each test starts and ends with no environment, no property and no override.
class PrintFlags : public testing::Test {
protected:
    void SetUp() override { reset(); }
    void TearDown() override { reset(); }
    static void reset()
    {
        unsetenv(k_shell_env);
        unsetenv(k_log_env);
        g_pelmox_shell_print_flag = g_pelmox_print_flag = -1;
        fake_android::clear();
    }
};

// Both flags come from, in order: a non-negative override global, the
// environment (decimal or 0x hex), the property, then the default (shell on,
// log off). An unreadable source is passed over. The rows run in order
// through the same process, so a value cached between calls would show.
TEST_F(PrintFlags, PrecedenceAndParsing)
{
    const struct {
        const char *env, *prop;
        int global, shell, log;
    } cases[] = {
        {nullptr, nullptr, -1, 1, 0}, {"0", nullptr, -1, 0, 0},         {"1", nullptr, -1, 1, 1},
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
        fake_android::properties().clear();
        if (c.prop) {
            fake_android::properties()["persist.vendor.pelmox.shell_print_flag"] = c.prop;
            fake_android::properties()["persist.vendor.pelmox.print_flag"] = c.prop;
        }
        g_pelmox_shell_print_flag = g_pelmox_print_flag = c.global;
        EXPECT_EQ(pelmox_utils_get_shell_print_flag(), c.shell);
        EXPECT_EQ(pelmox_utils_get_print_flag(), c.log);
    }
}

TEST_F(PrintFlags, SyslogHelpersUseTagPelmoxAndTheirPriorities)
{
    pelmox_utils_syslog_dbg("a %d %s", 1, "b");
    pelmox_utils_syslog_err("%s%%", "x");
    pelmox_utils_syslog_dbg("%s", std::string(5000, 'y').c_str());
    const auto &lines = fake_android::log_lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].prio, ANDROID_LOG_DEBUG);
    EXPECT_EQ(lines[0].text, "a 1 b");
    EXPECT_EQ(lines[1].prio, ANDROID_LOG_ERROR);
    EXPECT_EQ(lines[1].text, "x%");
    for (const auto &l : lines)
        EXPECT_EQ(l.tag, "pelmox");
    // An over-long line is cut, never overflowed.
    EXPECT_LT(lines[2].text.size(), 5000u);
    EXPECT_EQ(lines[2].text, std::string(lines[2].text.size(), 'y'));
}

// ---- group 10 traces in the Android log ----

struct Logged {
    std::string out;                // stdout
    std::vector<std::string> debug; // debug lines, trace line numbers masked
    std::vector<std::string> error; // error lines, masked
};

Logged run_group10(int log_flag, std::vector<std::string> args)
{
    fake_android::clear();
    g_pelmox_print_flag = log_flag;
    g_pelmox_shell_print_flag = 0;
    std::vector<char *> argv;
    for (auto &a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    testing::internal::CaptureStdout();
    EXPECT_EQ(pelmox_test_mbn_do(static_cast<int>(args.size()), argv.data()), 0);
    std::fflush(stdout);
    Logged r;
    r.out = kvn_test::mask_trace_lines(testing::internal::GetCapturedStdout());
    for (const auto &l : fake_android::log_lines()) {
        EXPECT_EQ(l.tag, "pelmox");
        (l.prio == ANDROID_LOG_ERROR ? r.error : r.debug).push_back(kvn_test::mask_trace_lines(l.text));
    }
    g_pelmox_print_flag = g_pelmox_shell_print_flag = -1;
    return r;
}

// The debug traces follow the low byte of the log flag; the failure is logged
// whatever the flag; argument errors log nothing. With the shell flag off
// nothing but the help and notes reaches the terminal.
TEST(Group10Log, TracesFollowTheLowByteOfTheLogFlag)
{
    const std::string sub = "SUB[shell][pelmox_test_mbn:N] ";
    const std::vector<std::string> traces = {
        sub + "pelmox_test_mbn_pdc_init: function entry ------------->",
        sub + "pelmox_test_mbn_pdc_init: start pelmox pdc init, g_pdc_init_status = -1, force_init = 0",
        sub + "pelmox_test_mbn_pdc_init: function exit <-------------",
        sub + "pelmox_test_mbn_do: pdc init failed, do nothing",
    };
    const std::vector<std::string> failure = {sub + "pelmox_test_mbn_pdc_init: pdc init failed"}, none;
    const std::string too_few = "\nnote: Too few parameters, Pls refer to the following cmd:\n";
    for (int flag : {1, 0x101, 0, 2, 0x100, 3}) {
        SCOPED_TRACE("log flag " + std::to_string(flag));
        const bool on = (flag & 0xFF) == 1;
        Logged r = run_group10(flag, {"kvn", "10", "0", "2"});
        EXPECT_EQ(r.out, help_text::for_group(10));
        EXPECT_EQ(r.debug, on ? traces : none);
        EXPECT_EQ(r.error, failure);

        r = run_group10(flag, {"kvn", "10", "0", "4"});
        EXPECT_EQ(r.out, "\nnote: sub_mask(4) is invalid:\n" + help_text::for_group(10));
        EXPECT_EQ(r.debug, none);
        EXPECT_EQ(r.error, none);

        r = run_group10(flag, {"kvn", "10"});
        EXPECT_EQ(r.out, too_few + help_text::for_group(10));
        EXPECT_EQ(r.debug, none);
        EXPECT_EQ(r.error, none);
    }
    // Only another group calling in can get the first-parameter note.
    Logged r = run_group10(1, {"kvn", "4", "0", "2"});
    EXPECT_EQ(r.out, "\nnote: the first parameters should be 10, Pls refer to the following cmd:\n" +
                         help_text::for_group(10));
    EXPECT_EQ(r.error, none);

    // Called directly, pdc init always fails and reports its argument.
    fake_android::clear();
    g_pelmox_print_flag = 1;
    g_pelmox_shell_print_flag = 0;
    EXPECT_EQ(pelmox_test_mbn_pdc_init(200), -1);
    g_pelmox_print_flag = g_pelmox_shell_print_flag = -1;
    ASSERT_EQ(fake_android::log_lines().size(), 4u);
    EXPECT_EQ(kvn_test::mask_trace_lines(fake_android::log_lines()[1].text),
              sub + "pelmox_test_mbn_pdc_init: start pelmox pdc init, g_pdc_init_status = -1, force_init = 200");
}

} // namespace
