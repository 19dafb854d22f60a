// sim_durability_test.cpp - crash safety of kvn-sim's NV/EFS store: a client
// keeps rewriting NV items and multi-chunk EFS files with recognisable
// whole-file patterns while the daemon is killed with SIGKILL at random
// moments; after each restart every item and file must be exactly one of the
// patterns, never a mix or a partial write.
#include <gtest/gtest.h>

#include <signal.h>

#include <atomic>
#include <random>
#include <thread>

#include "sim_client.h"

using namespace sim_test;

namespace {

constexpr int kFiles = 4;

// Pattern b: a file of 500 + 3b bytes, an NV item of 1 + b bytes, every byte b.
size_t efs_len(uint8_t b) { return 500 + 3u * b; }
size_t nv_len(uint8_t b) { return 1u + b; }

bool whole_pattern(const Bytes &data, size_t (*len_of)(uint8_t))
{
    if (data.empty() || data.size() != len_of(data[0]))
        return false;
    for (uint8_t x : data)
        if (x != data[0])
            return false;
    return true;
}

// Writes a file in chunks of 414 bytes as the tool does; false once the
// daemon stops answering.
bool write_file(RawClient &c, const std::string &path, const Bytes &data, uint16_t &txn)
{
    uint16_t inst = 255;
    for (size_t pos = 0; pos < data.size();) {
        size_t n = std::min<size_t>(414, data.size() - pos);
        NvEfsRequest rq{5, 0, inst, path, static_cast<uint32_t>(data.size()), static_cast<uint32_t>(n),
                        static_cast<uint32_t>(pos), Bytes(data.begin() + static_cast<std::ptrdiff_t>(pos),
                                                          data.begin() + static_cast<std::ptrdiff_t>(pos + n))};
        auto r = nvefs(c, rq, ++txn);
        if (!r || r->result < 0)
            return false;
        inst = static_cast<uint16_t>(r->result);
        pos += n;
    }
    return true;
}

TEST(SimDurability, SigkillDuringWritesLeavesWholeFiles)
{
    kvn_test::SimHandset sim;
    ASSERT_TRUE(sim.started());
    std::mt19937 rng(12345);
    uint8_t b = 1;
    for (int round = 0; round < 6; ++round) {
        if (round > 0) {
            ASSERT_TRUE(sim.start()) << "restart after SIGKILL";
        }
        int pid = daemon_pid(sim);
        ASSERT_GT(pid, 0);

        // Every item and file is one whole pattern (or absent before its first write).
        RawClient check(sim.socket());
        ASSERT_TRUE(check.bind(kExtend));
        for (int i = 0; i < kFiles; ++i) {
            auto nv = nvefs(check, {1, 0, static_cast<uint16_t>(6000 + i)});
            ASSERT_TRUE(nv);
            if (nv->result == 0) {
                EXPECT_TRUE(whole_pattern(nv->data, nv_len)) << "NV " << 6000 + i << " round " << round;
            }
            std::string path = "/dur/f" + std::to_string(i);
            auto got = sim.ctl({"efs", "get", "0", path});
            if (got.exit_code == 0) {
                EXPECT_TRUE(whole_pattern(Bytes(got.out.begin(), got.out.end()), efs_len))
                    << path << " round " << round << " size " << got.out.size();
            }
        }

        // Hammer writes until the daemon is killed under us.
        // The kill comes a random while after the first whole write, so a
        // loaded machine that is slow to write still kills mid-stream.
        std::atomic<bool> killed{false};
        std::atomic<int> writes{0};
        std::atomic<bool> stopped{false}; // the writer gave up before any write

        int delay_ms = std::uniform_int_distribution<int>(30, 250)(rng);
        std::thread killer([&] {
            while (writes.load() == 0 && !stopped.load())
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            std::this_thread::sleep_for(std::chrono::milliseconds(delay_ms));
            kill(pid, SIGKILL);
            killed = true;
        });
        RawClient c(sim.socket());
        ASSERT_TRUE(c.bind(kExtend));
        uint16_t txn = 0;
        for (bool alive = true; alive;) {
            for (int i = 0; i < kFiles && alive; ++i) {
                b = static_cast<uint8_t>(b % 250 + 1);
                alive = nvefs(c, {2, 0, static_cast<uint16_t>(6000 + i), "", static_cast<uint32_t>(nv_len(b)), 0, 0,
                                  Bytes(nv_len(b), b)},
                              ++txn)
                            .has_value() &&
                        write_file(c, "/dur/f" + std::to_string(i), Bytes(efs_len(b), b), txn);
                writes += alive ? 1 : 0;
            }
        }
        stopped = true;
        killer.join();
        EXPECT_TRUE(killed);
        EXPECT_GT(writes, 0);
    }
    ASSERT_TRUE(sim.start());
}

} // namespace
