// sim_resilience_test.cpp - kvn-sim as a process under misuse: the print
// flags through the property fallback, refused property writes logged,
// bytes that are not UTF-8, FIFOs named as files, socket paths that are not
// sockets, two daemons racing for one socket, descriptor exhaustion, and a
// flood of garbage, idle connections and clients that never read while
// kvn keeps answering and the daemon's memory stays bounded.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "kvn_wire.h"
#include "sim_handset.h"

using kvn_test::ProcessOptions;
using kvn_test::SimHandset;
using nlohmann::json;
namespace fs = std::filesystem;

namespace {

using Bytes = std::vector<uint8_t>;
const std::string kImeiLine = "data:  08 3A 85 42 00 15 11 11 01";

// kvn with both PELMOX_* variables unset, so the properties decide.
ProcessOptions no_flag_env()
{
    ProcessOptions o;
    o.env["PELMOX_SHELL_PRINT_FLAG"] = std::nullopt;
    o.env["PELMOX_PRINT_FLAG"] = std::nullopt;
    return o;
}

std::optional<kvn_wire::Packet> raw(const std::string &socket, kvn_wire::Kind kind, const std::string &payload)
{
    kvn_wire::Header h;
    h.kind = kind;
    return kvn_wire::exchange(socket, h, Bytes(payload.begin(), payload.end()), 5000);
}

json status(const std::string &socket)
{
    auto r = raw(socket, kvn_wire::Kind::Control, R"({"op":"status"})");
    return r ? json::parse(r->payload.begin(), r->payload.end(), nullptr, false) : json();
}

size_t count(const std::string &text, const std::string &what)
{
    size_t n = 0;
    for (size_t pos = text.find(what); pos != std::string::npos; pos = text.find(what, pos + 1))
        ++n;
    return n;
}

// Resident memory of a process in KiB, 0 when unknown.
size_t rss_kib(int pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(in, line);)
        if (line.rfind("VmRSS:", 0) == 0)
            return std::stoul(line.substr(6));
    return 0;
}

// True while the process exists and is not a zombie (waited up to 5 s to end).
bool still_running(int pid)
{
    for (int i = 0; i < 250; ++i) {
        std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
        std::string line;
        if (!std::getline(in, line) || line.find(") Z") != std::string::npos)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

} // namespace

/* ---- properties ---- */

TEST(SimResilience, PrintFlagPropertiesTakeEffectWhenTheEnvironmentIsUnset)
{
    SimHandset sim;
    ASSERT_TRUE(sim.started());
    struct Case {
        const char *shell, *log;
        bool traces_shown, traces_logged;
    };
    const Case cases[] = {{"0", "0", false, false}, {"1", "0", true, false}, {"0", "1", false, true}, {"0x100", "0x101", false, true}};
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string("shell ") + c.shell + ", log " + c.log);
        ASSERT_EQ(sim.ctl({"prop", "set", "persist.vendor.pelmox.shell_print_flag", c.shell}).exit_code, 0);
        ASSERT_EQ(sim.ctl({"prop", "set", "persist.vendor.pelmox.print_flag", c.log}).exit_code, 0);
        size_t logged_before = count(sim.ctl({"logcat"}).out, "SUB[");
        auto r = sim.kvn({"4", "1", "0", "550"}, no_flag_env());
        EXPECT_NE(r.out.find(kImeiLine), std::string::npos) << r.out;
        EXPECT_EQ(r.out.find("RIL[pelmox_nv_read") != std::string::npos, c.traces_shown) << r.out;
        EXPECT_EQ(count(sim.ctl({"logcat"}).out, "SUB[") > logged_before, c.traces_logged);
    }

    // Keys up to 64 bytes are taken; a longer one is refused, and the refusal logged.
    const std::string k64(64, 'k'), k65 = "persist." + std::string(57, 'k');
    EXPECT_EQ(sim.ctl({"prop", "set", k64, "v"}).exit_code, 0);
    EXPECT_EQ(sim.ctl({"prop", "set", k65, "v"}).exit_code, 1);
    auto p = raw(sim.socket(), kvn_wire::Kind::PropSet, k65 + '\0' + "v");
    ASSERT_TRUE(p);
    EXPECT_EQ(p->hdr.status, 1);
    EXPECT_EQ(count(sim.ctl({"logcat"}).out, "property refused: property key longer than 64 bytes"), 2u);
}

