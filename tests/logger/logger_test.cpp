// logger_test.cpp - the RIL logger (level labels, buffer cut, abort on a bad
// level, per-thread buffers, factory registry) and the zero-filling
// allocator, including its failure report.
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

#include "qcril_logger.h"
#include "qcril_memory_management.h"

// The allocation-failure test asks for an impossible block; let the
// sanitizers' allocators answer null as the C library does instead of
// stopping the process.
extern "C" const char *__asan_default_options() { return "allocator_may_return_null=1"; }
extern "C" const char *__tsan_default_options() { return "allocator_may_return_null=1"; }

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

// ---- logger ----

TEST(Logger, EveryLevelPrintsItsPaddedLabel)
{
    const char *labels[] = {"ESSENTIAL ", "VERBOSE   ", "DEBUG     ", "INFO      ",
                            "WARN      ", "HIGH      ", "FATAL     ", "MAX       "};
    for (unsigned level = 0; level < 8; ++level) {
        int ret = 0;
        std::string out = captured([&] { ret = Logger::log(static_cast<LogLevel>(level), "tag", "n=%d", 42); });
        std::string want = std::string("[") + labels[level] + ":tag]: n=42\n";
        EXPECT_EQ(out, want);
        EXPECT_EQ(ret, static_cast<int>(want.size())); // printf's count
    }
}

// A 2000-character message comes out as its first 1023; exactly 1023 fit whole.
TEST(Logger, LongMessageIsCutTo1023Characters)
{
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

TEST(Logger, EachThreadFormatsIntoItsOwnBuffer)
{
    constexpr int k_threads = 4;
    constexpr int k_lines = 200;
    std::string out = captured([&] {
        std::vector<std::thread> threads;
        for (int t = 0; t < k_threads; ++t)
            threads.emplace_back([t] {
                std::string body(300, static_cast<char>('A' + t));
                for (int i = 0; i < k_lines; ++i)
                    Logger::log(LogLevel::Debug, "thr", "%d:%s:%d", t, body.c_str(), i);
            });
        for (auto &th : threads)
            th.join();
    });
    // Every line is one thread's message, whole and unmixed.
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

// ---- factory registry ----

class NamedFactory : public LoggerFactory {
public:
    explicit NamedFactory(const std::string &name) : LoggerFactory(name) {}
    std::shared_ptr<LoggerImpl> getLoggerImpl() override { return nullptr; }
};

TEST(LoggerFactory, FirstRegistrationKeepsTheNameAndAnyDestructionFreesIt)
{
    auto &registry = LoggerFactory::loggerFactories();
    {
        NamedFactory first("dup-test");
        auto second = std::make_unique<NamedFactory>("dup-test");
        ASSERT_EQ(registry.count("dup-test"), 1u);
        EXPECT_EQ(registry.at("dup-test"), &first);
        second.reset(); // erases the entry even though it points to first
        EXPECT_EQ(registry.count("dup-test"), 0u);
        NamedFactory third("dup-test");
        EXPECT_EQ(registry.at("dup-test"), &third);
    }
    EXPECT_EQ(registry.count("dup-test"), 0u);
}

// ---- allocator ----

TEST(Allocator, BlocksAreZeroFilled)
{
    for (size_t size : {1u, 7u, 64u, 1000u, 70000u}) {
        // Leave garbage in a freed block of the same size, which the heap is
        // likely to hand out again.
        void *dirty = std::malloc(size);
        std::memset(dirty, 0xA5, size);
        std::free(dirty);
        auto *block = static_cast<unsigned char *>(qcril_malloc_adv(size, __func__, __LINE__));
        ASSERT_NE(block, nullptr);
        for (size_t i = 0; i < size; ++i)
            ASSERT_EQ(block[i], 0) << "size " << size << " byte " << i;
        qcril_free_adv(block, __func__, __LINE__);
    }
    qcril_free_adv(nullptr, __func__, __LINE__); // ignored; a real free of junk would trip the sanitizers
}

// The report names the thread (name, process id, kernel thread id), which
// pins the logger's thread helpers against the kernel's own answers.
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
