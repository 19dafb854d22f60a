// qmux_kvn_test.cpp - kvn over QMUX: the commands whose services QMUX
// reaches print over kvn-sim's terminal (directly, and through libqmi's
// qmi-proxy) what they print over its socket; kvn shares the terminal with
// qmicli through the proxy; many runs leave no client id behind; and the
// device going away mid-request ends the run on its failure path.
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <future>
#include <regex>

#include "qmux_client.h"

extern char **environ;

namespace {

using Args = std::vector<std::string>;
using kvn_test::SimHandset;

constexpr const char *kProxy = "/usr/libexec/qmi-proxy";

// kvn's environment for the terminal: the socket hidden, the device named.
kvn_test::ProcessOptions over(const std::string &pty, bool proxy)
{
    kvn_test::ProcessOptions o;
    o.env["KVN_SIM_SOCKET"] = "/nonexistent/kvn-sim.sock";
    o.env["KVN_QMI_DEVICE"] = pty;
    o.env["KVN_QMI_PROXY"] = proxy ? std::optional<std::string>("1") : std::nullopt;
    o.timeout = std::chrono::milliseconds(30000);
    return o;
}

// A qmi-proxy of our own for the tests that want one (when one already
// listens, ours exits at once and that one serves).
class Proxy {
public:
    Proxy()
    {
        char *argv[] = {const_cast<char *>(kProxy), const_cast<char *>("--no-exit"), nullptr};
        if (access(kProxy, X_OK) == 0 && posix_spawn(&pid_, kProxy, nullptr, nullptr, argv, environ) == 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(300)); // until it listens
    }
    ~Proxy()
    {
        if (pid_ > 0) {
            kill(pid_, SIGTERM);
            waitpid(pid_, nullptr, 0);
        }
    }
    bool there() const { return pid_ > 0; }

private:
    pid_t pid_ = -1;
};

// The output with handles masked, the client pointers of the UIM traces too.
std::string masked(const kvn_test::ProcessResult &r)
{
    static const std::regex pointer("qmi_client 0x[0-9a-f]+");
    return std::regex_replace(kvn_test::masked_out(r), pointer, "qmi_client P");
}

struct Case {
    const char *name;
    std::vector<Args> runs; // in order, on one handset
};

std::vector<Case> cases()
{
    std::vector<Case> v{{"sar_dsi", {{"5", "5"}}}, {"esim", {}}, {"stats", {}}};
    // The eSIM options that use only UIM (1 and 2 reach the EID file and NV
    // through the extend service), with traces on and off.
    for (const char *opt : {"4", "3", "5", "0", "6", "5"})
        for (const char *flag : {"1", "0"})
            v[1].runs.push_back({"5", "10", opt, flag});
    for (int opt : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 20, 21, 30})
        for (const char *sub : {"0", "1"})
            v[2].runs.push_back({"9", std::to_string(opt), sub});
    return v;
}

class OverQmux : public testing::TestWithParam<std::tuple<Case, bool>> {};

TEST_P(OverQmux, PrintsWhatTheSocketPrints)
{
    const auto &[c, proxy] = GetParam();
    if (proxy && access(kProxy, X_OK) != 0)
        GTEST_SKIP() << kProxy << " is missing (scripts/deps --all installs libqmi-proxy)";
    Proxy px;
    SimHandset by_socket, by_terminal;
    ASSERT_TRUE(by_socket.started() && by_terminal.started());
    const std::string pty = interop::pty_of(by_terminal);
    ASSERT_FALSE(pty.empty());
    for (const auto &args : c.runs) {
        std::string cmd;
        for (const auto &a : args)
            cmd += " " + a;
        SCOPED_TRACE("kvn" + cmd);
        auto want = by_socket.kvn(args), got = by_terminal.kvn(args, over(pty, proxy));
        EXPECT_EQ(masked(want), masked(got));
        EXPECT_EQ("", got.err);
    }
}

INSTANTIATE_TEST_SUITE_P(Commands, OverQmux, testing::Combine(testing::ValuesIn(cases()), testing::Bool()),
                         [](const auto &info) {
                             return std::string(std::get<0>(info.param).name) +
                                    (std::get<1>(info.param) ? "_proxy" : "_direct");
                         });

