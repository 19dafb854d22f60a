/*
 * pelmox_trace.h - the one trace convention of the modem-facing modules.
 *
 * Every trace goes out twice, each copy gated by a print flag read at the
 * moment of printing:
 *   - to the Android log through pelmox_utils_syslog_dbg as
 *     "SUB[shell][<base name of the module's source name>:<line>] <function>: <text>"
 *     when the low byte of pelmox_utils_get_print_flag() is exactly 1;
 *   - to standard output as "RIL[<function>:<line>]: <text>" and a line end
 *     when the low byte of pelmox_utils_get_shell_print_flag() is non-zero.
 *
 * Each module declares the source name that appears in its log lines (a trace
 * text, not a file of this repository) and traces through PELMOX_TRACE:
 *
 *   static const char k_trace_src[] = "proprietary/modem/hal/qmi/pelmox_extend_nvefs";
 *   PELMOX_TRACE(k_trace_src, "result = %d", result);
 */
#ifndef PELMOX_TRACE_H
#define PELMOX_TRACE_H

#include <stdarg.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Emits one trace in both forms. src is the module's declared source name. */
void pelmox_trace_emit(const char *src, int line, const char *func, const char *fmt, ...)
    __attribute__((format(printf, 4, 5)));
void pelmox_trace_vemit(const char *src, int line, const char *func, const char *fmt, va_list ap);

/* The text after the last '/' of src (src itself when it has none). */
const char *pelmox_trace_base_name(const char *src);

/* Non-zero when the low byte of the shell print flag is set. */
int pelmox_trace_shell_on(void);

/* Non-zero when the low byte of the log print flag is exactly 1. */
int pelmox_trace_log_on(void);

#ifdef __cplusplus
}
#endif

#define PELMOX_TRACE(src, ...) pelmox_trace_emit((src), __LINE__, __func__, __VA_ARGS__)

#endif /* PELMOX_TRACE_H */
