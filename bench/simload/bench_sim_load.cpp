// bench_sim_load.cpp - kvn-sim under load: 1, 4 and 16 clients, each on a
// connection of its own, send NV reads back to back (the request of
// `kvn 4 1 0 550`, written straight to the socket so the client library is not
// measured); requests per second and the 50th/99th percentile latency per
// client count, then the same with one more client writing EFS files (each
// write is a chunk the handset stores durably) beside 15 readers, and
// kvn-sim's resident memory after 100,000 requests. Each case also gives the
// daemon's own CPU time (user + system, from /proc) per request.
//
// Environment: KVN_BENCH_REQUESTS scales the request counts (default 1.0).
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "kvn_wire.h"
#include "sim_handset.h"

namespace {

using Clock = std::chrono::steady_clock;
using Bytes = std::vector<uint8_t>;
constexpr uint32_t kExtend = 0xFFE4;

// The extend message 0x0002 with command 2 and a 512-byte record.
Bytes extend_request(uint16_t txn, const uint8_t record[512])
{
    Bytes tlvs;
    auto tlv = [&](uint8_t type, const uint8_t *v, uint16_t n) {
        tlvs.push_back(type);
        tlvs.push_back(uint8_t(n));
        tlvs.push_back(uint8_t(n >> 8));
        tlvs.insert(tlvs.end(), v, v + n);
    };
    const uint8_t cmd[4] = {2, 0, 0, 0}, len[4] = {0, 2, 0, 0};
    tlv(0x01, cmd, 4);
    tlv(0x02, len, 4);
    tlv(0x10, record, 512);
    kvn_wire::Header h;
    h.kind = kvn_wire::Kind::Qmi;
    h.service = kExtend;
    return kvn_wire::encode_packet(h, kvn_wire::encode_qmi({0, txn, 2, 0}, tlvs.data(), tlvs.size()));
}

// One client connection bound to the extend service.
class Client {
public:
    explicit Client(const std::string &socket) : fd_(kvn_wire::connect_unix(socket))
    {
        kvn_wire::Header h;
        h.kind = kvn_wire::Kind::Connect;
        h.service = kExtend;
        h.instance = 0xFFFF;
        auto r = fd_ >= 0 && kvn_wire::write_packet(fd_, h, {}) ? kvn_wire::read_packet(fd_, 5000) : std::nullopt;
        ok_ = r && r->hdr.kind == kvn_wire::Kind::ConnectOk;
    }
    ~Client()
    {
        if (fd_ >= 0)
            close(fd_);
    }
    bool ok() const { return ok_; }
    // One request and its response; false on any failure.
    bool exchange(const Bytes &packet)
    {
        if (!kvn_wire::write_all(fd_, packet.data(), packet.size()))
            return false;
        auto r = kvn_wire::read_packet(fd_, 10000);
        return r && r->hdr.kind == kvn_wire::Kind::Qmi;
    }

private:
    int fd_;
    bool ok_ = false;
};

struct Result {
    double rps = 0, p50_us = 0, p99_us = 0, cpu_us = 0;
    long failed = 0;
};

double pct(std::vector<double> &v, double p)
{
    if (v.empty())
        return 0;
    std::sort(v.begin(), v.end());
    return v[std::min(v.size() - 1, size_t(p * double(v.size() - 1)))];
}

// `readers` clients share `total` NV reads; when `writer` is set, one more
// client writes a 414-byte EFS chunk in a loop meanwhile (not counted).
Result load(const std::string &socket, int readers, long total, bool writer)
{
    uint8_t nv[512] = {1, 0, 0x26, 0x02}; // NV read, subscription 0, item 550
    std::vector<std::vector<double>> lat(static_cast<size_t>(readers));
    std::atomic<long> failed{0};
    std::atomic<bool> stop{false};
    std::thread w;
    if (writer)
        w = std::thread([&] {
            Client c(socket);
            uint8_t efs[512] = {5, 0, 0xFF, 0, 6};
            std::memcpy(efs + 5, "/bench", 6);
            efs[76] = 0x9E; // a one-chunk file: total 414 bytes, chunk 414 bytes at 0
            efs[77] = 0x01;
            efs[80] = 0x9E;
            efs[81] = 0x01;
            for (uint16_t txn = 1; c.ok() && !stop; ++txn)
                if (!c.exchange(extend_request(txn ? txn : 1, efs)))
                    break;
        });
    const auto t0 = Clock::now();
    std::vector<std::thread> ts;
    for (int i = 0; i < readers; ++i)
        ts.emplace_back([&, i] {
            Client c(socket);
            const long n = total / readers;
            lat[size_t(i)].reserve(size_t(n));
            for (long k = 0; k < n; ++k) {
                Bytes pkt = extend_request(uint16_t(k % 60000 + 1), nv);
                auto a = Clock::now();
                if (!c.ok() || !c.exchange(pkt)) {
                    ++failed;
                    return;
                }
                lat[size_t(i)].push_back(std::chrono::duration<double, std::micro>(Clock::now() - a).count());
            }
        });
    for (auto &t : ts)
        t.join();
    const double secs = std::chrono::duration<double>(Clock::now() - t0).count();
    stop = true;
    if (w.joinable())
        w.join();
    std::vector<double> all;
    for (auto &v : lat)
        all.insert(all.end(), v.begin(), v.end());
    Result r;
    r.rps = double(all.size()) / secs;
    r.p50_us = pct(all, 0.5);
    r.p99_us = pct(all, 0.99);
    r.failed = failed;
    return r;
}

// CPU time the process has used so far (user + system), in microseconds.
double cpu_us_of(long pid)
{
    std::ifstream f("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    auto close_paren = text.rfind(')');
    if (close_paren == std::string::npos)
        return 0;
    // Fields after the command: state is field 3; utime and stime are 14 and 15.
    const char *p = text.c_str() + close_paren + 2;
    unsigned long long ut = 0, st = 0;
    if (sscanf(p, "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %llu %llu", &ut, &st) != 2)
        return 0;
    return double(ut + st) * 1e6 / double(sysconf(_SC_CLK_TCK));
}

long rss_kib(long pid)
{
    std::ifstream f("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(f, line))
        if (line.rfind("VmRSS:", 0) == 0)
            return atol(line.c_str() + 6);
    return -1;
}

// The pid of a running kvn-sim, from its status line "kvn-sim running: pid N, ...".
long pid_of(const kvn_test::SimHandset &sim)
{
    auto st = sim.ctl({"status"});
    const char *at = strstr(st.out.c_str(), "pid ");
    return at ? atol(at + 4) : -1;
}

} // namespace

// With KVN_BENCH_BASELINE_SIM (another kvn-sim binary, e.g. a build before a
// change), both handsets run side by side and every case runs on each in
// turn, so the ratios compare them under the same load of the machine.
int main()
{
    const char *s = getenv("KVN_BENCH_REQUESTS");
    const double scale = s ? std::max(0.01, atof(s)) : 1.0;
    const char *nv = R"({"nv": {"0": {"550": "08 3a 85 42 00 15 11 11 01"}}})";
    struct Side {
        std::string label;
        std::unique_ptr<kvn_test::SimHandset> sim;
        long pid = -1, rss0 = -1, done = 0;
    };
    std::vector<Side> sides;
    sides.push_back({"kvn-sim", std::make_unique<kvn_test::SimHandset>(nv)});
    if (const char *b = getenv("KVN_BENCH_BASELINE_SIM"); b && *b) {
        setenv("KVN_TEST_SIM_BIN", b, 1);
        sides.push_back({"baseline", std::make_unique<kvn_test::SimHandset>(nv)});
    }
    for (auto &side : sides) {
        if (!side.sim->started()) {
            fprintf(stderr, "%s did not start\n", side.label.c_str());
            return 1;
        }
        side.pid = pid_of(*side.sim);
        side.rss0 = rss_kib(side.pid);
    }
    const bool paired = sides.size() > 1;

    printf("kvn-sim under load: NV reads over one connection per client%s\n\n",
           paired ? "; the baseline kvn-sim measured in turn, case by case" : "");
    printf(paired ? "| clients | requests/s | p50 | p99 | daemon CPU/request | baseline requests/s | p50 | p99 | daemon CPU/request | requests/s ratio |\n"
                    "|---|---|---|---|---|---|---|---|---|---|\n"
                  : "| clients | requests/s | p50 | p99 | daemon CPU/request |\n|---|---|---|---|---|\n");
    struct Case {
        int readers;
        long n;
        bool writer;
        const char *label;
    } cases[] = {{1, 15000, false, "1"}, {4, 20000, false, "4"}, {16, 25000, false, "16"},
                 {15, 20000, true, "15 + 1 EFS writer"}};
    std::vector<std::vector<Result>> results(sides.size());
    for (const auto &c : cases) {
        const long n = long(double(c.n) * scale);
        printf("| %s", c.label);
        for (size_t i = 0; i < sides.size(); ++i) {
            const double cpu0 = cpu_us_of(sides[i].pid);
            Result r = load(sides[i].sim->socket(), c.readers, n, c.writer);
            r.cpu_us = (cpu_us_of(sides[i].pid) - cpu0) / double(n);
            sides[i].done += n;
            results[i].push_back(r);
            printf(" | %.0f | %.0f us | %.0f us | %.1f us", r.rps, r.p50_us, r.p99_us, r.cpu_us);
            if (r.failed) {
                printf(" | (failures on %s!) |\n", sides[i].label.c_str());
                return 1;
            }
        }
        if (paired)
            printf(" | %.2fx", results[0].back().rps / results[1].back().rps);
        printf(" |\n");
    }
    for (auto &side : sides) {
        const long rest = long(100000 * scale) - side.done;
        if (rest > 0)
            load(side.sim->socket(), 4, rest, false);
        printf("\n%s resident memory: %ld KiB at start, %ld KiB after %ld requests", side.label.c_str(), side.rss0,
               rss_kib(side.pid), std::max(side.done, long(100000 * scale)));
    }
    printf("\n\n");
    // One line per figure for scripts/bench's summary table.
    const auto &r = results[0];
    printf("summary | kvn-sim: NV reads/s, 16 clients against 1 | %.2fx | at least 1.5x\n", r[2].rps / r[0].rps);
    printf("summary | kvn-sim: daemon CPU per NV read, 1/4/16 clients | %.1f/%.1f/%.1f us | at most 12 us\n",
           r[0].cpu_us, r[1].cpu_us, r[2].cpu_us);
    if (paired)
        printf("summary | baseline kvn-sim: daemon CPU per NV read, 1/4/16 clients | %.1f/%.1f/%.1f us | (before)\n",
               results[1][0].cpu_us, results[1][1].cpu_us, results[1][2].cpu_us);
    printf("summary | kvn-sim: p99 of NV reads, 16 clients | %.0f us | under 1000 us\n", r[2].p99_us);
    printf("summary | kvn-sim: p50 of NV reads beside an EFS writer, against 16 readers alone | %.2fx | about 1x "
           "(writes do not hold up reads)\n",
           r[3].p50_us / r[2].p50_us);
    if (paired)
        for (size_t k = 0; k < r.size(); ++k)
            printf("summary | kvn-sim against the baseline: requests/s, %s clients | %.2fx | at least 2x\n",
                   cases[k].label, r[k].rps / results[1][k].rps);
    return 0;
}
