/*
 * pelmox_trace.cpp - the two-form trace of the modem-facing modules: a log
 * line through pelmox_utils_syslog_dbg and a terminal echo, each behind its
 * print flag.
 */
#include "pelmox_trace.h"

#include <stdio.h>
#include <string.h>

#include "pelmox_utils.h"

/* A trace text longer than this is cut; traces are single short lines. */
#define PELMOX_TRACE_TEXT_MAX 1024

const char *pelmox_trace_base_name(const char *src)
{
    const char *slash = strrchr(src, '/');
    return slash ? slash + 1 : src;
}

int pelmox_trace_shell_on(void)
{
    return (pelmox_utils_get_shell_print_flag() & 0xFF) != 0;
}

int pelmox_trace_log_on(void)
{
    return (pelmox_utils_get_print_flag() & 0xFF) == 1;
}

void pelmox_trace_vemit(const char *src, int line, const char *func, const char *fmt, va_list ap)
{
    int log_on = pelmox_trace_log_on();
    int shell_on = pelmox_trace_shell_on();
    if (!log_on && !shell_on)
        return;

    char text[PELMOX_TRACE_TEXT_MAX];
    vsnprintf(text, sizeof(text), fmt, ap);

    if (log_on)
        pelmox_utils_syslog_dbg("SUB[%s][%s:%d] %s: %s", "shell", pelmox_trace_base_name(src), line,
                                func, text);
    if (shell_on) {
        printf("RIL[%s:%d]: %s\n", func, line, text);
    }
}

void pelmox_trace_emit(const char *src, int line, const char *func, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    pelmox_trace_vemit(src, line, func, fmt, ap);
    va_end(ap);
}
