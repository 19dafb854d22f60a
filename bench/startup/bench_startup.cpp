// bench_startup.cpp - whole kvn commands against their floors, on one
// kvn-sim. `kvn 4 1 0 550` against bench_floor (one static process that makes
// the same exchange and prints the same lines) and against a static process
// that only starts and exits (bench_noop), twice: with both print flags
// pinned off, and in the environment a user has (only the shell flag set, so
// the log flag is read from its property at every trace). Then `kvn 5 10 4 1`,
// `kvn 9 0 0` and `kvn 7 1 0`, each against its own floor (bench_replay_floor:
// a static process making the QMI requests kvn made, taken from kvn-sim's
// journal, each run of one service on one connection, and printing the bytes
// kvn printed), `kvn 4 1 0 550` with nothing set in the environment (its
// traces print) against the same kind of floor, and `kvn 5 10 4 1` against
// qmicli reading the same card status through kvn-sim's QMUX terminal. In
// each case the programs run in rotating order, round after round, so slow
// phases of a shared machine hit every side alike; each figure is the median of the per-round ratios with
// its 10th and 90th percentiles, for wall time and for the child's CPU time
// (user + system).
//
// Every program measured runs from a copy made at the start, as a package
// installs it: a binary straight from the linker sits in the page cache in
// small pieces, and faulting its code in costs markedly more than the same
// code copied (kvn took about a fifth more CPU that way on the lab's VMs).
//
// Environment: KVN_BENCH_ROUNDS (default 150; the added cases run a third of
// it), KVN_BENCH_BASELINE (another kvn binary, measured in the same rounds,
// e.g. a build before a change).
#include <fcntl.h>
#include <sys/stat.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "kvn_wire.h"
#include "sim_handset.h"

extern char **environ;

