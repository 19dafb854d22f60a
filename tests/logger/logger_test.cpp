// logger_test.cpp - the RIL logger (level labels, buffer cut, abort on a bad level, per-thread buffers, factory
// registry), the zero-filling allocator and its failure report, and the order in which the tool's process-wide
// objects are built before main.
#include <gtest/gtest.h>

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "pelmox_test_mbn.h"
#include "qcril_logger.h"
#include "qcril_memory_management.h"

// The allocation-failure test asks for an impossible block; the sanitizers' allocators answer null as the C
// library does instead of stopping the process.
extern "C" const char *__asan_default_options() { return "allocator_may_return_null=1"; }
extern "C" const char *__tsan_default_options() { return "allocator_may_return_null=1"; }

namespace {

// The start-up objects call kvn_static_init_note when built; probes built between them (by priority) record where
// each falls, so a change that leaves the order to the linker is caught. Plain storage: usable before any
// constructor has run.
const char *g_order[16];
int g_order_count;

void note(const char *unit)
{
    if (g_order_count < 16)
        g_order[g_order_count++] = unit;
}

struct Probe {
    explicit Probe(const char *name) { note(name); }
};

Probe probe_first __attribute__((init_priority(1001)))("probe:first");
Probe probe_after_mbn __attribute__((init_priority(1015)))("probe:after-mbn");
Probe probe_after_memory __attribute__((init_priority(1025)))("probe:after-memory");
Probe probe_after_logger __attribute__((init_priority(1040)))("probe:after-logger");
Probe probe_default("probe:default");

} // namespace

extern "C" void kvn_static_init_note(const char *unit) { note(unit); }

