/*
 * QtiMutex.h - the radio stack's reader/writer lock. QtiSharedMutex wraps the
 * standard shared timed mutex so code written against the handset's lock type
 * builds unchanged on a host; it meets the standard SharedTimedLockable
 * requirements, so std::unique_lock and std::shared_lock work with it.
 */
#ifndef QTIMUTEX_QTIMUTEX_H
#define QTIMUTEX_QTIMUTEX_H

#include <chrono>
#include <shared_mutex>

class QtiSharedMutex {
public:
    QtiSharedMutex() = default;
    ~QtiSharedMutex() = default;
    QtiSharedMutex(const QtiSharedMutex &) = delete;
    QtiSharedMutex &operator=(const QtiSharedMutex &) = delete;

    /* Exclusive (writer) side. */
    void lock() { m_.lock(); }
    bool try_lock() { return m_.try_lock(); }
    void unlock() { m_.unlock(); }
    template <class Rep, class Period>
    bool try_lock_for(const std::chrono::duration<Rep, Period> &d)
    {
        return m_.try_lock_for(d);
    }
    template <class Clock, class Duration>
    bool try_lock_until(const std::chrono::time_point<Clock, Duration> &t)
    {
        return m_.try_lock_until(t);
    }

    /* Shared (reader) side. */
    void lock_shared() { m_.lock_shared(); }
    bool try_lock_shared() { return m_.try_lock_shared(); }
    void unlock_shared() { m_.unlock_shared(); }
    template <class Rep, class Period>
    bool try_lock_shared_for(const std::chrono::duration<Rep, Period> &d)
    {
        return m_.try_lock_shared_for(d);
    }
    template <class Clock, class Duration>
    bool try_lock_shared_until(const std::chrono::time_point<Clock, Duration> &t)
    {
        return m_.try_lock_shared_until(t);
    }

private:
    std::shared_timed_mutex m_; /* the lock itself */
};

#endif /* QTIMUTEX_QTIMUTEX_H */
