// dispatch_test.cpp - the built kvn program run as a process: group dispatch,
// the group-5 and group-10 notes in both shell-print-flag states, and whole
// outputs compared byte for byte. No simulated handset is needed: these paths
// never reach the modem.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "help_text.h"
#include "process.h"
#include "sim_handset.h"

namespace {

const std::string k_too_few = "\nnote: Too few parameters, Pls refer to the following cmd:\n";

// Runs kvn with the arguments, the shell print flag pinned and the log flag
// off. The socket points nowhere, so no running handset's properties leak in.
kvn_test::ProcessResult kvn(const std::vector<std::string> &args, const char *shell_flag = "1")
{
    static kvn_test::TempDir dir;
    std::vector<std::string> argv = {kvn_test::kvn_bin()};
    argv.insert(argv.end(), args.begin(), args.end());
    kvn_test::ProcessOptions opt;
    opt.env["PELMOX_SHELL_PRINT_FLAG"] = shell_flag;
    opt.env["PELMOX_PRINT_FLAG"] = "0";
    opt.env["KVN_SIM_SOCKET"] = dir.path() + "/no-handset.sock";
    opt.timeout = std::chrono::milliseconds(20000);
    return kvn_test::run_process(argv, opt);
}

void expect_output(const std::vector<std::string> &args, const std::string &want, const char *shell_flag = "1")
{
    std::string cmd = "kvn";
    for (const auto &a : args)
        cmd += " " + a;
    SCOPED_TRACE(cmd + " (shell flag " + shell_flag + ")");
    kvn_test::ProcessResult r = kvn(args, shell_flag);
    EXPECT_FALSE(r.timed_out);
    EXPECT_EQ(r.exit_code, 0);
    EXPECT_EQ(kvn_test::mask_trace_lines(r.out), want);
    EXPECT_EQ(r.err, "");
}

TEST(KvnDispatch, MissingOrUnknownGroupPrintsTheFullHelp)
{
    const std::vector<std::vector<std::string>> cases = {{}, {"12"}, {"abc"}, {"0"}, {"-5"}, {"99", "1", "2"}};
    for (const auto &args : cases)
        expect_output(args, help_text::for_group(0));
}

TEST(KvnDispatch, GroupsOneAndTwoAreNotSupported)
{
    for (const auto &args : std::vector<std::vector<std::string>>{{"1"}, {"2"}, {"1", "4", "550"}, {"2x", "0"}}) {
        expect_output(args, "Not support\n");
        expect_output(args, "Not support\n", "0");
    }
}

TEST(KvnGroup5, TooFewParameters)
{
    expect_output({"5"}, k_too_few + help_text::for_group(5));
    expect_output({"5"}, help_text::for_group(5), "0");
    expect_output({"5"}, help_text::for_group(5), "0x100"); // only the low byte counts
}

TEST(KvnGroup5, InvalidSecondParameter)
{
    const std::string note = "\nnote: the second parameters is invalid, Pls refer to the following cmd:\n";
    for (const char *sub : {"7", "8", "9", "11", "12", "-1", "-7"}) {
        expect_output({"5", sub}, note + help_text::for_group(5));
        expect_output({"5", sub}, help_text::for_group(5), "0");
    }
}

TEST(KvnGroup10, ValidSubMaskReportsThePdcFailure)
{
    const std::string traces = "RIL[pelmox_test_mbn_pdc_init:N]: function entry ------------->\n"
                               "RIL[pelmox_test_mbn_pdc_init:N]: start pelmox pdc init, g_pdc_init_status = -1, "
                               "force_init = 0\n"
                               "RIL[pelmox_test_mbn_pdc_init:N]: pdc init failed\n"
                               "RIL[pelmox_test_mbn_pdc_init:N]: function exit <-------------\n"
                               "RIL[pelmox_test_mbn_do:N]: pdc init failed, do nothing\n";
    for (const char *mask : {"1", "2", "3"}) {
        expect_output({"10", "0", mask}, traces + help_text::for_group(10));
        expect_output({"10", "0", mask}, help_text::for_group(10), "0");
    }
    // Argument 2 is not read, and extra arguments do not matter.
    expect_output({"10", "junk", "2", "extra"}, traces + help_text::for_group(10));
}

TEST(KvnGroup10, NotesDoNotFollowTheShellFlag)
{
    for (const char *flag : {"1", "0"}) {
        expect_output({"10", "0", "4"}, "\nnote: sub_mask(4) is invalid:\n" + help_text::for_group(10), flag);
        expect_output({"10", "0", "0"}, "\nnote: sub_mask(0) is invalid:\n" + help_text::for_group(10), flag);
        expect_output({"10", "0", "-2"}, "\nnote: sub_mask(-2) is invalid:\n" + help_text::for_group(10), flag);
        expect_output({"10"}, k_too_few + help_text::for_group(10), flag);
        expect_output({"10", "0"}, k_too_few + help_text::for_group(10), flag);
    }
}

// The whole of one run, unmasked, exactly as a script reading the terminal
// sees it (line numbers included, taken from the traces themselves).
TEST(KvnEndToEnd, Group10WholeOutput)
{
    kvn_test::ProcessResult r = kvn({"10", "0", "2"});
    ASSERT_EQ(r.exit_code, 0);
    std::string help = help_text::for_group(10);
    ASSERT_GE(r.out.size(), help.size());
    EXPECT_EQ(r.out.substr(r.out.size() - help.size()), help);
    std::string traces = r.out.substr(0, r.out.size() - help.size());
    std::vector<std::string> lines;
    for (size_t pos = 0, nl; (nl = traces.find('\n', pos)) != std::string::npos; pos = nl + 1)
        lines.push_back(traces.substr(pos, nl - pos));
    ASSERT_EQ(lines.size(), 5u) << traces;
    // Traces of one function come from increasing source lines.
    int last = 0;
    for (size_t i = 0; i < 4; ++i) {
        ASSERT_EQ(lines[i].rfind("RIL[pelmox_test_mbn_pdc_init:", 0), 0u) << lines[i];
        int line = std::stoi(lines[i].substr(std::string("RIL[pelmox_test_mbn_pdc_init:").size()));
        EXPECT_GT(line, last);
        last = line;
    }
    EXPECT_EQ(lines[4].rfind("RIL[pelmox_test_mbn_do:", 0), 0u);
    EXPECT_EQ(r.err, "");
}

} // namespace
