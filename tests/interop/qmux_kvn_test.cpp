// kvn over kvn-sim's QMUX terminal, directly and through libqmi's qmi-proxy, against kvn over the socket.
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstdlib>
#include <future>
#include <regex>

#include "qmux_client.h"

namespace {

using Args = std::vector<std::string>;
using kvn_test::SimHandset;
constexpr const char *kProxy = "/usr/libexec/qmi-proxy";

kvn_test::ProcessOptions over(const std::string &dev, bool proxy)
{
    kvn_test::ProcessOptions o;
    o.env = {{"KVN_SIM_SOCKET", "/nonexistent/kvn-sim.sock"}, {"KVN_QMI_DEVICE", dev}};
    o.env["KVN_QMI_PROXY"] = proxy ? std::optional<std::string>("1") : std::nullopt;
    return o;
}

// The output, handles and the UIM traces' client pointers masked.
std::string masked(const kvn_test::ProcessResult &r)
{
    return std::regex_replace(kvn_test::masked_out(r), std::regex("qmi_client 0x[0-9a-f]+"), "qmi_client P");
}

// One qmi-proxy shared by tests running at once (only one can listen): none stops it; it exits 5 s after its last user.
void start_proxy()
{
    for (int i = 0; i < 50; ++i) {
        sockaddr_un addr{AF_UNIX, "\0qmi-proxy"};
        int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const bool there = connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(sa_family_t) + 10) == 0;
        close(fd);
        char *argv[] = {const_cast<char *>(kProxy), const_cast<char *>("--empty-timeout=5"), nullptr};
        pid_t pid;
        if (there || (i % 10 == 0 && posix_spawn(&pid, kProxy, nullptr, nullptr, argv, nullptr) != 0))
            return;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
}

// Per handset, in order: the SAR query, the eSIM options using only UIM (not 1 and 2), every statistics option.
std::vector<std::pair<std::string, std::vector<Args>>> cases()
{
    std::vector<std::pair<std::string, std::vector<Args>>> v{{"sar", {{"5", "5"}}}, {"esim", {}}, {"stats", {}}};
    for (const char *opt : {"4", "3", "5", "0", "6", "5"})
        for (const char *flag : {"1", "0"})
            v[1].second.push_back({"5", "10", opt, flag});
    for (int opt : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 20, 21, 30})
        for (const char *sub : {"0", "1"})
            v[2].second.push_back({"9", std::to_string(opt), sub});
    return v;
}

class OverQmux : public testing::TestWithParam<std::tuple<std::pair<std::string, std::vector<Args>>, bool>> {};

TEST_P(OverQmux, PrintsWhatTheSocketPrints)
{
    const auto &[c, proxy] = GetParam();
    if (proxy && !interop::have_qmi_proxy())
        GTEST_SKIP() << kProxy << " is missing (scripts/deps --all installs libqmi-proxy)";
    if (proxy)
        start_proxy();
    SimHandset by_socket, by_terminal;
    const std::string pty = interop::pty_of(by_terminal);
    for (const auto &args : c.second) {
        SCOPED_TRACE(testing::PrintToString(args));
        auto got = by_terminal.kvn(args, over(pty, proxy));
        EXPECT_EQ(masked(by_socket.kvn(args)), masked(got));
        EXPECT_EQ("", got.err);
    }
}

INSTANTIATE_TEST_SUITE_P(Commands, OverQmux, testing::Combine(testing::ValuesIn(cases()), testing::Bool()),
                         [](const auto &i) {
                             return std::get<0>(i.param).first + (std::get<1>(i.param) ? "_proxy" : "");
                         });

// kvn and qmicli on one terminal through the proxy at once: all succeed while qmicli holds client id 1.
TEST(QmuxProxy, KvnAndQmicliShareTheDevice)
{
    if (!interop::have_qmi_proxy() || !interop::have_qmicli())
        GTEST_SKIP() << kProxy << " or qmicli is missing (scripts/deps --all installs them)";
    start_proxy();
    SimHandset sim;
    const std::string pty = interop::pty_of(sim);
    auto held = interop::qmicli(pty, {"-p", "--sar-rf-get-state", "--client-no-release-cid"});
    ASSERT_NE(held.out.find("CID: '1'"), std::string::npos) << held.out << held.err;
    const std::string want = masked(sim.kvn({"5", "5"}));
    std::vector<std::future<kvn_test::ProcessResult>> kvns, qmiclis;
    for (int i = 0; i < 4; ++i) {
        kvns.push_back(std::async(std::launch::async, [&] { return sim.kvn({"5", "5"}, over(pty, true)); }));
        qmiclis.push_back(
            std::async(std::launch::async, [&] { return interop::qmicli(pty, {"-p", "--sar-rf-get-state"}); }));
    }
    for (auto &k : kvns)
        EXPECT_EQ(want, masked(k.get()));
    for (auto &q : qmiclis)
        EXPECT_EQ(0, q.get().exit_code);
}

// 300 runs (fewer for a slow kvn) would exhaust 254 client ids if each leaked one; qmicli then gets the first.
TEST(QmuxClientIds, ManyRunsLeaveNoneBehind)
{
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    const bool slow = true;
#else
    const char *wrapper = getenv("KVN_TEST_KVN_WRAPPER");
    const bool slow = wrapper && *wrapper;
#endif
    SimHandset sim;
    const std::string pty = interop::pty_of(sim), want = masked(sim.kvn({"5", "5"}));
    for (int i = 0; i < (slow ? 40 : 300); ++i)
        ASSERT_EQ(want, masked(sim.kvn({"5", "5"}, over(pty, false)))) << "run " << i;
    if (interop::have_qmicli()) {
        auto r = interop::qmicli(pty, {"--sar-noop", "--client-no-release-cid"});
        EXPECT_NE(r.out.find("CID: '1'"), std::string::npos) << r.out << r.err;
    }
}

// The device going away and a modem restart under a waiting request end the run on its failure path at once.
TEST(QmuxLoss, FailurePaths)
{
    for (bool restart : {false, true}) {
        SimHandset sim;
        const std::string pty = interop::pty_of(sim);
        sim.ctl({"fault", "sar", "2", "no-reply"});
        auto run = std::async(std::launch::async, [&] { return sim.kvn({"5", "5"}, over(pty, false)); });
        ASSERT_NE(run.wait_for(std::chrono::milliseconds(500)), std::future_status::ready); // held by the fault
        restart ? sim.ctl({"ssr", "100"}) : (sim.stop(), kvn_test::ProcessResult{});
        EXPECT_EQ(std::future_status::ready, run.wait_for(std::chrono::seconds(2)));
        EXPECT_NE(run.get().out.find("SAR DSI: -1\n"), std::string::npos);
    }
}

// No socket and no device: one line on stderr naming it, and the output of a modem without services.
TEST(QmuxAbsent, OneLineNamingWhatIsMissing)
{
    const std::string dev = "/nonexistent/cdc-wdm0";
    for (const Args &args : {Args{"5", "5"}, Args{"5", "10", "4", "0"}}) {
        Args argv = kvn_test::kvn_command();
        argv.insert(argv.end(), args.begin(), args.end());
        auto socket = kvn_test::run_process(argv, over("", false));
        auto device = kvn_test::run_process(argv, over(dev, false));
        EXPECT_EQ("no kvn-sim answers: nothing listens at /nonexistent/kvn-sim.sock\n", socket.err);
        EXPECT_EQ(dev + ": No such file or directory\n", device.err);
        EXPECT_EQ(socket.out, device.out);
    }
}

} // namespace
