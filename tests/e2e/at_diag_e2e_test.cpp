// at_diag_e2e_test.cpp - group 8 (AT command) and the diag send of group 5 against kvn-sim and its journal.
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <filesystem>

#include "device_tests_e2e.h"

using namespace devtests;

namespace {

// The receiver thread's two lines in order, anywhere after the line announcing it; the other lines exactly `main`.
void expect_at_run(const std::string &out, const std::vector<std::string> &main)
{
    std::vector<std::string> rest;
    size_t announced = SIZE_MAX, started = SIZE_MAX, closed = SIZE_MAX, i = 0;
    std::istringstream in(out);
    for (std::string l; std::getline(in, l); ++i) {
        if (l == "Will create a thread to receive data from serial")
            announced = i;
        if (l == "The thread to receive data from serial is started" && started == SIZE_MAX)
            started = i;
        else if (l == "The at channel is not opened, g_at_serial_fd 0" && closed == SIZE_MAX)
            closed = i;
        else
            rest.push_back(l);
    }
    EXPECT_EQ(rest, main) << out;
    EXPECT_LT(announced, started) << out;
    EXPECT_LT(started, closed) << out;
    EXPECT_NE(closed, SIZE_MAX) << out;
}

std::string at_path(const SimHandset &sim)
{
    std::string s = status_of(sim);
    const std::string key = "device at: up ";
    size_t p = s.find(key);
    return p == std::string::npos ? "(down)" : s.substr(p + key.size(), s.find('\n', p) - p - key.size());
}

std::vector<std::string> at_journal(const SimHandset &sim)
{
    std::vector<std::string> out;
    for (const auto &j : journal_of(sim, "at"))
        out.push_back(j["at"]);
    return out;
}

// Only the text before the first blank is sent, up to 100 bytes; quotes, $, backticks and backslashes reach the
// modem as typed and the shell runs none of it. Argument notes follow the shell flag; nothing of those is sent.
TEST(AtCmdE2e, CommandsReachTheTerminalAsTyped)
{
    SimHandset sim;
    const std::string path = at_path(sim);
    ASSERT_EQ(path.rfind("/dev/pts/", 0), 0u) << path;
    expect_at_run(sim.kvn({"8", "AT+CGMI"}).out,
                  {"At cmd you input: sscanf(1), len (7), AT+CGMI", "Will create a thread to receive data from serial",
                   "at shell cmd: echo \"AT+CGMI\r\" > " + path, "echo, ret_sys: 0", "Success to send at shell cmd"});
    EXPECT_THAT(sim.kvn({"8", "at+cops? extra"}).out, HasSubstr("At cmd you input: sscanf(1), len (8), at+cops?\n"));
    const std::string count_note = "\nnote: The number of inputs should be 2, Pls refer to the following cmd:\n";
    const std::string len_note =
        "\nnote: the second parameters length should <= 100, Pls refer to the following cmd:\n";
    const std::string c101 = "AT" + std::string(99, 'Z'), c100 = c101.substr(1);
    expect_flag_cases(sim, {{{"8"}, "", count_note, 8}, {{"8", "AT", "x"}, "", count_note, 8},
                            {{"8", c101}, "", len_note, 8}});
    EXPECT_THAT(sim.kvn({"8", c100}).out, HasSubstr("len (100), " + c100 + "\n"));

    const std::string marker = sim.dir() + "/ran";
    const std::vector<std::string> inputs = {"AT\"$(touch${IFS}" + marker + ")\"", "AT`touch${IFS}" + marker + "`",
                                             "AT$(touch${IFS}" + marker + ")", "AT'$(touch${IFS}" + marker + ")'",
                                             "AT;touch>" + marker, "AT\\c", "AT\\0101", "AT\\\\\"'", "AT'x'",
                                             std::string(100, '\'')};
    std::vector<std::string> expected = {hex_of("AT+CGMI"), hex_of("at+cops?"), hex_of(c100)};
    for (const auto &in : inputs) {
        SCOPED_TRACE(in);
        auto r = sim.kvn({"8", in});
        EXPECT_THAT(r.out, HasSubstr("Success to send at shell cmd\n")) << r.err;
        expected.push_back(hex_of(in));
    }
    EXPECT_EQ(at_journal(sim), expected);
    EXPECT_FALSE(std::filesystem::exists(marker));
    // What the printed line shows is what ran.
    EXPECT_THAT(sim.kvn({"8", "AT'$x\\c"}).out, HasSubstr("at shell cmd: printf '%s\\r\\n' 'AT'\\''$x\\c' > " + path + "\n"));
}

// The terminal answers each CR-ended line (empty ones not journalled); with the channel down or no handset, the
// write fails and nothing is created on the host.
TEST(AtCmdE2e, TerminalAnswersAndChannelDown)
{
    SimHandset sim;
    int fd = open(at_path(sim).c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    const std::string sent = "AT\r\n\r\nfoo\rat+x\n\r";
    ASSERT_EQ(write(fd, sent.data(), sent.size()), static_cast<ssize_t>(sent.size()));
    const std::string expect = "\r\nOK\r\n\r\nERROR\r\n\r\nOK\r\n";
    std::string got;
    char buf[64];
    ssize_t n = 1;
    for (pollfd p{fd, POLLIN, 0}; n > 0 && got.size() < expect.size() && poll(&p, 1, 10000) > 0;)
        if ((n = read(fd, buf, sizeof buf)) > 0)
            got.append(buf, static_cast<size_t>(n));
    close(fd);
    EXPECT_EQ(got, expect);
    EXPECT_EQ(at_journal(sim), (std::vector<std::string>{hex_of("AT"), hex_of("foo"), hex_of("at+x")}));

    sim.clear_journal();
    ASSERT_EQ(sim.ctl({"service", "at", "down"}).exit_code, 0);
    EXPECT_THAT(status_of(sim), HasSubstr("device at: down\n"));
    for (const std::string &out : {sim.kvn({"8", "AT"}).out, kvn_alone({"8", "AT"}).out})
        EXPECT_THAT(out, AllOf(HasSubstr("\nat shell cmd: echo \"AT\r\" > /dev/null/smd8\n"),
                               HasSubstr("\nFail to send at shell cmd\n")));
    EXPECT_FALSE(std::filesystem::exists("/dev/smd8"));
    ASSERT_EQ(sim.ctl({"service", "at", "up"}).exit_code, 0);
    EXPECT_THAT(sim.kvn({"8", "AT"}).out, HasSubstr("Success to send at shell cmd"));
    EXPECT_EQ(at_journal(sim), std::vector<std::string>{hex_of("AT")});
}

// The three ways out: too few inputs and a failed send return at once, only a send that went through traces its
// exit; mode 2 is DCI, type 2 no result. Built-in answers echo a known code, an unknown one behind 0x13; the
// scenario's replies win on the whole request. Never answered: the library's code; late within the time-out: fine.
// 5000 byte arguments: 4096 converted, 5000 declared, zeros past 4096.
TEST(DiagSendE2e, ThreePathsModesRepliesAndFaults)
{
    SimHandset sim(R"({"diag_replies": {"4B:13:0a:00": "de ad", "01 02": {"text": "ok"}}})");
    const std::string entry = "RIL[pelmox_cmn_diag_cmd_send:N]: function entry ------------->\n";
    const std::string exit = "RIL[pelmox_cmn_diag_cmd_send:N]: function exit <-------------\n";
    const std::string sent = "diag cmd:\n0x4B 0x12 0x00 0x00 \n";
    const std::string rsp = "\nrsp data len(8)\nrsp data: 0x4B 0x12 0x00 0x00 0x00 0x00 0x00 0x00\n";
    const std::string fail = "pelmox_diag_cmd_send fail\n\nnote: Error happen! error_code(2)\n" + for_group(5);
    const struct {
        const char *mode, *type;
        bool down;
        std::string out; // after the entry trace
        const char *journal_mode;
    } cases[] = {
        {"0", "0", false, sent + "callback mode with result\n" + rsp + exit, "callback"},
        {"0", "1", false, sent + "callback mode without result\n\ndone without rsp data" + exit, "callback"},
        {"1", "0", false, sent + "dci mode with result\n" + rsp + exit, "dci"},
        {"2", "2", false, sent + "dci mode without result\n\ndone without rsp data" + exit, "dci"},
        {"0", "0", true, sent + "callback mode with result\n" + fail, "callback"},
        {"1", "1", true, sent + "dci mode without result\n" + fail, "dci"},
        {nullptr, nullptr, false, "\nnote: Too few inputs, Pls refer to the following cmd:\n", nullptr},
    };
    std::vector<std::string> modes, journalled; // a down responder journals the request too
    for (const auto &c : cases) {
        SCOPED_TRACE(c.out);
        ASSERT_EQ(sim.ctl({"service", "diag", c.down ? "down" : "up"}).exit_code, 0);
        auto args = c.mode ? std::vector<std::string>{"5", "0", c.mode, c.type, "1000", "0x4B", "0x12", "0", "0"}
                           : std::vector<std::string>{"5", "0", "0", "0", "100"}; // no command byte
        EXPECT_EQ(kvn_test::mask_trace_lines(sim.kvn(args).out), entry + c.out);
        if (c.journal_mode)
            modes.push_back(std::string("4b120000 ") + c.journal_mode);
    }
    for (const auto &e : journal_of(sim, "diag"))
        journalled.push_back(e["diag"].get<std::string>() + " " + e["mode"].get<std::string>());
    EXPECT_EQ(journalled, modes);
    // Everything but the traces follows the shell flag.
    EXPECT_EQ(sim.kvn({"5", "0", "0", "0", "1000", "0"}, shell_flag("0")).out, "");

    const struct {
        std::vector<std::string> bytes;
        std::string rsp;
    } replies[] = {
        {{"0x01", "0x02", "3"}, " 0x13 0x01 0x02 0x03"},
        {{"0x01", "0x02"}, " 0x6F 0x6B"},
        {{"0x4b", "0x13", "10", "0"}, " 0xDE 0xAD"},
        {{"0x4b", "0x13", "11", "0"}, " 0x4B 0x13 0x0B 0x00 0x00 0x00 0x00 0x00"},
        {{"0x4b", "0x99", "1", "0"}, " 0x13 0x4B 0x99 0x01 0x00"},
        {{"0x4b"}, " 0x13 0x4B"},
        {{"300"}, " 0x13 0x2C"},
    };
    for (const auto &c : replies) {
        std::vector<std::string> args{"5", "0", "0", "0", "1000"};
        args.insert(args.end(), c.bytes.begin(), c.bytes.end());
        const std::string len = std::to_string(c.rsp.size() / 5);
        EXPECT_THAT(sim.kvn(args).out, HasSubstr("\nrsp data len(" + len + ")\nrsp data:" + c.rsp + "\n"));
    }
    EXPECT_THAT(sim.kvn({"5", "0", "1", "0", "1000", "0"}).out, HasSubstr("rsp data: 0x00"));
    EXPECT_THAT(sim.kvn({"5", "0", "1", "0", "1000", "0x7C"}).out, HasSubstr("rsp data: 0x7C"));

    ASSERT_EQ(sim.ctl({"fault", "diag", "1", "no-reply", "--count", "1"}).exit_code, 0);
    sim.clear_journal();
    EXPECT_THAT(sim.kvn({"5", "0", "0", "0", "300", "2", "1"}).out, HasSubstr("rsp data: 0x13 0x02 0x01\n"));
    EXPECT_EQ(tool_lines(sim.kvn({"5", "0", "0", "0", "300", "1", "2"}).out),
              "diag cmd:\n0x01 0x02 \ncallback mode with result\npelmox_diag_cmd_send fail\n" + error_note(3) +
                  for_group(5));
    ASSERT_EQ(sim.ctl({"fault", "diag", "1", "delay=200"}).exit_code, 0);
    EXPECT_THAT(sim.kvn({"5", "0", "1", "0", "5000", "1"}).out, HasSubstr("rsp data: 0x13 0x01\n"));
    EXPECT_EQ(sim.ctl({"fault", "diag", "1", "drop"}).exit_code, 1); // diag faults: no-reply, delay
    EXPECT_EQ(journal_of(sim, "diag").size(), 3u);

    sim.clear_journal();
    auto r = sim.kvn(args_of({"5", "0", "0", "0", "2000"}, 5000, "0x11"));
    EXPECT_THAT(r.out, HasSubstr("\nrsp data len(5001)\nrsp data: 0x13 0x11"));
    auto j = journal_of(sim, "diag");
    ASSERT_EQ(j.size(), 1u);
    EXPECT_EQ(j[0]["diag"], std::string(2 * 4096, '1') + std::string(2 * 904, '0'));
    size_t printed = 0, end = r.out.find("callback mode");
    for (size_t p = r.out.find("0x11 "); p < end; p = r.out.find("0x11 ", p + 1))
        ++printed;
    EXPECT_EQ(printed, 4096u);
}

} // namespace
