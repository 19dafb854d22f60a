// bench_startup.cpp - `kvn 4 1 0 550` against its floor (bench_floor: one
// static process that makes the same exchange with kvn-sim and prints the same
// lines) and against a static process that only starts and exits
// (bench_noop), on one kvn-sim. The programs run in rotating order, one round
// after another, so slow phases of a shared machine hit every side alike;
// each figure is the median of the per-round ratios with its 10th and 90th
// percentiles, for wall time and for the child's CPU time (user + system).
//
// Environment: KVN_BENCH_ROUNDS (default 150), KVN_BENCH_BASELINE (another
// kvn binary, measured in the same rounds, e.g. a build before a change).
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "sim_handset.h"

extern char **environ;

namespace {

struct Cost {
    double wall_us = 0, cpu_us = 0;
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

} // namespace

int main()
{
    const char *r = getenv("KVN_BENCH_ROUNDS");
    const int rounds = r ? std::max(1, atoi(r)) : 150;
    // The tool's quiet mode: no terminal traces, no log traces.
    setenv("PELMOX_SHELL_PRINT_FLAG", "0", 1);
    setenv("PELMOX_PRINT_FLAG", "0", 1);
    kvn_test::SimHandset sim;
    if (!sim.started()) {
        fprintf(stderr, "kvn-sim did not start\n");
        return 1;
    }
    setenv("KVN_SIM_SOCKET", sim.socket().c_str(), 1);

    const std::string dir = bin_dir();
    std::vector<Program> progs = {
        {"kvn", {kvn_test::kvn_bin(), "4", "1", "0", "550"}, {}},
        {"floor", {dir + "/bench_floor"}, {}},
        {"no-op", {dir + "/bench_noop"}, {}},
    };
    if (const char *b = getenv("KVN_BENCH_BASELINE"); b && *b)
        progs.push_back({"baseline kvn", {b, "4", "1", "0", "550"}, {}});

    const std::string expected = output_of(progs[1].argv);
    for (size_t i = 0; i < progs.size(); ++i) {
        if (i == 2)
            continue;
        std::string out = output_of(progs[i].argv);
        if (out != expected || out.empty()) {
            fprintf(stderr, "%s prints\n%s\nbut the floor prints\n%s\n", progs[i].label.c_str(), out.c_str(),
                    expected.c_str());
            return 1;
        }
    }

    for (int round = 0; round < rounds; ++round)
        for (size_t k = 0; k < progs.size(); ++k) {
            Program &p = progs[(k + size_t(round)) % progs.size()];
            Cost c;
            if (!run(p.argv, &c)) {
                fprintf(stderr, "%s failed\n", p.label.c_str());
                return 1;
            }
            p.runs.push_back(c);
        }

    printf("`kvn 4 1 0 550`, %d rounds in rotating order; median ratio (10th-90th percentile)\n\n", rounds);
    printf("| A / B | wall | CPU |\n|---|---|---|\n");
    const auto [wall, cpu] = row(progs[0], progs[1]);
    row(progs[0], progs[2]);
    row(progs[1], progs[2]);
    if (progs.size() > 3) {
        row(progs[0], progs[3]);
        row(progs[3], progs[1]);
    }
    printf("\nMedians: ");
    for (const auto &p : progs) {
        std::vector<double> w, c;
        for (const auto &x : p.runs) {
            w.push_back(x.wall_us);
            c.push_back(x.cpu_us);
        }
        printf("%s %.0f us wall, %.0f us CPU; ", p.label.c_str(), pct(w, 0.5), pct(c, 0.5));
    }
    printf("\n\n");
    // One line per figure for scripts/bench's summary table.
    printf("summary | `kvn 4 1 0 550` against its floor, wall | %.2fx | at most 1.30x\n", wall);
    printf("summary | `kvn 4 1 0 550` against its floor, CPU | %.2fx | at most 1.30x\n", cpu);
    return 0;
}
