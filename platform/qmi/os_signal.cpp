// os_signal.cpp - the OS parameter block of the client API: a flag, a mutex
// and a condition variable that a notifier sets and qmi_cci_os_signal_wait
// waits on. Callers hand the block over zero-filled, so it is initialised on
// first use, under one process-wide lock so that two threads touching a fresh
// block at once initialise it exactly once.
#include "os_signal.h"
#include "transport.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>

namespace {

pthread_mutex_t g_init_lock = PTHREAD_MUTEX_INITIALIZER;

void ensure_init(qmi_cci_os_signal_type *p)
{
    pthread_mutex_lock(&g_init_lock);
    if (!p->inited) {
        pthread_mutex_init(&p->mutex, nullptr);
        pthread_condattr_t attr;
        pthread_condattr_init(&attr);
        pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
        pthread_cond_init(&p->cond, &attr);
        pthread_condattr_destroy(&attr);
        p->inited = 1;
    }
    pthread_mutex_unlock(&g_init_lock);
}

} // namespace

namespace kvn_qmi {

void os_signal_set(qmi_cci_os_signal_type *p)
{
    if (!p)
        return;
    ensure_init(p);
    pthread_mutex_lock(&p->mutex);
    p->sig_set = 1;
    pthread_cond_broadcast(&p->cond);
    pthread_mutex_unlock(&p->mutex);
}

} // namespace kvn_qmi

// Waits for the signal or timeout_ms (0: no limit), records in timed_out which
// of the two ended the wait, and clears the signal.
extern "C" void qmi_cci_os_signal_wait(qmi_client_os_params *os_params, unsigned int timeout_ms)
{
    if (!os_params)
        return;
    ensure_init(os_params);
    kvn_qmi::forget_service_list(); // what a list said before the wait may no longer hold after it
    kvn_qmi::notifiers_wanted(os_params);
    timespec deadline{};
    syscall(SYS_clock_gettime, CLOCK_MONOTONIC, &deadline); // not the vDSO: see kvn_wire::MonoClock
    deadline.tv_sec += timeout_ms / 1000;
    deadline.tv_nsec += long(timeout_ms % 1000) * 1000000L;
    if (deadline.tv_nsec >= 1000000000L) {
        deadline.tv_sec += 1;
        deadline.tv_nsec -= 1000000000L;
    }
    pthread_mutex_lock(&os_params->mutex);
    while (!os_params->sig_set) {
        int rc = timeout_ms ? pthread_cond_timedwait(&os_params->cond, &os_params->mutex, &deadline)
                            : pthread_cond_wait(&os_params->cond, &os_params->mutex);
        if (rc == ETIMEDOUT)
            break;
    }
    os_params->timed_out = !os_params->sig_set;
    os_params->sig_set = 0;
    pthread_mutex_unlock(&os_params->mutex);
}