namespace {

using qti::ril::logger::Logger;
using qti::ril::logger::LoggerFactory;
using qti::ril::logger::LoggerImpl;
using qti::ril::logger::LogLevel;

template <class F> std::string captured(F &&f)
{
    testing::internal::CaptureStdout();
    f();
    std::fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

// The MBN record, then the allocator's lock, then the logger's state. No test calls a set-up function first, so
// every logger line below also shows the logger has its back end when main starts.
TEST(StartupOrder, MbnRecordThenAllocatorLockThenLogger)
{
    const std::vector<std::string> want = {"probe:first", "mbn_info", "probe:after-mbn", "memory",
                                           "probe:after-memory", "logger", "probe:after-logger", "probe:default"};
    EXPECT_EQ(std::vector<std::string>(g_order, g_order + g_order_count), want);
    captured([] { EXPECT_EQ(pelmox_test_mbn_pdc_init(0), -1); }); // links the MBN unit in
}

// Each level's label padded to ten; printf's count returned; a message cut to its first 1023 characters.
TEST(Logger, LabelsCountsAndCut)
{
    const char *labels[] = {"ESSENTIAL ", "VERBOSE   ", "DEBUG     ", "INFO      ",
                            "WARN      ", "HIGH      ", "FATAL     ", "MAX       "};
    for (unsigned level = 0; level < 8; ++level) {
        int ret = 0;
        const std::string out = captured([&] { ret = Logger::log(static_cast<LogLevel>(level), "tag", "n=%d", 42); });
        EXPECT_EQ(out, std::string("[") + labels[level] + ":tag]: n=42\n");
        EXPECT_EQ(ret, static_cast<int>(out.size()));
    }
    std::string message(2000, 'm');
    for (size_t i = 0; i < message.size(); ++i)
        message[i] = static_cast<char>('a' + i % 26);
    for (const std::string &m : {message, message.substr(0, 1023)})
        EXPECT_EQ(captured([&] { Logger::log(LogLevel::Info, "t", "%s", m.c_str()); }),
                  "[INFO      :t]: " + message.substr(0, 1023) + "\n");
}

TEST(LoggerDeathTest, LevelEightOrMoreAborts)
{
    EXPECT_DEATH(Logger::log(static_cast<LogLevel>(8), "t", "x"), "");
    EXPECT_DEATH(Logger::log(static_cast<LogLevel>(0xFFFFFFFFu), "t", "x"), "");
}

// Every line is one thread's message, whole and unmixed.
TEST(Logger, EachThreadFormatsIntoItsOwnBuffer)
{
    constexpr int k_threads = 4, k_lines = 200;
    const std::string out = captured([&] {
        std::vector<std::thread> threads;
        for (int t = 0; t < k_threads; ++t)
            threads.emplace_back([t] {
                const std::string body(300, static_cast<char>('A' + t));
                for (int i = 0; i < k_lines; ++i)
                    Logger::log(LogLevel::Debug, "thr", "%d:%s:%d", t, body.c_str(), i);
            });
        for (auto &th : threads)
            th.join();
    });
    const std::string head = "[DEBUG     :thr]: ";
    int count = 0;
    for (size_t pos = 0, nl; (nl = out.find('\n', pos)) != std::string::npos; pos = nl + 1, ++count) {
        const std::string line = out.substr(pos, nl - pos);
        const int t = line.size() > head.size() ? line[head.size()] - '0' : -1;
        ASSERT_TRUE(line.rfind(head, 0) == 0 && t >= 0 && t < k_threads) << line;
        ASSERT_EQ(line.substr(head.size() + 2, 300), std::string(300, static_cast<char>('A' + t))) << line;
    }
    EXPECT_EQ(count, k_threads * k_lines);
}

class NamedFactory : public LoggerFactory {
public:
    explicit NamedFactory(const std::string &name) : LoggerFactory(name) {}
    std::shared_ptr<LoggerImpl> getLoggerImpl() override { return nullptr; }
};

// The first registration keeps the name; destroying any factory of that name frees it.
TEST(LoggerFactory, FirstRegistrationKeepsTheName)
{
    auto &registry = LoggerFactory::loggerFactories();
    {
        NamedFactory first("dup-test");
        auto second = std::make_unique<NamedFactory>("dup-test");
        ASSERT_EQ(registry.count("dup-test"), 1u);
        EXPECT_EQ(registry.at("dup-test"), &first);
        second.reset();
        EXPECT_EQ(registry.count("dup-test"), 0u);
        NamedFactory third("dup-test");
        EXPECT_EQ(registry.at("dup-test"), &third);
    }
    EXPECT_EQ(registry.count("dup-test"), 0u);
}

TEST(Allocator, BlocksAreZeroFilled)
{
    for (size_t size : {1u, 7u, 64u, 1000u, 70000u}) {
        // Garbage left in a freed block of the same size, which the heap is likely to hand out again.
        void *dirty = std::malloc(size);
        std::memset(dirty, 0xA5, size);
        std::free(dirty);
        auto *block = static_cast<unsigned char *>(qcril_malloc_adv(size, __func__, __LINE__));
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(std::vector<unsigned char>(block, block + size), std::vector<unsigned char>(size)) << size;
        qcril_free_adv(block, __func__, __LINE__);
    }
    qcril_free_adv(nullptr, __func__, __LINE__); // ignored; a real free of junk would trip the sanitizers
}

// The report names the thread (name, process id, kernel thread id), which pins the logger's thread helpers against
// the kernel's own answers.
TEST(Allocator, FailureIsReportedThroughTheLogger)
{
    void *block = reinterpret_cast<void *>(1);
    pid_t tid = 0;
    const std::string out = captured([&] {
        std::thread th([&] {
            pthread_setname_np(pthread_self(), "uim-req");
            tid = static_cast<pid_t>(syscall(SYS_gettid));
            block = qcril_malloc_adv(SIZE_MAX - 4096, "caller_func", 77);
        });
        th.join();
    });
    EXPECT_EQ(block, nullptr);
    EXPECT_EQ(out, "[HIGH      :util]: [qcril_memory_management.cpp: 184] [uim-req(" + std::to_string(getpid()) + "," +
                       std::to_string(tid) + ")] qcril_malloc_adv: Fail to allocate memory\n");
}

} // namespace