TEST(SimResilience, BytesThatAreNotUtf8AndFilesThatAreNotRegular)
{
    SimHandset sim;
    ASSERT_TRUE(sim.started());
    const std::string key = "persist.vendor.\xff\xfe", value = "\x80\x81 ok";
    auto set = raw(sim.socket(), kvn_wire::Kind::PropSet, key + '\0' + value);
    ASSERT_TRUE(set);
    EXPECT_EQ(set->hdr.status, 0);
    ASSERT_TRUE(sim.restart()) << "the daemon survived, and its properties file loads again";
    auto got = raw(sim.socket(), kvn_wire::Kind::PropGet, key);
    ASSERT_TRUE(got);
    EXPECT_EQ(std::string(got->payload.begin(), got->payload.end()), value);

    auto cli = sim.ctl({"prop", "set", "persist.x", "\xff"});
    EXPECT_EQ(cli.exit_code, 1) << "not an abort";
    EXPECT_NE(cli.err.find("not valid UTF-8"), std::string::npos) << cli.err;

    // A FIFO named as a scenario or an EFS source is refused at once; the
    // daemon never waits for a writer.
    const std::string fifo = sim.dir() + "/fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    for (std::vector<std::string> args : {std::vector<std::string>{"load", fifo}, {"efs", "put", "0", "/f", fifo}}) {
        auto r = sim.ctl(args);
        EXPECT_EQ(r.exit_code, 1) << args[0];
        EXPECT_NE(r.err.find("not a regular file"), std::string::npos) << r.err;
    }
    EXPECT_EQ(sim.kvn({"4", "1", "0", "550"}).out.find(kImeiLine) != std::string::npos, true);
}

/* ---- the socket ---- */

TEST(SimResilience, SocketPathIsClaimedOnceAndOnlyASocketIsReplaced)
{
    kvn_test::TempDir dir;
    const std::string sock = dir.path() + "/s.sock";
    auto start = [&](const std::string &state) {
        return kvn_test::run_process({kvn_test::kvn_sim_bin(), "start", "--state", dir.path() + "/" + state, "--socket", sock});
    };
    std::ofstream(sock) << "precious";
    auto r = start("a");
    EXPECT_EQ(r.exit_code, 1);
    EXPECT_NE(r.err.find("not a socket"), std::string::npos) << r.err;
    std::ifstream in(sock);
    std::string text;
    in >> text;
    EXPECT_EQ(text, "precious");
    fs::remove(sock);

    // Three daemons started at once on one socket, each on a new state
    // directory (so each takes a while to set up): exactly one serves.
    kvn_test::ProcessResult results[3];
    std::vector<std::thread> starters;
    for (int i = 0; i < 3; ++i)
        starters.emplace_back([&, i] { results[i] = start("new" + std::to_string(i)); });
    for (auto &t : starters)
        t.join();
    int served = 0;
    for (const auto &r : results)
        served += r.exit_code == 0;
    EXPECT_EQ(served, 1) << results[0].err << " / " << results[1].err << " / " << results[2].err;
    auto st = status(sock);
    ASSERT_TRUE(st.is_object());
    EXPECT_EQ(kvn_test::run_process({kvn_test::kvn_sim_bin(), "stop", "--socket", sock}).exit_code, 0);
    EXPECT_FALSE(still_running(st["pid"].get<int>())) << "no daemon left running";
    EXPECT_FALSE(fs::exists(sock + ".lock"));
}

/* ---- descriptors and floods ---- */

