// bench_nvefs.cpp - what the NV/EFS layer costs over the bare transport,
// measured against one kvn-sim in the same run: an EFS write and read-back of
// the largest file beside as many bare extend round trips, and the whole
// command `kvn 4 1 0 550` beside a kvn run that only starts and exits. The
// layer runs twice: with both print flags pinned off, and in the environment
// a user has (only the shell flag set: the log flag is read from its property
// at every trace). The two sides alternate within each round and each figure
// is the median of the per-round ratios, so a slow phase of a shared machine
// moves both sides of a ratio alike.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <vector>

#include "pelmox_extend_nvefs.h"
#include "pelmox_extend_qmi.h"
#include "qmi_client.h"
#include "sim_handset.h"

namespace {

using Clock = std::chrono::steady_clock;

double time_ms(const std::function<void()> &fn)
{
    auto t0 = Clock::now();
    fn();
    return std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
}

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

// The transport prints its debug lines on stdout; keep them out of the report.
class StdoutMuted {
public:
    StdoutMuted()
    {
        fflush(stdout);
        saved_ = dup(1);
        int null_fd = open("/dev/null", O_WRONLY);
        dup2(null_fd, 1);
        close(null_fd);
    }
    ~StdoutMuted()
    {
        fflush(stdout);
        dup2(saved_, 1);
        close(saved_);
    }

private:
    int saved_;
};

} // namespace

int main()
{
    setenv("PELMOX_SHELL_PRINT_FLAG", "0", 1);
    setenv("PELMOX_PRINT_FLAG", "0", 1);
    kvn_test::SimHandset sim(R"({"nv": {"0": {"550": "08 3a 85 42 00 15 11 11 01"}},
                                 "extend_replies": {"9": {"result": 0, "data": "00"}}})");
    if (!sim.started()) {
        fprintf(stderr, "kvn-sim did not start\n");
        return 1;
    }
    setenv("KVN_SIM_SOCKET", sim.socket().c_str(), 1);

    const int rounds = 15;
    const uint32_t file_len = PELMOX_EFS_FILE_MAX;
    std::vector<uint8_t> file(file_len), back(file_len + 1);
    for (uint32_t i = 0; i < file_len; ++i)
        file[i] = uint8_t(i * 31 + 7);

    // A bare client of the same service: the extend message with a command
    // the sim answers at once, as many times as the write and read exchange.
    qmi_client_type bare = nullptr;
    qmi_client_os_params os{};
    auto *obj = pelmox_extend_get_service_object_internal_v01(1, 1, 6);
    if (qmi_client_init_instance(obj, QMI_CLIENT_INSTANCE_ANY, nullptr, nullptr, &os, 2000, &bare) != QMI_NO_ERR) {
        fprintf(stderr, "bare client did not open\n");
        return 1;
    }
    const int exchanges = 248 + 242; // write chunks of 414 + read chunks of 424
    static pelmox_extend_msg_v01 req, rsp;

    std::vector<double> nvefs_ms[2], bare_ms[2], cmd_ms, start_ms;
    {
        StdoutMuted muted;
        for (int r = 0; r < rounds; ++r) {
            for (int user = 0; user < 2; ++user) {
                if (user)
                    unsetenv("PELMOX_PRINT_FLAG");
                else
                    setenv("PELMOX_PRINT_FLAG", "0", 1);
                nvefs_ms[user].push_back(time_ms([&] {
                    int w = pelmox_efs_write(0, "/bench/file", 11, file.data(), file_len);
                    uint32_t len = file_len + 1;
                    int rd = pelmox_efs_read(0, "/bench/file", 11, back.data(), &len);
                    if (w != 0 || rd != 0 || len != file_len || memcmp(back.data(), file.data(), file_len) != 0)
                        abort();
                }));
                bare_ms[user].push_back(time_ms([&] {
                    for (int i = 0; i < exchanges; ++i) {
                        memset(&req, 0, sizeof(req));
                        req.cmd_id = 9;
                        req.data_len = 512;
                        req.data_valid = 1;
                        if (qmi_client_send_msg_sync(bare, 2, &req, sizeof(req), &rsp, sizeof(rsp), 3000) != QMI_NO_ERR)
                            abort();
                    }
                }));
            }
            setenv("PELMOX_PRINT_FLAG", "0", 1);
            cmd_ms.push_back(time_ms([&] { sim.kvn({"4", "1", "0", "550"}); }));
            start_ms.push_back(time_ms([&] { sim.kvn({"1"}); }));
        }
    }
    qmi_client_release(bare);

    auto ratios = [&](const std::vector<double> &a, const std::vector<double> &b) {
        std::vector<double> r;
        for (size_t i = 0; i < a.size(); ++i)
            r.push_back(a[i] / b[i]);
        return median(r);
    };
    for (int user = 0; user < 2; ++user) {
        const char *env = user ? "shell flag only" : "flags pinned";
        double n = median(nvefs_ms[user]), b = median(bare_ms[user]), r = ratios(nvefs_ms[user], bare_ms[user]);
        printf("%s: EFS write+read of %u bytes: %.1f ms (median of %d)\n", env, file_len, n, rounds);
        printf("%s: %d bare extend round trips: %.1f ms\n", env, exchanges, b);
        printf("%s: ratio nvefs/bare (median of the rounds): %.2f\n", env, r);
        printf("summary | EFS write+read of 100 KiB through the NV/EFS layer, against bare round trips, %s | %.2fx | "
               "at most 1.3x\n",
               env, r);
    }
    printf("kvn 4 1 0 550: %.1f ms; kvn 1: %.1f ms; ratio: %.2f\n", median(cmd_ms), median(start_ms),
           ratios(cmd_ms, start_ms));
    return 0;
}
