/*
 * qcril_memory_management.cpp - the SIM layer's allocator: plain heap blocks,
 * zero-filled so that request structures start with every optional field
 * marked absent. A failed allocation is reported through the RIL logger.
 */
#include "qcril_memory_management.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include <qtimutex/QtiMutex.h>

#include "qcril_logger.h"

/* Optional start-up observer: left undefined in the tool, defined by a test
 * that checks the order in which the process-wide objects are built. */
extern "C" void kvn_static_init_note(const char *unit) __attribute__((weak));

namespace {

/* The allocator's state. The lock is reserved for block tracking, which is
 * not done: neither allocator function takes it. */
struct QcrilMemoryState {
    QtiSharedMutex mutex; /* reserved for block tracking */

    QcrilMemoryState()
    {
        if (kvn_static_init_note)
            kvn_static_init_note("memory");
    }
};

/* Built after the MBN record and before the logger's state. */
QcrilMemoryState s_memory __attribute__((init_priority(1020)));

/* The failure report names the allocator's own source file and a fixed line
 * number, not the caller's: log readers search for this exact location. */
constexpr int k_fail_report_line = 184;

const char *qcril_memory_base_name(const char *path)
{
    const char *slash = std::strrchr(path, '/');
    return slash ? slash + 1 : path;
}

} // namespace

void *qcril_malloc_adv(size_t size, const char *func, int line)
{
    (void)func;
    (void)line;
    void *block = std::malloc(size);
    if (block == nullptr) {
        using namespace qti::ril::logger;
        Logger::log(LogLevel::High, "util", "[%s: %d] [%s(%ld,%ld)] %s: Fail to allocate memory",
                    qcril_memory_base_name(__FILE__), k_fail_report_line, qcril_get_thread_name(),
                    static_cast<long>(getpid()), static_cast<long>(my_gettid()), "qcril_malloc_adv");
        return nullptr;
    }
    std::memset(block, 0, size);
    return block;
}

void qcril_free_adv(void *ptr, const char *func, int line)
{
    (void)func;
    (void)line;
    if (ptr != nullptr)
        std::free(ptr);
}
