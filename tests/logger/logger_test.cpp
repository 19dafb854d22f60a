// logger_test.cpp - the RIL logger (labels, cut, per-thread buffers), the zero-filling allocator and its failure
// report, and the order in which the tool's process-wide objects are built before main.
#include <gtest/gtest.h>

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "../shell/stdout_of.h"
#include "pelmox_test_mbn.h"
#include "qcril_logger.h"
#include "qcril_memory_management.h"

// The sanitizers' allocators answer an impossible block with null, as the C library does, instead of stopping.
extern "C" const char *__asan_default_options() { return "allocator_may_return_null=1"; }
extern "C" const char *__tsan_default_options() { return "allocator_may_return_null=1"; }

// Start-up objects and the probes between them (by priority) note when each is built; plain storage, usable
// before any constructor has run, so an order left to the linker is caught.
static const char *g_order[16];
static int g_order_count;

extern "C" void kvn_static_init_note(const char *unit)
{
    if (g_order_count < 16)
        g_order[g_order_count++] = unit;
}

namespace {

struct Probe {
    explicit Probe(const char *name) { kvn_static_init_note(name); }
};

Probe probe_first __attribute__((init_priority(1001)))("probe:first");
Probe probe_after_mbn __attribute__((init_priority(1015)))("probe:after-mbn");
Probe probe_after_memory __attribute__((init_priority(1025)))("probe:after-memory");
Probe probe_after_logger __attribute__((init_priority(1040)))("probe:after-logger");
Probe probe_default("probe:default");

using qti::ril::logger::Logger;
using qti::ril::logger::LogLevel;

using kvn_test::stdout_of;

// MBN record, allocator lock, logger state; no test sets anything up, so every logger line below also shows the
// logger has its back end when main starts.
TEST(StartupOrder, MbnRecordThenAllocatorLockThenLogger)
{
    const std::vector<std::string> want = {"probe:first", "mbn_info", "probe:after-mbn", "memory",
                                           "probe:after-memory", "logger", "probe:after-logger", "probe:default"};
    EXPECT_EQ(std::vector<std::string>(g_order, g_order + g_order_count), want);
    stdout_of([] { EXPECT_EQ(pelmox_test_mbn_pdc_init(0), -1); }); // links the MBN unit in
}

// Each level's label padded to ten; printf's count returned; a message cut to its first 1023 characters.
TEST(Logger, LabelsCountsAndCut)
{
    const char *labels[] = {"ESSENTIAL ", "VERBOSE   ", "DEBUG     ", "INFO      ",
                            "WARN      ", "HIGH      ", "FATAL     ", "MAX       "};
    for (unsigned level = 0; level < 8; ++level) {
        int ret = 0;
        const std::string out = stdout_of([&] { ret = Logger::log(static_cast<LogLevel>(level), "tag", "n=%d", 42); });
        EXPECT_EQ(out, std::string("[") + labels[level] + ":tag]: n=42\n");
        EXPECT_EQ(ret, static_cast<int>(out.size()));
    }
    const std::string kept = std::string(1022, 'a') + 'b';
    for (const std::string &m : {kept, kept + std::string(977, 'c')})
        EXPECT_EQ(stdout_of([&] { Logger::log(LogLevel::Info, "t", "%s", m.c_str()); }),
                  "[INFO      :t]: " + kept + "\n");
}

// Every line is one thread's message, whole and unmixed.
TEST(Logger, EachThreadFormatsIntoItsOwnBuffer)
{
    std::multiset<std::string> want, got;
    const auto message = [](int t, int i) {
        return std::to_string(t) + ":" + std::string(300, char('A' + t)) + ":" + std::to_string(i);
    };
    std::istringstream out(stdout_of([&] {
        std::vector<std::jthread> threads; // joined when it goes, before the capture ends
        for (int t = 0; t < 4; ++t)
            threads.emplace_back([&, t] {
                for (int i = 0; i < 200; ++i)
                    Logger::log(LogLevel::Debug, "thr", "%s", message(t, i).c_str());
            });
    }));
    for (int t = 0; t < 4; ++t)
        for (int i = 0; i < 200; ++i)
            want.insert("[DEBUG     :thr]: " + message(t, i));
    for (std::string line; std::getline(out, line);)
        got.insert(line);
    EXPECT_EQ(got, want);
}

// Blocks come zero-filled; a failure is reported with the thread's name, process id and kernel thread id, which
// pins the logger's thread helpers against the kernel's own answers.
TEST(Allocator, ZeroFilledBlocksAndTheFailureReport)
{
    for (size_t size : {1u, 7u, 64u, 1000u, 70000u}) {
        void *dirty = std::malloc(size); // garbage in a freed block of this size, likely handed out again
        std::memset(dirty, 0xA5, size);
        std::free(dirty);
        auto *block = static_cast<unsigned char *>(qcril_malloc_adv(size, __func__, __LINE__));
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(std::vector<unsigned char>(block, block + size), std::vector<unsigned char>(size)) << size;
        qcril_free_adv(block, __func__, __LINE__);
    }
    qcril_free_adv(nullptr, __func__, __LINE__); // ignored; a real free of junk would trip the sanitizers
    void *block = &block;
    pid_t tid = 0;
    const std::string out = stdout_of([&] {
        std::jthread th([&] {
            pthread_setname_np(pthread_self(), "uim-req");
            tid = static_cast<pid_t>(syscall(SYS_gettid));
            block = qcril_malloc_adv(SIZE_MAX - 4096, "caller_func", 77);
        });
    });
    EXPECT_EQ(block, nullptr);
    EXPECT_EQ(out, "[HIGH      :util]: [qcril_memory_management.cpp: 184] [uim-req(" + std::to_string(getpid()) + "," +
                       std::to_string(tid) + ")] qcril_malloc_adv: Fail to allocate memory\n");
}

} // namespace
