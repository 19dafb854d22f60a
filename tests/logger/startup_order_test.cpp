// startup_order_test.cpp - the process-wide objects of the tool are built
// before main in a fixed order: the MBN record, the allocator's lock, the
// logger's state. Probes built between them (by priority) record where each
// one falls, so a change that leaves the order to the linker is caught.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "pelmox_test_mbn.h"
#include "qcril_logger.h"
#include "qcril_memory_management.h"

namespace {

// Plain storage: usable before any constructor has run.
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

// Called by the tool's start-up objects when they are built.
extern "C" void kvn_static_init_note(const char *unit) { note(unit); }

namespace {

// The calls below pull every unit into the link; the logger must already have
// its back end when main starts: a message comes out without any set-up call.
TEST(StartupOrder, MbnRecordThenAllocatorLockThenLoggerReadyAtMain)
{
    const std::vector<std::string> want = {"probe:first", "mbn_info", "probe:after-mbn", "memory",
                                           "probe:after-memory", "logger", "probe:after-logger", "probe:default"};
    EXPECT_EQ(std::vector<std::string>(g_order, g_order + g_order_count), want);

    qcril_free_adv(qcril_malloc_adv(16, __func__, __LINE__), __func__, __LINE__);
    testing::internal::CaptureStdout();
    EXPECT_EQ(pelmox_test_mbn_pdc_init(0), -1);
    EXPECT_GT(qti::ril::logger::Logger::log(qti::ril::logger::LogLevel::Warn, "t", "ready"), 0);
    std::fflush(stdout);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("[WARN      :t]: ready\n"), std::string::npos);
}

} // namespace