namespace {

struct Cost {
    double wall_us = 0, cpu_us = 0, faults = 0; // faults: minor page faults of the run
};

struct Program {
    std::string label;
    std::vector<std::string> argv;
    std::vector<Cost> runs;
};

// Runs argv with stdout on out_fd (or /dev/null when -1); false when it could
// not start or did not exit 0.
bool run(const std::vector<std::string> &argv, Cost *cost, int out_fd = -1)
{
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
    if (out_fd >= 0)
        posix_spawn_file_actions_adddup2(&fa, out_fd, 1);
    else
        posix_spawn_file_actions_addopen(&fa, 1, "/dev/null", O_WRONLY, 0);
    std::vector<char *> args;
    for (const auto &a : argv)
        args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    const auto t0 = std::chrono::steady_clock::now();
    pid_t pid;
    int rc = posix_spawn(&pid, args[0], &fa, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&fa);
    if (rc != 0)
        return false;
    int status = 0;
    rusage ru{};
    if (wait4(pid, &status, 0, &ru) != pid)
        return false;
    const auto t1 = std::chrono::steady_clock::now();
    cost->wall_us = std::chrono::duration<double, std::micro>(t1 - t0).count();
    cost->cpu_us = double(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) * 1e6 + double(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec);
    cost->faults = double(ru.ru_minflt + ru.ru_majflt);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// What argv prints on stdout, with the handle number (which differs from
// run to run) left out.
std::string output_of(const std::vector<std::string> &argv)
{
    char path[] = "/tmp/kvn-bench-out-XXXXXX";
    int fd = mkstemp(path);
    if (fd < 0)
        return {};
    unlink(path);
    Cost c;
    std::string out = run(argv, &c, fd) ? "" : "(failed)";
    lseek(fd, 0, SEEK_SET);
    char buf[4096];
    ssize_t n;
    while ((n = read(fd, buf, sizeof buf)) > 0)
        out.append(buf, size_t(n));
    close(fd);
    const std::string key = "handle = ";
    if (auto at = out.find(key); at != std::string::npos)
        out.erase(at + key.size(), out.find(',', at) - at - key.size());
    return out;
}

double pct(std::vector<double> v, double p)
{
    std::sort(v.begin(), v.end());
    return v[std::min(v.size() - 1, size_t(p * double(v.size() - 1) + 0.5))];
}

// A copy of the program at `path` in `dir`, named `name`, executable; the
// path itself when it cannot be copied.
std::string installed(const std::string &path, const std::string &dir, const std::string &name)
{
    namespace fs = std::filesystem;
    const std::string to = dir + "/" + name;
    std::error_code ec;
    if (!fs::copy_file(path, to, fs::copy_options::overwrite_existing, ec))
        return path;
    fs::permissions(to, fs::perms::owner_all, ec);
    return to;
}

std::string bin_dir()
{
    char buf[4096];
    ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
    std::string p(buf, n > 0 ? size_t(n) : 0);
    return p.substr(0, p.rfind('/'));
}

// One table row: a / b over the rounds, wall and CPU; returns the two medians.
std::pair<double, double> row(const Program &a, const Program &b)
{
    std::vector<double> wall, cpu;
    for (size_t i = 0; i < a.runs.size(); ++i) {
        wall.push_back(a.runs[i].wall_us / b.runs[i].wall_us);
        cpu.push_back(a.runs[i].cpu_us / std::max(1.0, b.runs[i].cpu_us));
    }
    printf("| %s / %s | %.2fx (%.2f-%.2f) | %.2fx (%.2f-%.2f) |\n", a.label.c_str(), b.label.c_str(),
           pct(wall, 0.5), pct(wall, 0.1), pct(wall, 0.9), pct(cpu, 0.5), pct(cpu, 0.1), pct(cpu, 0.9));
    return {pct(wall, 0.5), pct(cpu, 0.5)};
}

// Writes the replay script of what kvn did in `argv` on `sim`: the QMI requests
// of the journal (a TLV the journal shortened is padded back to its length)
// and, last, what kvn printed.
bool record_script(const kvn_test::SimHandset &sim, const std::vector<std::string> &argv, const std::string &file)
{
    sim.clear_journal();
    std::string printed = output_of(argv);
    std::string script;
    auto put32 = [&](uint32_t v) {
        for (int i = 0; i < 4; ++i)
            script.push_back(char(v >> (8 * i)));
    };
    for (const auto &line : sim.journal()) {
        auto j = nlohmann::json::parse(line, nullptr, false);
        if (!j.is_object() || !j.contains("service") || !j.contains("msg_id"))
            continue;
        std::vector<uint8_t> tlvs;
        for (const auto &t : j["tlvs"]) {
            std::string hex = t["hex"];
            size_t len = t.value("len", hex.size() / 2);
            tlvs.push_back(uint8_t(t["type"].get<int>()));
            tlvs.push_back(uint8_t(len));
            tlvs.push_back(uint8_t(len >> 8));
            for (size_t k = 0; k < len; ++k)
                tlvs.push_back(k * 2 + 1 < hex.size() ? uint8_t(std::stoi(hex.substr(k * 2, 2), nullptr, 16)) : 0);
        }
        kvn_wire::Header h;
        h.kind = kvn_wire::Kind::Qmi;
        h.service = j["service"].get<uint32_t>();
        h.instance = 0xFFFF;
        kvn_wire::QmiHeader q{kvn_wire::kQmiRequest, j["txn"].get<uint16_t>(), j["msg_id"].get<uint16_t>(),
                              uint16_t(tlvs.size())};
        auto pkt = kvn_wire::encode_packet(h, kvn_wire::encode_qmi(q, tlvs.data(), tlvs.size()));
        put32(h.service);
        put32(uint32_t(pkt.size()));
        script.append(pkt.begin(), pkt.end());
    }
    put32(0);
    put32(uint32_t(printed.size()));
    script += printed;
    FILE *f = fopen(file.c_str(), "wb");
    bool ok = f && fwrite(script.data(), 1, script.size(), f) == script.size();
    if (f)
        fclose(f);
    return ok;
}

// One case: progs[0] is kvn, progs[1] what it is measured against; a
// baseline kvn, when given, runs in the same rounds.
struct Case {
    std::string title, summary, aim;
    std::vector<Program> progs;
    bool same_output = true;
    int env = 0; // one of the Env values below
    int rounds = 0;
};

// Both print flags pinned off; only the shell flag set (the log flag is read
// from its property at every trace); nothing set at all (the traces print).
enum Env { kPinned, kShellOnly, kNothingSet };

void set_env(int env)
{
    if (env == kNothingSet)
        unsetenv("PELMOX_SHELL_PRINT_FLAG");
    else
        setenv("PELMOX_SHELL_PRINT_FLAG", "0", 1);
    if (env == kPinned)
        setenv("PELMOX_PRINT_FLAG", "0", 1);
    else
        unsetenv("PELMOX_PRINT_FLAG");
}

// Runs a case; false when a program fails or prints what its floor does not.
bool run_case(Case &c)
{
    set_env(c.env);
    if (c.same_output) {
        const std::string expected = output_of(c.progs[1].argv);
        for (size_t i = 0; i < c.progs.size(); ++i) {
            if (c.progs[i].label == "no-op")
                continue;
            std::string out = output_of(c.progs[i].argv);
            if (out != expected || out.empty()) {
                fprintf(stderr, "%s: %s prints\n%s\nbut the floor prints\n%s\n", c.title.c_str(),
                        c.progs[i].label.c_str(), out.c_str(), expected.c_str());
                return false;
            }
        }
    }
    for (int round = 0; round < c.rounds; ++round)
        for (size_t k = 0; k < c.progs.size(); ++k) {
            Program &p = c.progs[(k + size_t(round)) % c.progs.size()];
            Cost cost;
            if (!run(p.argv, &cost)) {
                fprintf(stderr, "%s: %s failed\n", c.title.c_str(), p.label.c_str());
                return false;
            }
            p.runs.push_back(cost);
        }
    printf("%s, %d rounds in rotating order; median ratio (10th-90th percentile)\n\n", c.title.c_str(), c.rounds);
    printf("| A / B | wall | CPU |\n|---|---|---|\n");
    const auto [wall, cpu] = row(c.progs[0], c.progs[1]);
    std::pair<double, double> base{0, 0};
    for (size_t i = 2; i < c.progs.size(); ++i) {
        if (c.progs[i].label == "baseline kvn")
            base = row(c.progs[i], c.progs[1]);
        else
            row(c.progs[0], c.progs[i]);
    }
    printf("\nMedians: ");
    for (const auto &p : c.progs) {
        std::vector<double> w, cp, pf;
        for (const auto &x : p.runs) {
            w.push_back(x.wall_us);
            cp.push_back(x.cpu_us);
            pf.push_back(x.faults);
        }
        printf("%s %.0f us wall, %.0f us CPU, %.0f page faults; ", p.label.c_str(), pct(w, 0.5), pct(cp, 0.5),
               pct(pf, 0.5));
    }
    printf("\n\n");
    // One line per figure for scripts/bench's summary table.
    printf("summary | %s, wall / CPU | %.2fx / %.2fx | %s\n", c.summary.c_str(), wall, cpu, c.aim.c_str());
    if (base.first > 0)
        printf("summary | (baseline kvn) %s, wall / CPU | %.2fx / %.2fx | (before)\n", c.summary.c_str(), base.first,
               base.second);
    return true;
}

} // namespace

int main()
{
    const char *r = getenv("KVN_BENCH_ROUNDS");
    const int rounds = r ? std::max(1, atoi(r)) : 150;
    set_env(kPinned);
    kvn_test::SimHandset sim;
    if (!sim.started()) {
        fprintf(stderr, "kvn-sim did not start\n");
        return 1;
    }
    setenv("KVN_SIM_SOCKET", sim.socket().c_str(), 1);
    const char *baseline_env = getenv("KVN_BENCH_BASELINE");
    const std::string dir = sim.dir() + "/installed";
    mkdir(dir.c_str(), 0700);
    const std::string kvn = installed(kvn_test::kvn_bin(), dir, "kvn");
    for (const char *floor : {"bench_floor", "bench_noop", "bench_replay_floor"})
        installed(bin_dir() + "/" + floor, dir, floor);
    const std::string baseline =
        baseline_env && *baseline_env ? installed(baseline_env, dir, "baseline-kvn") : std::string();
    auto with_baseline = [&](std::vector<Program> progs, const std::vector<std::string> &args) {
        if (!baseline.empty()) {
            std::vector<std::string> argv{baseline};
            argv.insert(argv.end(), args.begin(), args.end());
            progs.push_back({"baseline kvn", argv, {}});
        }
        return progs;
    };
    auto kvn_argv = [&](const std::vector<std::string> &args) {
        std::vector<std::string> argv{kvn};
        argv.insert(argv.end(), args.begin(), args.end());
        return argv;
    };
    const std::vector<std::string> nv = {"4", "1", "0", "550"};
    std::vector<Case> cases;
    for (bool user : {false, true})
        cases.push_back({std::string("`kvn 4 1 0 550`") + (user ? ", shell flag only" : ", both flags pinned"),
                         std::string("`kvn 4 1 0 550` against its floor") + (user ? ", shell flag only" : ", flags pinned"),
                         user ? "at most 1.10x" : "at most 1.30x",
                         with_baseline({{"kvn", kvn_argv(nv), {}}, {"floor", {dir + "/bench_floor"}, {}},
                                        {"no-op", {dir + "/bench_noop"}, {}}},
                                       nv),
                         true, user ? kShellOnly : kPinned, rounds});
    for (const std::vector<std::string> &args :
         {std::vector<std::string>{"5", "10", "4", "1"}, {"9", "0", "0"}, {"7", "1", "0"}}) {
        std::string name = "`kvn";
        for (const auto &a : args)
            name += " " + a;
        name += "`";
        set_env(kShellOnly);
        std::string script = sim.dir() + "/replay-" + args[0] + ".bin";
        if (!record_script(sim, kvn_argv(args), script)) {
            fprintf(stderr, "%s: cannot record its exchanges\n", name.c_str());
            return 1;
        }
        cases.push_back({name + ", shell flag only", name + " against its floor, shell flag only", "at most 1.30x",
                         with_baseline({{"kvn", kvn_argv(args), {}}, {"floor", {dir + "/bench_replay_floor", script}, {}}},
                                       args),
                         true, kShellOnly, std::max(1, rounds / 3)});
    }
    // Nothing set: kvn prints its traces, and its floor prints the same bytes.
    set_env(kNothingSet);
    const std::string quiet_script = sim.dir() + "/replay-nothing-set.bin";
    if (!record_script(sim, kvn_argv(nv), quiet_script)) {
        fprintf(stderr, "`kvn 4 1 0 550`, nothing set: cannot record its exchanges\n");
        return 1;
    }
    cases.push_back({"`kvn 4 1 0 550`, nothing set in the environment",
                     "`kvn 4 1 0 550` against its floor, nothing set", "at most 1.10x",
                     with_baseline({{"kvn", kvn_argv(nv), {}}, {"floor", {dir + "/bench_replay_floor", quiet_script}, {}}},
                                   nv),
                     true, kNothingSet, std::max(1, rounds / 3)});
    // qmicli on the handset's QMUX terminal, when it has one.
    const std::string status = sim.ctl({"status"}).out;
    const auto at = status.find("\npty ");
    const std::string pty = at == std::string::npos ? "" : status.substr(at + 5, status.find('\n', at + 5) - at - 5);
    if (!pty.empty() && access("/usr/bin/qmicli", X_OK) == 0)
        cases.push_back({"`kvn 5 10 4 1` against `qmicli --device-open-qmi --uim-get-card-status` on kvn-sim's terminal",
                         "`kvn 5 10 4 1` against qmicli, same card status", "at most 0.30x",
                         {{"kvn", kvn_argv({"5", "10", "4", "1"}), {}},
                          {"qmicli", {"/usr/bin/qmicli", "-d", pty, "--device-open-qmi", "--uim-get-card-status"}, {}}},
                         false, kShellOnly, std::max(1, rounds / 5)});
    else
        printf("(no QMUX terminal or no qmicli: the qmicli case is not run)\n\n");
    for (auto &c : cases)
        if (!run_case(c))
            return 1;
    return 0;
}
