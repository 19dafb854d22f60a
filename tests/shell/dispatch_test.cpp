// dispatch_test.cpp - the built kvn run as a process: group dispatch and the group-5 and group-10 notes in both
// shell-print-flag states, whole outputs compared byte for byte. These paths never reach the modem.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "help_text.h"
#include "process.h"
#include "sim_handset.h"

namespace {

using Args = std::vector<std::string>;

// kvn with the shell print flag pinned and the log flag off; the socket points nowhere, so no running handset's
// properties leak in.
kvn_test::ProcessResult kvn(const Args &args, const char *shell_flag)
{
    static kvn_test::TempDir dir;
    Args argv = kvn_test::kvn_command();
    argv.insert(argv.end(), args.begin(), args.end());
    kvn_test::ProcessOptions opt;
    opt.env = {{"PELMOX_SHELL_PRINT_FLAG", shell_flag},
               {"PELMOX_PRINT_FLAG", "0"},
               {"KVN_SIM_SOCKET", dir.path() + "/no-handset.sock"}};
    opt.timeout = std::chrono::milliseconds(20000);
    return kvn_test::run_process(argv, opt);
}

const std::string k_too_few = "\nnote: Too few parameters, Pls refer to the following cmd:\n";
// The terminal form of the group-10 traces, line numbers masked.
const std::string k_pdc_traces = "RIL[pelmox_test_mbn_pdc_init:N]: function entry ------------->\n"
                                 "RIL[pelmox_test_mbn_pdc_init:N]: start pelmox pdc init, g_pdc_init_status = -1, "
                                 "force_init = 0\n"
                                 "RIL[pelmox_test_mbn_pdc_init:N]: pdc init failed\n"
                                 "RIL[pelmox_test_mbn_pdc_init:N]: function exit <-------------\n"
                                 "RIL[pelmox_test_mbn_do:N]: pdc init failed, do nothing\n";

struct Case {
    Args args;
    std::string on;  // stdout with the shell print flag on
    std::string off; // stdout with it off ("0", and "0x100": only the low byte counts)
};

std::vector<Case> cases()
{
    using help_text::for_group;
    std::vector<Case> out;
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
        out.push_back({a, k_pdc_traces + for_group(10), for_group(10)});
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
            std::string cmd = "kvn";
            for (const auto &a : c.args)
                cmd += " " + a;
            SCOPED_TRACE(cmd + " (shell flag " + flag + ")");
            kvn_test::ProcessResult r = kvn(c.args, flag);
            EXPECT_FALSE(r.timed_out);
            EXPECT_EQ(r.exit_code, 0);
            EXPECT_EQ(kvn_test::mask_trace_lines(r.out), std::string(flag) == "1" ? c.on : c.off);
            EXPECT_EQ(r.err, "");
        }
    }
}

// Unmasked, the traces of one function come from increasing source lines.
TEST(KvnDispatch, Group10TraceLinesIncrease)
{
    const std::string out = kvn({"10", "0", "2"}, "1").out;
    ASSERT_EQ(kvn_test::mask_trace_lines(out), k_pdc_traces + help_text::for_group(10));
    const std::string prefix = "RIL[pelmox_test_mbn_pdc_init:";
    int last = 0;
    for (size_t pos = 0, i = 0; i < 4; ++i, pos = out.find('\n', pos) + 1) {
        const int line = std::stoi(out.substr(pos + prefix.size()));
        EXPECT_GT(line, last) << out;
        last = line;
    }
}

} // namespace
