/*
 * pelmox_utils.h - the maker's utility library: the two print flags that gate
 * the tool's traces, and the system-log helpers.
 *
 * Both flags are read afresh at every call (never cached): the environment
 * variables PELMOX_SHELL_PRINT_FLAG / PELMOX_PRINT_FLAG win, then the
 * properties persist.vendor.pelmox.shell_print_flag /
 * persist.vendor.pelmox.print_flag, then the defaults (shell 1, log 0).
 * Callers look only at the low byte.
 */
#ifndef PELMOX_UTILS_H
#define PELMOX_UTILS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Writable shell print flag. While it is non-negative it overrides the
 * environment and property for pelmox_utils_get_shell_print_flag; it starts
 * at -1 (no override). The eSIM test clears it to silence its traces. */
extern int g_pelmox_shell_print_flag;

/* Writable log print flag override, same convention as above. */
extern int g_pelmox_print_flag;

int pelmox_utils_get_shell_print_flag(void);
int pelmox_utils_get_print_flag(void);

/* printf-style lines to the Android log, tag "pelmox", priorities debug and
 * error. */
void pelmox_utils_syslog_dbg(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
void pelmox_utils_syslog_err(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

#ifdef __cplusplus
}
#endif

#endif /* PELMOX_UTILS_H */
