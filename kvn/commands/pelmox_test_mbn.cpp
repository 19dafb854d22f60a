/*
 * pelmox_test_mbn.cpp - command group 10 (MBN test). The group checks its
 * arguments and attempts PDC initialisation; PDC is not reachable from this
 * tool, so every valid request ends in the "pdc init failed" report and the
 * group's help. That outcome is the intended behaviour, not a placeholder.
 */
#include "pelmox_test_mbn.h"

#include <stdio.h>
#include <stdlib.h>

#include <qtimutex/QtiMutex.h>

#include "pelmox_shell.h"
#include "pelmox_trace.h"
#include "pelmox_utils.h"

#define PELMOX_MBN_GROUP 10

/* Source name shown in this module's log lines. */
static const char k_trace_src[] = "proprietary/modem/hal/kvn/pelmox_test_mbn";

/* Optional start-up observer: left undefined in the tool, defined by a test
 * that checks the order in which the process-wide objects are built. */
extern "C" void kvn_static_init_note(const char *unit) __attribute__((weak));

/*
 * The MBN information record. Its lock guards MBN bookkeeping shared with
 * PDC callbacks; nothing in this tool takes it yet, but the record exists
 * from start-up to exit as it does wherever PDC is available.
 */
class pemlox_pdc_mbn_info {
public:
    pemlox_pdc_mbn_info()
    {
        if (kvn_static_init_note)
            kvn_static_init_note("mbn_info");
    }
    ~pemlox_pdc_mbn_info() = default;
    pemlox_pdc_mbn_info(const pemlox_pdc_mbn_info &) = delete;
    pemlox_pdc_mbn_info &operator=(const pemlox_pdc_mbn_info &) = delete;

private:
    QtiSharedMutex mutex_; /* reader/writer lock over the MBN bookkeeping */
};

/* Built first of the process-wide objects of the tool (before the allocator's
 * lock and the logger), whatever order the linker lays the units out in. */
static pemlox_pdc_mbn_info s_pdc_mbn_info __attribute__((init_priority(1010)));

/* Module state. */
static struct {
    int pdc_init_status; /* -1: PDC not initialised */
} s_mbn = {-1};

/* Error report: always to the log, in the trace layout, and echoed to the
 * terminal under the shell print flag. */
#define PELMOX_MBN_ERR(text)                                                                          \
    do {                                                                                              \
        pelmox_utils_syslog_err("SUB[%s][%s:%d] %s: %s", "shell", pelmox_trace_base_name(k_trace_src), \
                                __LINE__, __func__, (text));                                          \
        if (pelmox_trace_shell_on())                                                                  \
            printf("RIL[%s:%d]: %s\n", __func__, __LINE__, (text));                                   \
    } while (0)

int pelmox_test_mbn_pdc_init(uint8_t force_init)
{
    PELMOX_TRACE(k_trace_src, "function entry ------------->");
    PELMOX_TRACE(k_trace_src, "start pelmox pdc init, g_pdc_init_status = %d, force_init = %d", s_mbn.pdc_init_status,
                 force_init);
    PELMOX_MBN_ERR("pdc init failed");
    PELMOX_TRACE(k_trace_src, "function exit <-------------");
    return s_mbn.pdc_init_status;
}

int pelmox_test_mbn_do(int argc, char *argv[])
{
    /* These notes are printed whatever the shell print flag says. Argument 2
     * is not used by this group. */
    if (argc <= 3) {
        printf("\nnote: Too few parameters, Pls refer to the following cmd:\n");
    } else if (atoi(argv[1]) != PELMOX_MBN_GROUP) {
        printf("\nnote: the first parameters should be %d, Pls refer to the following cmd:\n", PELMOX_MBN_GROUP);
    } else {
        int sub_mask = atoi(argv[3]);
        if (sub_mask < 1 || sub_mask > 3) {
            printf("\nnote: sub_mask(%d) is invalid:\n", sub_mask);
        } else if (pelmox_test_mbn_pdc_init(0) != 0) {
            PELMOX_TRACE(k_trace_src, "pdc init failed, do nothing");
        }
    }
    show_help(PELMOX_MBN_GROUP);
    return 0;
}
