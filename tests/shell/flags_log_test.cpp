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
const char k_shell_prop[] = "persist.vendor.pelmox.shell_print_flag";
const char k_log_prop[] = "persist.vendor.pelmox.print_flag";

// Each test starts with no environment, no property and no override.
class PrintFlags : public testing::Test {
protected:
    void SetUp() override { reset(); }
    void TearDown() override { reset(); }
    static void reset()
    {
        unsetenv(k_shell_env);
        unsetenv(k_log_env);
        g_pelmox_shell_print_flag = -1;
        g_pelmox_print_flag = -1;
        fake_android::clear();
    }
};

TEST_F(PrintFlags, DefaultsAreShellOnLogOff)
{
    EXPECT_EQ(pelmox_utils_get_shell_print_flag(), 1);
    EXPECT_EQ(pelmox_utils_get_print_flag(), 0);
}

TEST_F(PrintFlags, EnvironmentTakesDecimalOrHex)
{
    const struct {
        const char *text;
        int want;
    } cases[] = {{"0", 0}, {"1", 1}, {"257", 257}, {"0x101", 257}, {"0X1f", 31}, {"-3", -3}, {"0x0", 0}};
    for (const auto &c : cases) {
        setenv(k_shell_env, c.text, 1);
        setenv(k_log_env, c.text, 1);
        EXPECT_EQ(pelmox_utils_get_shell_print_flag(), c.want) << c.text;
        EXPECT_EQ(pelmox_utils_get_print_flag(), c.want) << c.text;
    }
}

TEST_F(PrintFlags, PropertyIsUsedWhenTheEnvironmentIsUnsetOrUnreadable)
{
    fake_android::properties()[k_shell_prop] = "0x100";
    fake_android::properties()[k_log_prop] = "5";
    EXPECT_EQ(pelmox_utils_get_shell_print_flag(), 0x100);
    EXPECT_EQ(pelmox_utils_get_print_flag(), 5);

    for (const char *bad : {"", "abc", "1x", "0x", " 1", "99999999999"}) {
        setenv(k_shell_env, bad, 1);
        EXPECT_EQ(pelmox_utils_get_shell_print_flag(), 0x100) << '"' << bad << '"';
    }
    setenv(k_shell_env, "7", 1);
    EXPECT_EQ(pelmox_utils_get_shell_print_flag(), 7); // environment wins

    // An unreadable property falls back to the default.
    unsetenv(k_shell_env);
    fake_android::properties()[k_shell_prop] = "on";
    fake_android::properties()[k_log_prop] = "";
    EXPECT_EQ(pelmox_utils_get_shell_print_flag(), 1);
    EXPECT_EQ(pelmox_utils_get_print_flag(), 0);
}

TEST_F(PrintFlags, NonNegativeOverrideWinsAndIsReadAtEveryCall)
{
    setenv(k_shell_env, "3", 1);
    setenv(k_log_env, "1", 1);
    g_pelmox_shell_print_flag = 0;
    g_pelmox_print_flag = 0x101;
    EXPECT_EQ(pelmox_utils_get_shell_print_flag(), 0);
    EXPECT_EQ(pelmox_utils_get_print_flag(), 0x101);
    g_pelmox_shell_print_flag = -1;
    g_pelmox_print_flag = -1;
    EXPECT_EQ(pelmox_utils_get_shell_print_flag(), 3);
    EXPECT_EQ(pelmox_utils_get_print_flag(), 1);
    setenv(k_shell_env, "4", 1); // no caching between calls
    EXPECT_EQ(pelmox_utils_get_shell_print_flag(), 4);
}

TEST_F(PrintFlags, SyslogHelpersUseTagPelmoxAndTheirPriorities)
{
    pelmox_utils_syslog_dbg("a %d %s", 1, "b");
    pelmox_utils_syslog_err("%s%%", "x");
    pelmox_utils_syslog_dbg("%s", std::string(5000, 'y').c_str());
    const auto &lines = fake_android::log_lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].prio, ANDROID_LOG_DEBUG);
    EXPECT_EQ(lines[0].tag, "pelmox");
    EXPECT_EQ(lines[0].text, "a 1 b");
    EXPECT_EQ(lines[1].prio, ANDROID_LOG_ERROR);
    EXPECT_EQ(lines[1].tag, "pelmox");
    EXPECT_EQ(lines[1].text, "x%");
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

Logged run_group10(int log_flag, int shell_flag, std::vector<std::string> args)
{
    fake_android::clear();
    g_pelmox_print_flag = log_flag;
    g_pelmox_shell_print_flag = shell_flag;
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
    g_pelmox_print_flag = -1;
    g_pelmox_shell_print_flag = -1;
    return r;
}

TEST(Group10Log, TracesFollowTheLowByteOfTheLogFlag)
{
    const std::vector<std::string> traces = {
        "SUB[shell][pelmox_test_mbn:N] pelmox_test_mbn_pdc_init: function entry ------------->",
        "SUB[shell][pelmox_test_mbn:N] pelmox_test_mbn_pdc_init: start pelmox pdc init, g_pdc_init_status = -1, "
        "force_init = 0",
        "SUB[shell][pelmox_test_mbn:N] pelmox_test_mbn_pdc_init: function exit <-------------",
        "SUB[shell][pelmox_test_mbn:N] pelmox_test_mbn_do: pdc init failed, do nothing",
    };
    const std::vector<std::string> failure = {
        "SUB[shell][pelmox_test_mbn:N] pelmox_test_mbn_pdc_init: pdc init failed"};
    const struct {
        int flag;
        bool on;
    } cases[] = {{1, true}, {0x101, true}, {0, false}, {2, false}, {0x100, false}, {3, false}};
    for (const auto &c : cases) {
        SCOPED_TRACE("log flag " + std::to_string(c.flag));
        Logged r = run_group10(c.flag, 0, {"kvn", "10", "0", "2"});
        EXPECT_EQ(r.out, help_text::for_group(10)); // shell flag off: no terminal traces
        EXPECT_EQ(r.debug, c.on ? traces : std::vector<std::string>{});
        EXPECT_EQ(r.error, failure); // the failure is logged whatever the flag
    }
}

TEST(Group10Log, ArgumentErrorsLogNothing)
{
    for (const auto &args : std::vector<std::vector<std::string>>{{"kvn", "10"}, {"kvn", "10", "0", "9"}}) {
        Logged r = run_group10(1, 1, args);
        EXPECT_TRUE(r.debug.empty());
        EXPECT_TRUE(r.error.empty());
    }
    // Only another group calling in can get the first-parameter note.
    Logged r = run_group10(1, 0, {"kvn", "4", "0", "2"});
    EXPECT_EQ(r.out, "\nnote: the first parameters should be 10, Pls refer to the following cmd:\n" +
                         help_text::for_group(10));
    EXPECT_TRUE(r.error.empty());
}

TEST(Group10Log, PdcInitAlwaysFailsAndReportsItsArgument)
{
    fake_android::clear();
    g_pelmox_print_flag = 1;
    g_pelmox_shell_print_flag = 0;
    EXPECT_EQ(pelmox_test_mbn_pdc_init(200), -1);
    g_pelmox_print_flag = -1;
    g_pelmox_shell_print_flag = -1;
    ASSERT_EQ(fake_android::log_lines().size(), 4u);
    EXPECT_EQ(kvn_test::mask_trace_lines(fake_android::log_lines()[1].text),
              "SUB[shell][pelmox_test_mbn:N] pelmox_test_mbn_pdc_init: start pelmox pdc init, g_pdc_init_status = -1, "
              "force_init = 200");
}

} // namespace
