/*
 * hydra_log.cpp - the "HYDRA" Android log lines of the statistics layer and
 * its traced allocator. The allocator decides once per process, on its first
 * call, whether to trace; the trace list is a doubly linked list of records
 * guarded by its own mutex.
 */
#include "hydra_log.h"

#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <android/log.h>
#include <cutils/properties.h>

#define HYDRA_LOG_TAG "HYDRA"
#define HYDRA_MEM_TRACE_PROP "persist.hydra.mem_trace"

/* One live block while tracing is on. */
typedef struct hydra_mem_trace_rec {
    struct hydra_mem_trace_rec *prev; /* towards the head */
    struct hydra_mem_trace_rec *next; /* towards the tail */
    void *ptr;                        /* the block handed out */
    size_t size;                      /* its requested size */
    pid_t pid;                        /* process that allocated it */
    const char *func;                 /* allocating function */
    int year, month, day, hour, minute, second; /* local time of the allocation */
} hydra_mem_trace_rec;

/* The allocator's process-wide state. */
static struct {
    int decided;                  /* the property was read (first call done) */
    int tracing;                  /* property is exactly "true" */
    pthread_mutex_t mutex;        /* guards the list below */
    hydra_mem_trace_rec *head;    /* oldest record */
    hydra_mem_trace_rec *tail;    /* newest record */
    int count;                    /* records in the list */
} s_hydra_mem = {0, 0, PTHREAD_MUTEX_INITIALIZER, NULL, NULL, 0};

/* ---- log ---- */

int hydra_log_format_log_msg(char *buf, int size, const char *fmt, ...)
{
    if (buf == NULL || size < 1)
        return 0;
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(buf, (size_t)size, fmt, ap);
    va_end(ap);
    return n;
}

void hydra_log_msg_to_adb(int level, const char *text)
{
    int prio;
    switch (level) {
    case 2:
    case 16:
        prio = ANDROID_LOG_INFO;
        break;
    case 3:
        prio = ANDROID_LOG_DEBUG;
        break;
    case 4:
    case 5:
        prio = ANDROID_LOG_ERROR;
        break;
    default:
        return; /* other levels stay out of the Android log */
    }
    __android_log_print(prio, HYDRA_LOG_TAG, "%s", text);
    /* The module's optional log file is never opened by this program. */
}

/* The line is "<name>: " followed by the message, cut at 511 characters like
 * the 512-byte buffers it is built in. */
void hydra_log_named(int level, const char *name, const char *fmt, ...)
{
    char text[HYDRA_LOG_BUF_SIZE];
    int n = hydra_log_format_log_msg(text, sizeof(text), "%s: ", name);
    if (n >= 0 && n < (int)sizeof(text)) {
        va_list ap;
        va_start(ap, fmt);
        vsnprintf(text + n, sizeof(text) - (size_t)n, fmt, ap);
        va_end(ap);
    }
    hydra_log_msg_to_adb(level, text);
}

/* ---- traced allocator ---- */

/* First-call decision; not locked, as the first allocation happens before any
 * service client thread exists. */
static void hydra_mem_init(void)
{
    char value[PROPERTY_VALUE_MAX];
    s_hydra_mem.decided = 1;
    if (property_get(HYDRA_MEM_TRACE_PROP, value, "") <= 0) {
        hydra_log_named(HYDRA_LOG_RESULT, "hydra_mem_init", "HYDRA_MEM_TRACE_PROP not exist");
        return;
    }
    if (strcmp(value, "true") == 0) {
        pthread_mutex_init(&s_hydra_mem.mutex, NULL);
        s_hydra_mem.head = s_hydra_mem.tail = NULL;
        s_hydra_mem.count = 0;
        s_hydra_mem.tracing = 1;
    }
}

void *hydra_malloc_adv(size_t size, const char *func, int line)
{
    (void)line;
    if (!s_hydra_mem.decided)
        hydra_mem_init();
    void *p = malloc(size);
    if (p == NULL) {
        HYDRA_LOG(HYDRA_LOG_ERROR, "Fail to allocate memory");
        return NULL;
    }
    if (!s_hydra_mem.tracing)
        return p;

    hydra_mem_trace_rec *rec = (hydra_mem_trace_rec *)calloc(1, sizeof(*rec));
    if (rec == NULL)
        return p; /* the block is good; it just goes untraced */
    struct timeval tv;
    gettimeofday(&tv, NULL);
    struct tm tm_local;
    time_t secs = tv.tv_sec;
    localtime_r(&secs, &tm_local);
    rec->ptr = p;
    rec->size = size;
    rec->pid = getpid();
    rec->func = func;
    rec->year = tm_local.tm_year + 1900;
    rec->month = tm_local.tm_mon + 1;
    rec->day = tm_local.tm_mday;
    rec->hour = tm_local.tm_hour;
    rec->minute = tm_local.tm_min;
    rec->second = tm_local.tm_sec;

    pthread_mutex_lock(&s_hydra_mem.mutex);
    rec->prev = s_hydra_mem.tail;
    if (s_hydra_mem.tail)
        s_hydra_mem.tail->next = rec;
    else
        s_hydra_mem.head = rec;
    s_hydra_mem.tail = rec;
    s_hydra_mem.count++;
    pthread_mutex_unlock(&s_hydra_mem.mutex);
    return p;
}

void hydra_free_adv(void *p, const char *func, int line)
{
    (void)func;
    (void)line;
    if (p == NULL)
        return;
    free(p);
    if (!s_hydra_mem.tracing)
        return;
    pthread_mutex_lock(&s_hydra_mem.mutex);
    /* Only the address is compared: the block itself is already gone. */
    for (hydra_mem_trace_rec *rec = s_hydra_mem.head; rec != NULL; rec = rec->next) {
        if (rec->ptr != p)
            continue;
        if (rec->prev)
            rec->prev->next = rec->next;
        else
            s_hydra_mem.head = rec->next;
        if (rec->next)
            rec->next->prev = rec->prev;
        else
            s_hydra_mem.tail = rec->prev;
        s_hydra_mem.count--;
        free(rec);
        break;
    }
    pthread_mutex_unlock(&s_hydra_mem.mutex);
}

int hydra_mem_trace_count(void)
{
    if (!s_hydra_mem.tracing)
        return 0;
    pthread_mutex_lock(&s_hydra_mem.mutex);
    int n = s_hydra_mem.count;
    pthread_mutex_unlock(&s_hydra_mem.mutex);
    return n;
}
