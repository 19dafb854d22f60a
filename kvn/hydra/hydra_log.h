/*
 * hydra_log.h - the statistics layer's log and allocator. Every line goes to
 * the Android log with the tag "HYDRA" as "<function>: <text>", whatever the
 * print flags say; request and response records are allocated through the
 * traced allocator, which keeps a list of live blocks when the property
 * "persist.hydra.mem_trace" is exactly "true".
 */
#ifndef HYDRA_LOG_H
#define HYDRA_LOG_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Log levels: 2 entry/exit and progress, 3 results, 4 errors. */
#define HYDRA_LOG_PROGRESS 2
#define HYDRA_LOG_RESULT 3
#define HYDRA_LOG_ERROR 4

/* Size of the format and text buffers of one log line. */
#define HYDRA_LOG_BUF_SIZE 512

/* vsnprintf into buf of size bytes. Writes nothing and returns 0 when buf is
 * null or size below 1; otherwise returns what vsnprintf returns (the length
 * the whole text would have). */
int hydra_log_format_log_msg(char *buf, int size, const char *fmt, ...) __attribute__((format(printf, 3, 4)));

/* Hands one text to the Android log under the tag "HYDRA": levels 2 and 16 as
 * INFO, 3 as DEBUG, 4 and 5 as ERROR; other levels are not logged. */
void hydra_log_msg_to_adb(int level, const char *text);

/* One log line "<name>: <text>". The name is usually the calling function;
 * code shared by several modules passes the name of the module's function. */
void hydra_log_named(int level, const char *name, const char *fmt, ...) __attribute__((format(printf, 3, 4)));

/* malloc with optional tracing (see above). The line is accepted and not kept. */
void *hydra_malloc_adv(size_t size, const char *func, int line);

/* free, and with tracing on, drop the block's trace record. Null is ignored;
 * an unknown pointer leaves the list as it is. */
void hydra_free_adv(void *p, const char *func, int line);

/* Blocks in the trace list (0 with tracing off); for checks and tests. */
int hydra_mem_trace_count(void);

#ifdef __cplusplus
}
#endif

#define HYDRA_LOG(level, ...) hydra_log_named((level), __func__, __VA_ARGS__)
#define HYDRA_MALLOC(size) hydra_malloc_adv((size), __func__, __LINE__)
#define HYDRA_FREE(p) hydra_free_adv((p), __func__, __LINE__)

#endif /* HYDRA_LOG_H */
