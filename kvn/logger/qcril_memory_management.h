/*
 * qcril_memory_management.h - the zero-filling allocator of the SIM layer.
 * Every UIM request and response buffer comes from qcril_malloc_adv and goes
 * back through qcril_free_adv.
 */
#ifndef QCRIL_MEMORY_MANAGEMENT_H
#define QCRIL_MEMORY_MANAGEMENT_H

#include <stddef.h>

/* A block of size bytes, all zero, or NULL when the heap is exhausted (the
 * failure is reported through the RIL logger). func and line name the caller;
 * they are accepted for the call convention and not recorded. */
void *qcril_malloc_adv(size_t size, const char *func, int line);

/* Frees ptr; NULL is ignored. func and line are not recorded. */
void qcril_free_adv(void *ptr, const char *func, int line);

#endif /* QCRIL_MEMORY_MANAGEMENT_H */
