// fsync_queue.h - flushes written files to the disk off the event loop. The
// loop writes a file's new content and renames it into place (so every later
// request, and a daemon killed right after, sees whole new content); the
// fsyncs of the file and of its directory, which can take many milliseconds on
// a slow or busy disk, run here on one thread of their own, so that a write
// does not hold up the requests of other clients behind it.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <thread>

#include "util.h"

namespace kvn_sim {

class FsyncQueue {
public:
    // At most `max_pending` flushes wait at once (each holds two descriptors);
    // beyond that push() flushes in the caller, as if there were no queue.
    explicit FsyncQueue(size_t max_pending = 64);
    ~FsyncQueue(); // flushes everything still queued, then stops
    FsyncQueue(const FsyncQueue &) = delete;
    FsyncQueue &operator=(const FsyncQueue &) = delete;

    // Flushes `file`, then `dir`, soon. Either may be invalid (skipped).
    void push(UniqueFd file, UniqueFd dir);
    // Returns once everything pushed before the call is on the disk.
    void drain();

    // How many flushes were queued and how many ran in the caller because the
    // queue was full, for `status`.
    size_t queued() const;
    size_t ran_inline() const;

private:
    struct Job {
        UniqueFd file, dir;
    };
    static void flush(Job &job);
    void run();

    const size_t max_pending_;
    mutable std::mutex mu_;
    std::condition_variable work_cv_, done_cv_;
    std::deque<Job> jobs_;
    size_t busy_ = 0; // jobs taken by the thread and not finished
    size_t queued_ = 0, inline_ = 0;
    bool stopping_ = false;
    std::thread thread_; // started by the constructor once everything above is ready
};

} // namespace kvn_sim