// kvn and qmicli on one terminal through the proxy at the same time: both
// succeed, each with client ids of its own (qmicli keeps its id, so kvn's
// requests could not have gone out on it).
TEST(QmuxProxy, KvnAndQmicliShareTheDevice)
{
    if (access(kProxy, X_OK) != 0 || !interop::have_qmicli())
        GTEST_SKIP() << kProxy << " or qmicli is missing (scripts/deps --all installs them)";
    Proxy px;
    SimHandset sim;
    const std::string pty = interop::pty_of(sim);
    auto held = interop::qmicli(pty, {"-p", "--sar-rf-get-state", "--client-no-release-cid"});
    ASSERT_EQ(held.exit_code, 0) << held.err;
    ASSERT_NE(held.out.find("CID: '1'"), std::string::npos) << held.out;
    const std::string want = kvn_test::masked_out(sim.kvn({"5", "5"}));
    std::vector<std::future<kvn_test::ProcessResult>> kvns, qmiclis;
    for (int i = 0; i < 4; ++i) {
        kvns.push_back(std::async(std::launch::async, [&] { return sim.kvn({"5", "5"}, over(pty, true)); }));
        qmiclis.push_back(std::async(std::launch::async,
                                     [&] { return interop::qmicli(pty, {"-p", "--sar-rf-get-state"}); }));
    }
    for (auto &k : kvns)
        EXPECT_EQ(want, kvn_test::masked_out(k.get()));
    for (auto &q : qmiclis) {
        auto r = q.get();
        EXPECT_EQ(r.exit_code, 0) << r.err;
    }
}

// Many runs over the terminal leave no client id allocated: afterwards the
// next one qmicli gets is the first again.
TEST(QmuxClientIds, ManyRunsLeaveNoneBehind)
{
    if (!interop::have_qmicli())
        GTEST_SKIP() << "qmicli is missing";
    SimHandset sim;
    const std::string pty = interop::pty_of(sim);
    const std::string want = kvn_test::masked_out(sim.kvn({"5", "5"}));
    for (int i = 0; i < 300; ++i)
        ASSERT_EQ(want, kvn_test::masked_out(sim.kvn({"5", "5"}, over(pty, false)))) << "run " << i;
    auto r = interop::qmicli(pty, {"--sar-rf-get-state", "--client-no-release-cid"});
    EXPECT_NE(r.out.find("CID: '1'"), std::string::npos) << r.out << r.err;
}

// The device goes away while a request waits (kvn-sim stopped), and the
// modem restarts mid-command: kvn ends on its failure path at once, without
// waiting out the request's time-out.
TEST(QmuxLoss, DeviceGoneAndModemRestartMidRequest)
{
    for (bool restart : {false, true}) {
        SCOPED_TRACE(restart ? "modem restart" : "device gone");
        SimHandset sim;
        const std::string pty = interop::pty_of(sim);
        sim.ctl({"fault", "sar", "2", "no-reply"});
        const auto start = std::chrono::steady_clock::now();
        auto run = std::async(std::launch::async, [&] { return sim.kvn({"5", "5"}, over(pty, false)); });
        if (run.wait_for(std::chrono::milliseconds(500)) == std::future_status::ready)
            GTEST_SKIP() << "kvn-sim's terminal does not hold a request back on a fault yet";
        restart ? sim.ctl({"ssr", "100"}) : (sim.stop(), kvn_test::ProcessResult{});
        auto r = run.get();
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
        EXPECT_NE(r.out.find("SAR DSI: -1\n"), std::string::npos) << r.out;
    }
}

} // namespace

namespace {

// Nothing to talk to: one line on standard error naming the socket or the
// device and why, however many services the command tries, and the output of
// a modem without services.
TEST(QmuxAbsent, OneLineNamingWhatIsMissing)
{
    const std::string sock = "/nonexistent/kvn-sim.sock", dev = "/nonexistent/cdc-wdm0";
    kvn_test::ProcessOptions no_sim;
    no_sim.env["KVN_SIM_SOCKET"] = sock;
    no_sim.env["KVN_QMI_DEVICE"] = std::nullopt;
    for (const Args &args : {Args{"5", "5"}, Args{"5", "10", "4", "0"}}) {
        Args argv = kvn_test::kvn_command();
        argv.insert(argv.end(), args.begin(), args.end());
        auto socket = kvn_test::run_process(argv, no_sim), device = kvn_test::run_process(argv, over(dev, false));
        EXPECT_EQ("no kvn-sim answers: nothing listens at " + sock + "\n", socket.err);
        EXPECT_EQ(dev + ": No such file or directory\n", device.err);
        EXPECT_EQ(socket.out, device.out);
    }
}

} // namespace