// Out of descriptors, accept() fails while the listener stays readable: the
// daemon backs off instead of spinning, and serves again once clients leave.
TEST(SimResilience, DescriptorExhaustionBacksOffAndRecovers)
{
    kvn_test::TempDir dir;
    const std::string sock = dir.path() + "/s.sock";
    auto r = kvn_test::run_process({"/bin/sh", "-c", "ulimit -n 40 && exec \"$0\" start --state \"$1\" --socket \"$2\"",
                                    kvn_test::kvn_sim_bin(), dir.path() + "/state", sock});
    ASSERT_EQ(r.exit_code, 0) << r.err;
    std::vector<int> fds;
    for (int i = 0; i < 60; ++i)
        fds.push_back(kvn_wire::connect_unix(sock));
    std::this_thread::sleep_for(std::chrono::seconds(1));
    for (int fd : fds)
        close(fd);
    json st;
    for (int i = 0; i < 50 && !st.is_object(); ++i, std::this_thread::sleep_for(std::chrono::milliseconds(100)))
        st = status(sock);
    ASSERT_TRUE(st.is_object()) << "serving again";
    uint64_t errors = st["accept_errors"].get<uint64_t>();
    EXPECT_GT(errors, 0u) << "descriptors did run out";
    // About ten tries a second while paused; a spinning loop makes thousands.
    EXPECT_LT(errors, 200u);
    EXPECT_EQ(kvn_test::run_process({kvn_test::kvn_sim_bin(), "stop", "--socket", sock}).exit_code, 0);
}

// A process floods kvn-sim with garbage, idle connections and clients that
// send requests but never read, while kvn keeps answering and the daemon's
// resident memory stays under the bound.
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
    const int pid = status(sim.socket())["pid"].get<int>();
    const size_t before = rss_kib(pid);

    pid_t flooder = fork();
    ASSERT_GE(flooder, 0);
    if (flooder == 0) {
        const std::string sock = sim.socket();
        std::vector<int> idle, deaf;
        kvn_wire::Header h;
        h.kind = kvn_wire::Kind::Control;
        std::string journal = R"({"op":"journal"})";
        Bytes ask = kvn_wire::encode_packet(h, Bytes(journal.begin(), journal.end()));
        Bytes many;
        for (int i = 0; i < 64; ++i)
            many.insert(many.end(), ask.begin(), ask.end());
        for (unsigned n = 0;; ++n) {
            int g = kvn_wire::connect_unix(sock); // garbage
            if (g >= 0) {
                uint8_t junk[256];
                for (size_t i = 0; i < sizeof junk; ++i)
                    junk[i] = static_cast<uint8_t>(n * 31 + i * 7);
                (void)!send(g, junk, sizeof junk, MSG_NOSIGNAL | MSG_DONTWAIT);
                close(g);
            }
            if (idle.size() < 200) // idle: connected, silent
                idle.push_back(kvn_wire::connect_unix(sock));
            if (deaf.size() < 16) { // never read their replies
                int d = kvn_wire::connect_unix(sock);
                fcntl(d, F_SETFL, O_NONBLOCK);
                deaf.push_back(d);
            }
            for (int d : deaf)
                (void)!send(d, many.data(), many.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
            if (n % 50 == 49) { // start over, so idle ones keep arriving
                for (int fd : idle)
                    close(fd);
                idle.clear();
            }
            usleep(1000);
        }
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    size_t peak = 0;
    for (int i = 0; i < 5; ++i) {
        auto r = sim.kvn({"4", "1", "0", "550"});
        EXPECT_NE(r.out.find(kImeiLine), std::string::npos) << "run " << i << ":\n" << r.out;
        peak = std::max(peak, rss_kib(pid));
    }
    kill(flooder, SIGKILL);
    waitpid(flooder, nullptr, 0);
    auto st = status(sim.socket());
    ASSERT_TRUE(st.is_object());
    std::printf("kvn-sim RSS: %zu KiB before, %zu KiB peak under flood (bound %zu KiB); refused %llu, evicted %llu, "
                "backlog drops %llu\n",
                before, peak, bound_kib, static_cast<unsigned long long>(st["refused"].get<uint64_t>()),
                static_cast<unsigned long long>(st["evicted"].get<uint64_t>()),
                static_cast<unsigned long long>(st["backlog_drops"].get<uint64_t>()));
    EXPECT_GT(peak, 0u);
    EXPECT_LT(peak, bound_kib);
    EXPECT_GT(st["refused"].get<uint64_t>(), 0u) << "the flooder hit its per-process limit";
}
