// sim_resilience_test.cpp - kvn-sim as a process under misuse: properties, FIFOs, socket races, floods.
#include "sim_test.h"

using namespace sim_test;

namespace {

// A line of /proc/<pid>/<file> starting with key, "" when none.
std::string proc_line(int pid, const char *file, const std::string &key)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/" + file);
    for (std::string line; std::getline(in, line);)
        if (line.rfind(key, 0) == 0)
            return line;
    return "";
}

size_t rss_kib(int pid)
{
    std::string line = proc_line(pid, "status", "VmRSS:");
    return line.empty() ? 0 : std::stoul(line.substr(6));
}

TEST(SimResilience, SocketPathIsClaimedOnceAndOnlyASocketIsReplaced)
{
    kvn_test::TempDir dir;
    const std::string sock = dir.path() + "/s.sock";
    auto start = [&](const std::string &state) {
        return sim_bin({"start", "--state", dir.path() + "/" + state, "--socket", sock});
    };
    std::ofstream(sock) << "precious";
    auto r = start("a");
    EXPECT_EQ(r.exit_code, 1);
    EXPECT_NE(r.err.find("not a socket"), std::string::npos) << r.err;
    EXPECT_EQ(slurp(sock), "precious");
    fs::remove(sock);

    // Three daemons started at once on one socket, each on a new state directory: exactly one serves.
    ProcessResult results[3];
    std::vector<std::thread> starters;
    for (int i = 0; i < 3; ++i)
        starters.emplace_back([&, i] { results[i] = start("new" + std::to_string(i)); });
    for (auto &t : starters)
        t.join();
    EXPECT_EQ(std::count_if(results, results + 3, [](const ProcessResult &res) { return res.exit_code == 0; }), 1)
        << results[0].err << " / " << results[1].err << " / " << results[2].err;
    auto st = control(sock);
    ASSERT_TRUE(st.is_object());
    EXPECT_EQ(sim_bin({"stop", "--socket", sock}).exit_code, 0);
    const int pid = st["pid"].get<int>();
    EXPECT_TRUE(kvn_test::wait_until([&] { return proc_line(pid, "status", "State:").find("Z") != std::string::npos ||
                                                  !fs::exists("/proc/" + std::to_string(pid)); },
                                     std::chrono::seconds(5)))
        << "no daemon left running";
    EXPECT_FALSE(fs::exists(sock + ".lock"));
}

// Out of descriptors (accept() fails, the listener stays readable) the daemon backs off, not spins, and recovers.
TEST(SimResilience, DescriptorExhaustionBacksOffAndRecovers)
{
    kvn_test::TempDir dir;
    const std::string sock = dir.path() + "/s.sock";
    auto r = kvn_test::run_process({"/bin/sh", "-c", "ulimit -n 40 && exec \"$0\" start --state \"$1\" --socket \"$2\"",
                                    kvn_test::kvn_sim_bin(), dir.path() + "/state", sock});
    ASSERT_EQ(r.exit_code, 0) << r.err;
    std::vector<UniqueFd> fds(60);
    for (auto &fd : fds)
        fd.reset(kvn_wire::connect_unix(sock));
    std::this_thread::sleep_for(std::chrono::seconds(1));
    fds.clear();
    json st;
    ASSERT_TRUE(kvn_test::wait_until([&] { return (st = control(sock)).is_object(); }, std::chrono::seconds(5)))
        << "serving again";
    uint64_t errors = st["accept_errors"].get<uint64_t>();
    EXPECT_GT(errors, 0u) << "descriptors did run out";
    EXPECT_LT(errors, 200u) << "about ten tries a second while paused; a spinning loop makes thousands";
    EXPECT_EQ(sim_bin({"stop", "--socket", sock}).exit_code, 0);
}

// The flooder: garbage, up to 200 idle connections (renewed every 50 rounds) and 16 that send but never read.
[[noreturn]] void flood(const std::string &sock)
{
    std::vector<int> idle, deaf;
    const std::string journal = R"({"op":"journal"})";
    Bytes ask = packet(Kind::Control, 0, Bytes(journal.begin(), journal.end())), many, junk(256);
    for (int i = 0; i < 64; ++i)
        many.insert(many.end(), ask.begin(), ask.end());
    for (unsigned n = 0;; ++n) {
        if (int g = kvn_wire::connect_unix(sock); g >= 0) {
            for (size_t i = 0; i < junk.size(); ++i)
                junk[i] = static_cast<uint8_t>(n * 31 + i * 7);
            (void)!send(g, junk.data(), junk.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
            close(g);
        }
        if (idle.size() < 200)
            idle.push_back(kvn_wire::connect_unix(sock));
        if (deaf.size() < 16)
            deaf.push_back(kvn_wire::connect_unix(sock));
        for (int d : deaf)
            (void)!send(d, many.data(), many.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n % 50 == 49)
            for (int fd : std::exchange(idle, {}))
                close(fd);
        usleep(1000);
    }
}

// kvn keeps answering under a flood and the daemon's resident memory stays under the bound.
TEST(SimResilience, FloodOfGarbageIdleAndNonReadingClients)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    const size_t bound_kib = 768u << 10; // sanitizer runtimes keep freed memory in quarantine
#else
    const size_t bound_kib = 96u << 10;
#endif
    SimHandset sim;
    ASSERT_TRUE(sim.started());
    for (int i = 0; i < 3; ++i)
        sim.kvn({"4", "1", "0", "550"}); // a journal to ask for
    const int pid = daemon_pid(sim);
    pid_t flooder = fork();
    ASSERT_GE(flooder, 0);
    if (flooder == 0)
        flood(sim.socket());
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    size_t peak = 0;
    for (int i = 0; i < 5; ++i) {
        auto r = sim.kvn({"4", "1", "0", "550"});
        EXPECT_NE(r.out.find("data:  08 3A 85 42 00 15 11 11 01"), std::string::npos) << "run " << i << ":\n" << r.out;
        peak = std::max(peak, rss_kib(pid));
    }
    kill(flooder, SIGKILL);
    waitpid(flooder, nullptr, 0);
    auto st = control(sim.socket());
    ASSERT_TRUE(st.is_object());
    EXPECT_GT(peak, 0u);
    EXPECT_LT(peak, bound_kib) << "KiB resident under the flood; " << st;
    EXPECT_GT(st["refused"].get<uint64_t>(), 0u) << "the flooder hit its per-process limit";
}

} // namespace
